// An engine that does what a measurement needs: it takes one worker, gives it tasks and acknowledges their
// final statuses at once, from memory. One thread, no locks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "wire.h"

namespace bench {

class Engine {
  public:
    Engine() { m_listener = Listen(&m_port); }

    std::uint16_t Port() const { return m_port; }
    // Waits for the worker's connection and welcomes it.
    void TakeWorker();
    // Queues one more task for the worker.
    void Add(std::string_view text);
    // Writes what is queued, waits until something has come from the worker or from `other` (when it is not
    // -1) and takes what the worker sent. True when there is something to read from `other`.
    bool Step(int other = -1);
    // Ends the session; the worker ends on that.
    void End();

    bool IsNotified() const { return m_notified; }
    // Tasks that have ended. Any that does not end well, or not in its turn, ends the measurement.
    unsigned Finals() const { return m_finals; }
    const std::string& LastFinalId() const { return m_lastFinalId; }
    // Frames that the worker has sent, and how many reads they came in.
    unsigned Frames() const { return m_frames; }
    unsigned Reads() const { return m_reads; }

  private:
    void Take(const Frame& frame);
    void TakeState(std::string_view body);
    void Flush();

    int m_listener = -1;
    std::uint16_t m_port = 0;
    int m_worker = -1;
    Input m_input;
    std::string m_output;
    std::uint64_t m_seq = 0;
    std::uint64_t m_received = 0;
    std::uint64_t m_acknowledged = 0;
    bool m_ackDue = false;
    bool m_notified = false;
    unsigned m_finals = 0;
    std::string m_lastFinalId;
    unsigned m_frames = 0;
    unsigned m_reads = 0;
};

}  // namespace bench

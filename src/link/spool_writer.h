// Writes and removes the worker's spool file (docs/engine-link.md, "The spool"; link/spool_file.h has its
// form) on a thread of its own: a disk that is slow or does not answer holds up neither the link's I/O thread
// nor a sender, and no lock of the client's is held meanwhile. The thread is started when a status is to be
// kept for the first time; a task whose statuses are acknowledged in time has no such thread and touches no
// file.
//
// Any thread may call anything; nothing here waits but Finish. `tell` calls nothing of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "base/clock.h"
#include "base/sync.h"

namespace rq::link {

class SpoolWriter {
  public:
    using Body = std::shared_ptr<const std::string>;
    using Tell = std::function<void(bool isProblem, const std::string& line)>;

    // `tell` gets lines for the log, on the thread, and none after Finish.
    SpoolWriter(Clock& clock, Tell tell) : m_clock(clock), m_tell(std::move(tell)) {}
    ~SpoolWriter() { Finish(std::chrono::milliseconds(0)); }
    SpoolWriter(const SpoolWriter&) = delete;
    SpoolWriter& operator=(const SpoolWriter&) = delete;

    // A session begins: its numbers begin anew, and what an earlier one has left stays where it is. Nothing
    // is kept without a folder.
    void Begin(std::string folder, std::string attempt);
    // The file is to hold this status, unless it holds that one or a newer one. `previous`: as
    // SpooledStatus's.
    void Keep(std::uint64_t seq, std::uint64_t previous, Body body);
    // The engine has everything up to that: the file goes if it holds nothing newer.
    void Acknowledge(std::uint64_t seq);
    // Waits for what is still to be done, then for the end of the thread. One that takes longer is left
    // behind, with what it does.
    void Finish(std::chrono::milliseconds patience);

  private:
    struct State;

    Clock& m_clock;
    const Tell m_tell;
    Mutex m_lock;
    std::shared_ptr<State> m_state RQ_GUARDED_BY(m_lock);  // from Begin to Finish
    std::thread m_thread RQ_GUARDED_BY(m_lock);
};

}  // namespace rq::link

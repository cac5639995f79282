// Watchdog: ends this process when a call into the plug-in does not come back. It has a thread of its own for
// the life of the object. Watch and Unwatch by the main thread and the link thread, each for its own lane.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "base/sync.h"
#include "plugincheck/journal.h"
#include "plugincheck/machine_clock.h"

namespace rq::plugincheck {

class Watchdog {
  public:
    explicit Watchdog(JournalWriter& journal);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // `what` names the call: "RQWorkerInit".
    void Watch(Lane lane, const std::string& what, std::chrono::milliseconds limit);
    void Unwatch(Lane lane);

  private:
    struct Call {
        std::string what;
        std::chrono::milliseconds limit;
        MachineClock::time_point deadline;
    };

    void Run();
    void EndOverdue(const Call& call);

    JournalWriter& m_journal;
    Signal m_signal;
    bool m_isEnding RQ_GUARDED_BY(m_signal) = false;
    std::array<std::optional<Call>, 2> m_calls RQ_GUARDED_BY(m_signal);
    std::thread m_thread;
};

}  // namespace rq::plugincheck

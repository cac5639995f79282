// MachineClock: time as far as the machine gave this process any. It follows the steady clock, but stands
// still while the whole process does, on a machine that is overloaded or suspended: a thread of its own looks
// every few milliseconds, and what it overslept does not count. Everything that a plug-in is judged by is
// measured with it, so that nobody is blamed for another's load.
//
// now() on any thread, while a MachineClockThread lives.
#pragma once

#include <chrono>
#include <thread>

#include "base/sync.h"

namespace rq::plugincheck {

struct MachineClock {
    using duration = std::chrono::microseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<MachineClock, duration>;
    static constexpr bool is_steady = true;

    static time_point now();
};

class MachineClockThread {
  public:
    MachineClockThread();
    ~MachineClockThread();
    MachineClockThread(const MachineClockThread&) = delete;
    MachineClockThread& operator=(const MachineClockThread&) = delete;

  private:
    void Run();

    Signal m_signal;
    bool m_isEnding RQ_GUARDED_BY(m_signal) = false;
    std::thread m_thread;
};

}  // namespace rq::plugincheck

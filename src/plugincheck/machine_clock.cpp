#include "plugincheck/machine_clock.h"

#include <algorithm>

namespace rq::plugincheck {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick(5);
constexpr MachineClock::duration kMostOfOneTick = std::chrono::milliseconds(30);

struct Counted {
    Mutex mutex;
    MachineClock::duration total RQ_GUARDED_BY(mutex){0};
    steady_clock::time_point last RQ_GUARDED_BY(mutex) = steady_clock::now();
};

Counted& GetCounted() {
    static Counted& counted = *new Counted;  // until the process ends: so do threads that a plug-in left
    return counted;
}

MachineClock::duration SinceLast(steady_clock::time_point last, steady_clock::time_point now) {
    return std::min(std::chrono::duration_cast<MachineClock::duration>(now - last), kMostOfOneTick);
}

}  // namespace

MachineClock::time_point MachineClock::now() {
    Counted& counted = GetCounted();
    MutexLock lock(counted.mutex);
    return time_point(counted.total + SinceLast(counted.last, steady_clock::now()));
}

MachineClockThread::MachineClockThread() : m_thread([this] { Run(); }) {}

MachineClockThread::~MachineClockThread() {
    {
        Signal::Hold hold(m_signal);
        m_isEnding = true;
        m_signal.Notify(hold);
    }
    m_thread.join();
}

void MachineClockThread::Run() {
    Counted& counted = GetCounted();
    Signal::Hold hold(m_signal);
    while (!m_isEnding) {
        m_signal.WaitFor(hold, kTick);
        MutexLock lock(counted.mutex);
        const auto now = steady_clock::now();
        counted.total += SinceLast(counted.last, now);
        counted.last = now;
    }
}

}  // namespace rq::plugincheck

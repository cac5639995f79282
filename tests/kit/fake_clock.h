// FakeClock: a clock that moves only when a test says so. Any thread may call anything.
//
// A thread that waits on it is registered until its wait has ended; Advance wakes, under the waiter's own
// mutex, each one whose deadline it passes, so no wake-up is lost between "about to wait" and "waiting". The
// real time-outs here only bound a test that has gone wrong.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "base/clock.h"

namespace rq::kit {

class FakeClock final : public Clock {
  public:
    // Begins at 31 May 2017, 10:15:30 local time.
    FakeClock();
    ~FakeClock() override;

    SteadyTime Steady() override;
    LocalTime Local() override;
    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override;
    void SleepFor(std::chrono::milliseconds duration) override;

    // Moves both times and wakes whoever waited for that.
    void Advance(std::chrono::milliseconds duration);
    // Sets the local time alone.
    void SetLocal(LocalTime local);

    // Waits until at least `count` threads are waiting for a time that has not come. False after `bound` of
    // real time. A thread that was notified but has not run yet still counts; WaitForWaitsBegun tells a new
    // wait from an old one.
    bool WaitForWaiters(std::size_t count, std::chrono::seconds bound = std::chrono::seconds(60));
    // How many waits have begun since the clock was made.
    std::uint64_t WaitsBegun();
    bool WaitForWaitsBegun(std::uint64_t total, std::chrono::seconds bound = std::chrono::seconds(60));

  private:
    struct Waiter {
        boost::mutex* mutex;
        boost::condition_variable* condition;
        SteadyTime deadline;
        bool passed;  // Advance has passed its deadline
        int pins;     // Advance is about to use its mutex and condition
    };
    class Registration;

    std::size_t CountWaiting() const;

    // The clock lies below base/sync.h (Signal waits on a Clock), and its own waits must be no interruption
    // points.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    SteadyTime m_steady;
    LocalTime m_local;
    std::list<Waiter> m_waiters;
    std::uint64_t m_waitsBegun = 0;
};

}  // namespace rq::kit

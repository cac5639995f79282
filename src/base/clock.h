// Time as a parameter. The system clock in the programs, a fake one in tests (tests/kit/fake_clock.h).
// Any thread may call a Clock.
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
#include <chrono>

namespace rq {

// Monotonic time; differences only.
using SteadyTime = std::chrono::steady_clock::time_point;

// Local wall-clock time with microseconds; not_a_date_time is "holds no time".
using LocalTime = boost::posix_time::ptime;

class Clock {
  public:
    virtual ~Clock() = default;

    virtual SteadyTime Steady() = 0;
    virtual LocalTime Local() = 0;

    // Waits on `condition` until it is notified or the clock reaches `deadline`. May return early for no
    // reason; the caller tests its own predicate. `lock` is held on entry and on return.
    virtual void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                           SteadyTime deadline) = 0;

    virtual void SleepFor(std::chrono::milliseconds duration) = 0;
};

// The process-wide real clock; never destroyed.
Clock& SystemClock();

}  // namespace rq

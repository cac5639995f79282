#include "base/clock.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <thread>

#include "platform/steady_time.h"

namespace rq {

namespace {

class RealClock final : public Clock {
  public:
    SteadyTime Steady() override { return platform::SteadyNow(); }

    LocalTime Local() override { return boost::posix_time::microsec_clock::local_time(); }

    void WaitUntil(boost::unique_lock<boost::mutex>& lock, boost::condition_variable& condition,
                   SteadyTime deadline) override {
        // A day at most: a deadline in the far future must not overflow what the condition computes with.
        constexpr std::chrono::nanoseconds longest = std::chrono::hours(24);
        const auto now = Steady();
        if (deadline <= now) return;
        const auto left = deadline - now < longest ? deadline - now : longest;
        // Relative, so that the condition's own monotonic clock decides; rounded up, so that it does not end
        // too early.
        const auto us = std::chrono::ceil<std::chrono::microseconds>(left);
        condition.timed_wait(lock, boost::posix_time::microseconds(us.count()));
    }

    void SleepFor(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

Clock& SystemClock() {
    static auto* clock = new RealClock;
    return *clock;
}

}  // namespace rq

#include "base/clock.h"

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include "platform/steady_time.h"

namespace rq {
namespace {

using std::chrono::milliseconds;

TEST(SystemClock, SteadyTimeGoesOnDuringASleep) {
    Clock& clock = SystemClock();
    const auto before = clock.Steady();
    clock.SleepFor(milliseconds(5));
    EXPECT_GE(clock.Steady() - before, milliseconds(5));
}

// Not the standard library's, which on Windows counts the time of a suspended machine.
TEST(SystemClock, SteadyTimeIsThePlatformsOwn) {
    const auto before = platform::SteadyNow();
    const auto now = SystemClock().Steady();
    EXPECT_GE(now, before);
    EXPECT_LE(now, platform::SteadyNow());
}

TEST(SystemClock, LocalTimeIsADate) {
    EXPECT_FALSE(SystemClock().Local().is_special());
}

TEST(SystemClock, AWaitEndsAtItsDeadline) {
    boost::mutex mutex;
    boost::condition_variable condition;
    boost::unique_lock<boost::mutex> lock(mutex);
    Clock& clock = SystemClock();
    const auto end = clock.Steady() + milliseconds(10);
    while (clock.Steady() < end) clock.WaitUntil(lock, condition, end);
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_GE(clock.Steady(), end);
}

TEST(SystemClock, ANotificationEndsAWaitWithoutADeadline) {
    boost::mutex mutex;
    boost::condition_variable condition;
    bool told = false;
    boost::thread teller([&] {
        const boost::unique_lock<boost::mutex> lock(mutex);
        told = true;
        condition.notify_one();
    });
    {
        boost::unique_lock<boost::mutex> lock(mutex);
        while (!told) SystemClock().WaitUntil(lock, condition, SteadyTime::max());
        EXPECT_TRUE(told);
    }
    teller.join();
}

}  // namespace
}  // namespace rq

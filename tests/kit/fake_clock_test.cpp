#include "kit/fake_clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <memory>

#include "base/sync.h"

namespace rq::kit {
namespace {

using std::chrono::milliseconds;

TEST(FakeClock, StandsStillUntilItIsMoved) {
    FakeClock clock;
    const auto steady = clock.Steady();
    const auto local = clock.Local();
    EXPECT_EQ(clock.Steady(), steady);
    clock.Advance(milliseconds(1500));
    EXPECT_EQ(clock.Steady() - steady, milliseconds(1500));
    EXPECT_EQ((clock.Local() - local).total_milliseconds(), 1500);
}

TEST(FakeClock, WakesASleeperExactlyWhenItsTimeHasCome) {
    FakeClock clock;
    std::atomic<bool> awake{false};
    boost::thread sleeper([&] {
        clock.SleepFor(milliseconds(1000));
        awake = true;
    });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    clock.Advance(milliseconds(999));
    EXPECT_TRUE(clock.WaitForWaiters(1));
    EXPECT_FALSE(awake);
    clock.Advance(milliseconds(1));
    sleeper.join();
    EXPECT_TRUE(awake);
}

TEST(FakeClock, ANotificationEndsASignalsWait) {
    FakeClock clock;
    Signal signal(clock);
    std::atomic<int> result{-1};
    boost::thread waiter([&] { result = signal.WaitFor(std::chrono::hours(1)) ? 1 : 0; });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    signal.Notify();
    waiter.join();
    EXPECT_EQ(result, 1);
}

TEST(FakeClock, AnInterruptionEndsAWait) {
    FakeClock clock;
    Signal signal(clock);
    std::atomic<bool> interrupted{false};
    boost::thread waiter([&] {
        try {
            signal.WaitFor(std::chrono::hours(1));
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        }
    });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    waiter.interrupt();
    waiter.join();
    EXPECT_TRUE(interrupted);
}

// The waiter's signal may go away as soon as its wait is over, while Advance is still waking others.
TEST(FakeClock, SurvivesSignalsThatGoAwayWhileItMoves) {
    FakeClock clock;
    for (int round = 0; round < 200; ++round) {
        const auto begun = clock.WaitsBegun();
        auto wait = [&clock] {
            auto signal = std::make_unique<Signal>(clock);
            EXPECT_FALSE(signal->WaitFor(milliseconds(10)));
        };
        boost::thread first(wait);
        boost::thread second(wait);
        ASSERT_TRUE(clock.WaitForWaitsBegun(begun + 2));
        clock.Advance(milliseconds(10));
        first.join();
        second.join();
    }
}

TEST(FakeClock, WaitForWaitersDoesNotCountThoseWhoseTimeHasCome) {
    FakeClock clock;
    boost::thread sleeper([&] { clock.SleepFor(milliseconds(5)); });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    clock.Advance(milliseconds(5));
    EXPECT_FALSE(clock.WaitForWaiters(1, std::chrono::seconds(0)));
    sleeper.join();
}

}  // namespace
}  // namespace rq::kit

#include "base/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread.hpp>

#include "kit/fake_clock.h"

namespace rq {
namespace {

using kit::FakeClock;
using std::chrono::milliseconds;

// Wakes without a notification whenever it likes: what the operating system may do, always done here.
class SpuriousClock final : public Clock {
  public:
    SteadyTime Steady() override { return SteadyTime(milliseconds(m_now)); }
    LocalTime Local() override { return {}; }
    void WaitUntil(boost::unique_lock<boost::mutex>&, boost::condition_variable&, SteadyTime) override {
        ++m_now;
    }
    void SleepFor(milliseconds) override {}
    int Now() const { return m_now; }

  private:
    int m_now = 0;
};

TEST(Mutex, ExcludesOthers) {
    Mutex mutex;
    int sum = 0;
    auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            const MutexLock lock(mutex);
            ++sum;
        }
    };
    boost::thread first(add);
    boost::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(sum, 20000);
}

TEST(Mutex, TryLockIsRefusedWhileItIsHeld) {
    Mutex mutex;
    mutex.lock();
    bool taken = true;
    boost::thread other([&] {
        taken = mutex.try_lock();
        if (taken) mutex.unlock();
    });
    other.join();
    EXPECT_FALSE(taken);
    mutex.unlock();
}

TEST(Signal, ATokenThatCameFirstEndsTheWaitAtOnce) {
    FakeClock clock;
    Signal signal(clock);
    signal.Notify();
    EXPECT_TRUE(signal.WaitFor(std::chrono::hours(1)));
}

TEST(Signal, ATokenEndsExactlyOneWait) {
    FakeClock clock;
    Signal signal(clock);
    signal.Notify();
    signal.Notify();  // still one token
    EXPECT_TRUE(signal.WaitUntil(clock.Steady()));
    EXPECT_FALSE(signal.WaitUntil(clock.Steady()));
}

TEST(Signal, ResetTakesTheTokenAway) {
    FakeClock clock;
    Signal signal(clock);
    Signal::Hold hold(signal);
    signal.Notify(hold);
    signal.Reset(hold);
    EXPECT_FALSE(signal.WaitUntil(hold, clock.Steady()));
}

TEST(Signal, SpuriousWakesEndNoWait) {
    SpuriousClock clock;
    Signal signal(clock);
    EXPECT_FALSE(signal.WaitFor(milliseconds(100)));
    EXPECT_EQ(clock.Now(), 100);  // each of the hundred wakes was followed by another wait
}

TEST(Signal, EndsAtTheDeadlineOfItsClock) {
    FakeClock clock;
    Signal signal(clock);
    std::atomic<int> result{-1};
    boost::thread waiter([&] { result = signal.WaitFor(milliseconds(500)) ? 1 : 0; });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    clock.Advance(milliseconds(499));
    EXPECT_TRUE(clock.WaitForWaiters(1));
    EXPECT_EQ(result, -1);
    clock.Advance(milliseconds(1));
    waiter.join();
    EXPECT_EQ(result, 0);
}

TEST(Signal, AWaitWithoutAnEndIsPossible) {
    FakeClock clock;
    Signal signal(clock);
    std::atomic<bool> told{false};
    boost::thread waiter([&] { told = signal.WaitFor(milliseconds::max()); });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    clock.Advance(std::chrono::hours(24 * 365));
    EXPECT_TRUE(clock.WaitForWaiters(1));
    signal.Notify();
    waiter.join();
    EXPECT_TRUE(told);
}

// The flag is stored under the signal's mutex together with the token; a waiter that sees the token sees the
// flag.
TEST(Signal, AFlagAndItsTokenComeTogether) {
    FakeClock clock;
    for (int round = 0; round < 500; ++round) {
        Signal signal(clock);
        bool stop = false;
        boost::thread stopper([&] {
            Signal::Hold hold(signal);
            stop = true;
            signal.Notify(hold);
        });
        {
            Signal::Hold hold(signal);
            while (!stop) EXPECT_TRUE(signal.WaitFor(hold, std::chrono::hours(1)));
        }
        stopper.join();
        ASSERT_TRUE(stop);
    }
}

TEST(Signal, TheMutexIsFreeDuringAWait) {
    FakeClock clock;
    Signal signal(clock);
    boost::thread waiter([&] { signal.WaitFor(std::chrono::hours(1)); });
    ASSERT_TRUE(clock.WaitForWaiters(1));
    signal.Notify();  // needs the mutex
    waiter.join();
}

}  // namespace
}  // namespace rq

#include "platform/steady_time.h"

#include <gtest/gtest.h>

#include <thread>

namespace rq::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(SteadyTime, NeverGoesBack) {
    auto last = SteadyNow();
    for (int i = 0; i < 100'000; ++i) {
        const auto now = SteadyNow();
        ASSERT_GE(now, last);
        last = now;
    }
}

// Beside the standard library's clock, while nothing is suspended.
TEST(SteadyTime, RunsAsFastAsTheStandardClock) {
    const auto outerBegin = steady_clock::now();
    const auto begin = SteadyNow();
    const auto innerBegin = steady_clock::now();
    std::this_thread::sleep_for(milliseconds(100));
    const auto innerEnd = steady_clock::now();
    const auto end = SteadyNow();
    const auto outerEnd = steady_clock::now();
    EXPECT_GE(end - begin, innerEnd - innerBegin - milliseconds(1));
    EXPECT_LE(end - begin, outerEnd - outerBegin + milliseconds(1));
}

}  // namespace
}  // namespace rq::platform

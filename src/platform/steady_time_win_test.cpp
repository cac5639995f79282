#include <gtest/gtest.h>

#include "platform/steady_time.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

std::chrono::nanoseconds Unbiased() {
    ULONGLONG time_100ns = 0;
    EXPECT_TRUE(::QueryUnbiasedInterruptTime(&time_100ns));
    return std::chrono::nanoseconds(time_100ns * 100);
}

// Where Windows has the precise form, it is that which is read: it stands between two readings of the coarse
// one, whose step is at most 16 ms.
TEST(SteadyTimeOnWindows, LeavesOutWhatTheMachineWasSuspended) {
    if (::GetProcAddress(::GetModuleHandleW(L"kernelbase.dll"), "QueryUnbiasedInterruptTimePrecise") ==
        nullptr)
        GTEST_SKIP() << "this system has no such clock";
    const auto before = Unbiased();
    const auto now = SteadyNow().time_since_epoch();
    const auto after = Unbiased();
    EXPECT_GE(now, before);
    EXPECT_LE(now, after + std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace rq::platform

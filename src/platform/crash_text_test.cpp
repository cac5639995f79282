#include "platform/crash_text.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace rq::platform {
namespace {

std::chrono::sys_seconds At(std::int64_t seconds) {
    return std::chrono::sys_seconds(std::chrono::seconds(seconds));
}

TEST(CrashText, Numbers) {
    CrashText text;
    text.Decimal(0) << " ";
    text.Decimal(7, 3) << " ";
    text.Decimal(std::numeric_limits<std::uint64_t>::max()) << " ";
    text.Hex(0xC0000005);
    EXPECT_EQ(text.View(), "0 007 18446744073709551615 0xC0000005");
}

TEST(CrashText, Times) {
    CrashText text;
    text.Time(At(0)) << " ";
    text.Time(At(1496225730)) << " ";
    text.CompactTime(At(951868799));
    EXPECT_EQ(text.View(), "1970-01-01 00:00:00 2017-05-31 10:15:30 20000229.235959");
}

TEST(CrashText, TheRestIsCutAndTheEndStays) {
    CrashText text;
    text << std::string(6000, 'x') << std::string(6000, 'y') << "z";
    EXPECT_EQ(text.View().size(), 6u * 1024 - 1);
    EXPECT_EQ(text.Terminated()[text.View().size()], '\0');
    EXPECT_TRUE(text.View().ends_with("yy"));
}

}  // namespace
}  // namespace rq::platform

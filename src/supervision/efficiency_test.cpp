#include "supervision/efficiency.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

namespace rq {
namespace {

TEST(Efficiency, TranscodeAndRealtimeMergeAreTimesRealTime) {
    for (const std::int32_t type : {1, 8}) {
        const auto efficiency = ComputeEfficiency(type, 12.345, 500, 7.0, 10'000, 25);
        EXPECT_DOUBLE_EQ(efficiency.speed, 2.0);
        EXPECT_DOUBLE_EQ(efficiency.averageSpeed, 50.0);
        EXPECT_EQ(efficiency.logLine,
                  "Efficiency: Percent:12.35 % , AverageSpeed:50.00 frame/s, TimeSpeed:2.00.");
    }
}

TEST(Efficiency, ReviewKeepsTheAverageSpeedUnderTheNameTimeSpeed) {
    const auto efficiency = ComputeEfficiency(2, 50.0, 500, 7.0, 10'000, 25);
    EXPECT_DOUBLE_EQ(efficiency.speed, 50.0);
    EXPECT_DOUBLE_EQ(efficiency.averageSpeed, 50.0);
    EXPECT_EQ(efficiency.logLine, "Efficiency: Percent:50.00 % , TimeSpeed:50.00.");
}

TEST(Efficiency, FramesAndItsKinAreUnitsPerMillisecond) {
    for (const std::int32_t type : {13, 20, 23}) {
        const auto efficiency = ComputeEfficiency(type, 50.0, 500, 7.0, 10'000, 25);
        EXPECT_DOUBLE_EQ(efficiency.speed, 0.05) << type;
        EXPECT_EQ(efficiency.averageSpeed, 0.0) << type;
        EXPECT_EQ(efficiency.logLine, "") << type;
    }
}

TEST(Efficiency, AllOthersKeepThePluginsFigure) {
    for (const std::int32_t type : {0, 3, 4, 5, 6, 7, 9, 10, 12, 14, 30, 299, -1}) {
        const auto efficiency = ComputeEfficiency(type, 50.0, 500, 7.25, 10'000, 25);
        EXPECT_DOUBLE_EQ(efficiency.speed, 7.25) << type;
        EXPECT_EQ(efficiency.averageSpeed, 0.0) << type;
        EXPECT_EQ(efficiency.logLine, "") << type;
    }
}

TEST(Efficiency, CountsBeyond32BitsAreWhole) {
    const std::int64_t processed = std::int64_t{1} << 40;
    EXPECT_DOUBLE_EQ(ComputeEfficiency(2, 1, processed, 0, 1000, 25).speed, 1099511627776.0);
    EXPECT_DOUBLE_EQ(ComputeEfficiency(13, 1, processed, 0, 1, 0).speed, 1099511627776.0);
}

TEST(Efficiency, NoElapsedTimeIsNotGuarded) {
    EXPECT_TRUE(std::isinf(ComputeEfficiency(1, 1, 10, 0, 0, 25).speed));
    EXPECT_TRUE(std::isnan(ComputeEfficiency(1, 1, 0, 0, 0, 25).speed));
    EXPECT_TRUE(std::isinf(ComputeEfficiency(13, 1, 10, 0, 0, 0).speed));
    EXPECT_EQ(ComputeEfficiency(2, 1, 10, 0, 0, 25).logLine, "Efficiency: Percent:1.00 % , TimeSpeed:inf.");
}

TEST(Efficiency, HugePercentIsFormattedWhole) {
    const auto line = ComputeEfficiency(2, 1e300, 10, 0, 1, 25).logLine;
    EXPECT_GT(line.size(), 300u);
    EXPECT_TRUE(line.ends_with(" % , TimeSpeed:10000.00.")) << line;
}

}  // namespace
}  // namespace rq

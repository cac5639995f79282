#include "time_line.h"

#include <gtest/gtest.h>

namespace rq::transcode {
namespace {

constexpr std::int64_t kFrame_us = 40'000;
constexpr std::int64_t kMs_us = 1000;
constexpr std::int64_t kSecond_us = 1'000'000;

TimeLine Recording() {
    return TimeLine(2, 10 * kSecond_us, true);
}

TEST(TimeLine, LeavesSteadyTimesAlone) {
    TimeLine line = Recording();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(line.Move(0, 7 * kSecond_us + i * kFrame_us, kFrame_us), 0);
    // Gaps and small steps back belong to it.
    EXPECT_EQ(line.Move(0, 20 * kSecond_us, kFrame_us), 0);
    EXPECT_EQ(line.Move(0, 20 * kSecond_us - 50 * kMs_us, kFrame_us), 0);
    EXPECT_EQ(line.Jumps(), 0u);
}

TEST(TimeLine, JoinsWhatBeginsAnew) {
    TimeLine line = Recording();
    for (int i = 0; i < 50; ++i) {
        line.Move(0, i * kFrame_us, kFrame_us);
        line.Move(1, i * kFrame_us, kFrame_us);
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(line.Move(0, i * kFrame_us, kFrame_us), 2 * kSecond_us);
        EXPECT_EQ(line.Move(1, i * kFrame_us, kFrame_us), 2 * kSecond_us);
    }
    EXPECT_EQ(line.Jumps(), 1u);
    EXPECT_EQ(line.JumpFromUs(), 2 * kSecond_us);
    EXPECT_EQ(line.JumpToUs(), 0);
}

TEST(TimeLine, ClosesAJumpAheadAndOneFarBack) {
    for (const std::int64_t jump_us : {1000 * kSecond_us, -1000 * kSecond_us}) {
        TimeLine line = Recording();
        line.Move(0, 5000 * kSecond_us, kFrame_us);
        EXPECT_EQ(line.Move(0, 5000 * kSecond_us + jump_us, kFrame_us), kFrame_us - jump_us);
        EXPECT_EQ(line.Jumps(), 1u);
    }
}

// The demultiplexer gives the old part's last sound after the new part's first picture.
TEST(TimeLine, OldPacketsOfOneStreamMayComeAfterNewOnesOfTheOther) {
    TimeLine line = Recording();
    line.Move(0, 9'960 * kMs_us, 40 * kMs_us);
    line.Move(1, 9'900 * kMs_us, 50 * kMs_us);
    EXPECT_EQ(line.Move(0, 1'000 * kMs_us, 40 * kMs_us), 9'000 * kMs_us);  // the new part at 10 s
    EXPECT_EQ(line.Move(1, 9'950 * kMs_us, 50 * kMs_us), 0);               // old
    EXPECT_EQ(line.Move(1, 10'000 * kMs_us, 60 * kMs_us), 0);  // old, and behind the new part's begin
    EXPECT_EQ(line.Move(0, 1'040 * kMs_us, 40 * kMs_us), 9'000 * kMs_us);
    // The new part gives way, and all of it, so that its streams stay together.
    EXPECT_EQ(line.Move(1, 1'000 * kMs_us, 50 * kMs_us), 9'060 * kMs_us);
    EXPECT_EQ(line.Move(0, 1'080 * kMs_us, 40 * kMs_us), 9'060 * kMs_us);
    EXPECT_EQ(line.Jumps(), 1u);
}

// Sound that comes seldom is no jump while the pictures go on.
TEST(TimeLine, OneStreamMayPauseForLong) {
    TimeLine line = Recording();
    line.Move(1, 0, kFrame_us);
    for (int i = 0; i < 1000; ++i) line.Move(0, i * kFrame_us, kFrame_us);
    EXPECT_EQ(line.Move(1, 39 * kSecond_us, kFrame_us), 0);
    EXPECT_EQ(line.Jumps(), 0u);
}

TEST(TimeLine, OneWrongTimeIsHealedByTheNext) {
    TimeLine line = Recording();
    for (int i = 0; i < 10; ++i) line.Move(0, i * kFrame_us, kFrame_us);
    EXPECT_EQ(47'000 * kSecond_us + line.Move(0, 47'000 * kSecond_us, kFrame_us), 10 * kFrame_us);
    EXPECT_EQ(11 * kFrame_us + line.Move(0, 11 * kFrame_us, kFrame_us), 11 * kFrame_us);
}

TEST(TimeLine, StepsBackAreLeftAloneWhereTheyAreNotMended) {
    TimeLine line(1, 600 * kSecond_us, false);
    line.Move(0, 100 * kSecond_us, kFrame_us);
    EXPECT_EQ(line.Move(0, 0, kFrame_us), 0);
    EXPECT_EQ(line.Move(0, 699 * kSecond_us, kFrame_us), 0);
    EXPECT_EQ(line.Jumps(), 0u);
    EXPECT_NE(line.Move(0, 1300 * kSecond_us, kFrame_us), 0);
    EXPECT_EQ(line.Jumps(), 1u);
}

}  // namespace
}  // namespace rq::transcode

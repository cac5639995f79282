// Whose a package worker's report is: every kind of report in every position.
#include "engine/package_turn.h"

#include <gtest/gtest.h>

namespace rq::engine {
namespace {

using Meaning = PackageTurn::Meaning;

TaskStatusEntry Entry(std::uint32_t status, std::uint32_t detail = 0, std::uint32_t error = 0) {
    TaskStatusEntry entry;
    entry.taskId = "the same";
    entry.status = status;
    entry.detailErrorCode = detail;
    entry.errorCode = error;
    return entry;
}

const TaskStatusEntry kRunning = Entry(kTaskRunning);
const TaskStatusEntry kDone = Entry(kTaskFinished);
const TaskStatusEntry kError = Entry(kTaskError, 0, 0xFFFFFFFB);
// A plug-in may report the codes of a stall.
const TaskStatusEntry kLikeAStall = Entry(kTaskError, 0x80000001, 6);
const TaskStatusEntry kStall = [] {
    TaskStatusEntry entry = kLikeAStall;
    entry.stalled = true;
    return entry;
}();

PackageTurn Begun() {
    PackageTurn turn;
    turn.Begin();
    return turn;
}

PackageTurn Ended() {
    PackageTurn turn = Begun();
    turn.End();
    return turn;
}

// The task in hand is the second.
PackageTurn Second() {
    PackageTurn turn = Ended();
    turn.Turn();
    return turn;
}

TEST(PackageTurnTest, TheFirstTaskBeginsOrIsRefused) {
    const PackageTurn turn;
    EXPECT_FALSE(turn.IsAwaited());
    EXPECT_EQ(turn.Of(kRunning, false), Meaning::Begins);
    EXPECT_EQ(turn.Of(kError, false), Meaning::Ends);
    // There is nobody else whose it could be.
    EXPECT_EQ(turn.Of(kError, true), Meaning::Ends);
    EXPECT_EQ(turn.Of(kStall, false), Meaning::Ends);
    EXPECT_EQ(turn.Of(Entry(kTaskPaused), false), Meaning::Other);
}

TEST(PackageTurnTest, WhatComesAfterTheBeginningEndsTheTask) {
    const PackageTurn turn = Begun();
    for (const auto& final : {kDone, kError, kStall, Entry(kTaskCancelled)}) {
        EXPECT_EQ(turn.Of(final, false), Meaning::Ends);
        EXPECT_EQ(turn.Of(final, true), Meaning::Ends);  // the first could not be committed
    }
    for (const std::uint32_t status : {3u, 7u, 1u, 42u})
        EXPECT_EQ(turn.Of(Entry(status), false), Meaning::EndsUnsaid) << status;
}

TEST(PackageTurnTest, AfterTheEndNothingDecidesAnyMore) {
    const PackageTurn turn = Ended();
    for (const auto& final : {kDone, kError, kStall}) EXPECT_EQ(turn.Of(final, true), Meaning::Late);
    EXPECT_EQ(turn.Of(kDone, false), Meaning::Late);
    EXPECT_EQ(turn.Of(kRunning, false), Meaning::Other);
}

TEST(PackageTurnTest, TheSecondTaskHasItsOwnReports) {
    const PackageTurn turn = Second();
    EXPECT_TRUE(turn.IsAwaited());
    EXPECT_EQ(turn.Of(kRunning, false), Meaning::Begins);
    // Two texts that are refused alike, and one refusal that was sent twice.
    EXPECT_EQ(turn.Of(kError, false), Meaning::Ends);
    EXPECT_EQ(turn.Of(kError, true), Meaning::OfEarlier);
    EXPECT_EQ(turn.Of(kDone, true), Meaning::OfEarlier);
    EXPECT_EQ(turn.Of(kStall, false), Meaning::OfEarlier);
    EXPECT_EQ(turn.Of(kLikeAStall, false), Meaning::Ends);
    PackageTurn begun = turn;
    begun.Begin();
    EXPECT_FALSE(begun.IsAwaited());
    EXPECT_EQ(begun.Of(kStall, false), Meaning::Ends);
}

TEST(PackageTurnTest, ARefusalThatCouldNotBeCommittedComesAgain) {
    PackageTurn turn = Second();
    turn.Hold();
    EXPECT_EQ(turn.Of(kError, true), Meaning::Ends);
    turn.End();
    turn.Turn();
    EXPECT_EQ(turn.Of(kError, true), Meaning::OfEarlier);
}

}  // namespace
}  // namespace rq::engine

#include <gtest/gtest.h>

#include <chrono>

#include "errors/error_text.h"
#include "supervision/testing/progress_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;
using testing::ProgressFixture;
using testing::RunnerAnswers;

const std::string kStallLine = Line(4, "Progress is not be updated for long time", "BASE");
const std::string kEndLine = Line(2, "Worker process thread has stopped. PID:4711, TaskID:[T1]");

TEST(IsOverdue, NeedsTheWholeTimeoutAndALaterNow) {
    const LocalTime stamp(boost::gregorian::date(2017, 5, 31), boost::posix_time::hours(10));
    const auto after = [&](std::int64_t microseconds) {
        return IsOverdue(stamp + boost::posix_time::microseconds(microseconds), stamp, 60);
    };
    EXPECT_FALSE(after(59'999'999));
    EXPECT_TRUE(after(60'000'000));
    EXPECT_FALSE(after(0));
    EXPECT_FALSE(after(-3'600'000'000));
    EXPECT_FALSE(IsOverdue(stamp, stamp, 0));
    EXPECT_TRUE(IsOverdue(stamp + boost::posix_time::microseconds(1), stamp, 0));
    // A parameter of -1.
    EXPECT_FALSE(IsOverdue(stamp + boost::posix_time::hours(24 * 365 * 100), stamp, 4'294'967'295u));
    EXPECT_FALSE(IsOverdue(stamp, LocalTime(), 0));
    EXPECT_FALSE(IsOverdue(LocalTime(), stamp, 0));
}

class Patrol : public ProgressFixture {};

// The stamp lies at the begin; rounds measure at 5, 10, ... 60 s.
TEST_F(Patrol, StallIsFoundOnTheFirstRoundAtTheTimeoutExactly) {
    m_core.script.SetPercent(30);
    ExpectUpdate(0s);
    Start();
    for (int round = 1; round <= 11; ++round) Round();
    EXPECT_TRUE(Stalls().empty());
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

// Stamps and the patrol's now are of one clock, which no step of the wall clock moves.
TEST_F(Patrol, StepsOfTheWallClockMakeNoStallAndHideNone) {
    for (const int hours : {1, -1}) {
        m_core.script.SetPercent(30);
        m_core.script.With(
            [&](RunnerAnswers& answers) { answers.progress.expectedNextUpdate = m_core.script.StampNow(); });
        const std::size_t before = Stalls().size();
        Start();
        Round();
        m_core.clock.SetLocal(m_core.clock.Local() + boost::posix_time::hours(hours));
        for (int round = 2; round <= 11; ++round) Round();
        EXPECT_EQ(Stalls().size(), before) << hours;
        LastRound();
        EXPECT_EQ(Stalls().size(), before + 1) << hours;
        Stop();
    }
}

TEST_F(Patrol, OneMicrosecondShortIsNoStallYet) {
    m_core.script.SetPercent(30);
    const LocalTime stamp = m_core.clock.Local() + boost::posix_time::microseconds(1);
    m_core.script.With([&](RunnerAnswers& answers) { answers.progress.expectedNextUpdate = stamp; });
    Start();
    for (int round = 1; round <= 12; ++round) Round();
    EXPECT_TRUE(Stalls().empty());
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, LogLineThenCloseThenStatusThenTheEnd) {
    m_core.script.SetPercent(30);
    ExpectUpdate(-60s);
    Start();
    Round();
    m_core.journal.Clear();
    LastRound();
    EXPECT_EQ(
        m_core.journal.EntriesThat([](const std::string& entry) { return !entry.starts_with("console"); }),
        (std::vector<std::string>{kStallLine, "core.SetClose 1", "runner.GetTaskResult 3", "core.Send 4009",
                                  kEndLine}));
}

TEST_F(Patrol, StallMessage) {
    const auto result = std::make_shared<stMD5TaskResult>();
    m_core.script.With([&](RunnerAnswers& answers) {
        answers.result = result;
        answers.error = {1, 2, L"not looked at", L"nor this"};
    });
    m_core.script.SetPercent(30);
    ExpectUpdate(-60s);
    Start();
    Round();
    LastRound();
    const auto message = Stalls().at(0);
    EXPECT_EQ(message.As<EngineStateMessage>().id, 4009u);
    EXPECT_EQ(message.As<EngineStateMessage>().kind, "state");
    EXPECT_EQ(message.As<EngineStateMessage>().sender, "Worker");
    EXPECT_EQ(message.As<EngineStateMessage>().receiver, "Lite/Agent");
    const TaskStatusEntry& entry = message.Status();
    EXPECT_EQ(entry.status, 4u);
    EXPECT_EQ(entry.taskType, 3u);
    EXPECT_EQ(entry.detailErrorCode, 0x80000001u);
    EXPECT_TRUE(entry.stalled);
    EXPECT_EQ(entry.detailErrorText, "dwKWRSOFTCODEC_UnknowErr");
    EXPECT_EQ(entry.errorCode, 6u);
    EXPECT_EQ(entry.errorText, "Task Not Response !");
    EXPECT_EQ(entry.furtherText, "");
    EXPECT_EQ(entry.result, result);
    EXPECT_EQ(entry.taskId, "T1");
}

TEST_F(Patrol, RefusedStallMessageIsNotRepeated) {
    m_core.script.SetPercent(30);
    ExpectUpdate(-60s);
    Start();
    Round();
    m_core.failures = 1000;
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

// A stall is a matter between worker and task: it is handled and told whatever the connection.
TEST_F(Patrol, StallWhileDisconnectedStillTriesItsOneSend) {
    m_core.disconnected = true;
    m_core.script.SetPercent(30);
    ExpectUpdate(-60s);
    Start();
    Round();
    LastRound();
    EXPECT_EQ(m_core.journal.Count("core.SetClose 1"), 1u);
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, MovingPercentIsNoStallHoweverOldTheStamp) {
    ExpectUpdate(-1h);
    Start();
    for (int round = 1; round <= 20; ++round) {
        m_core.script.SetPercent(round);
        Round();
    }
    EXPECT_TRUE(Stalls().empty());
}

TEST_F(Patrol, SignsOfLifeKeepATaskThatDoesNotMove) {
    m_core.script.SetPercent(30);
    Start();
    for (int round = 1; round <= 40; ++round) {
        ExpectUpdate(0s);
        Round();
    }
    EXPECT_TRUE(Stalls().empty());
}

TEST_F(Patrol, PromiseOfSecondsPostponesTheStallByThem) {
    m_core.script.SetPercent(30);
    ExpectUpdate(100s);  // so the stall is due at 160 s
    Start();
    for (int round = 1; round <= 31; ++round) Round();
    EXPECT_TRUE(Stalls().empty());
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, ExactlyHundredNeverStalls) {
    m_core.script.SetPercent(100.0);
    ExpectUpdate(-1h);
    Start();
    for (int round = 1; round <= 20; ++round) Round();
    EXPECT_TRUE(Stalls().empty());
}

TEST_F(Patrol, JustBelowHundredStalls) {
    m_core.script.SetPercent(99.99);
    ExpectUpdate(-1h);
    Start();
    Round();
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, AboveHundredNeverStalls) {
    m_core.script.SetPercent(100.5);
    ExpectUpdate(-1h);
    Start();
    Round();
    Round();
    EXPECT_TRUE(Stalls().empty());
}

TEST_F(Patrol, PausedTaskNeverStalls) {
    m_core.script.SetPercent(30);
    m_core.script.SetStatus(kTaskPaused);
    ExpectUpdate(-1h);
    Start();
    for (int round = 1; round <= 20; ++round) Round();
    EXPECT_TRUE(Stalls().empty());
    m_core.script.SetStatus(kTaskRunning);
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

// Of the statuses that alone: another one, a final one too, is of a task that goes on.
TEST_F(Patrol, EveryOtherStatusStalls) {
    for (const std::uint32_t status : {0u, 3u, 4u, 5u}) {
        m_core.script.SetPercent(30);
        m_core.script.SetStatus(status);
        ExpectUpdate(-1h);
        const std::size_t before = Stalls().size();
        Start();
        Round();
        LastRound();
        EXPECT_EQ(Stalls().size(), before + 1) << status;
    }
}

// It is the task's status that counts, not the worker's flag.
TEST_F(Patrol, PausedFlagAloneDoesNotHoldThePatrolBack) {
    m_core.script.SetPercent(30);
    m_core.paused = true;
    ExpectUpdate(-1h);
    Start();
    Round();
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, ClearedWorkingFlagIsNoStall) {
    m_core.script.SetPercent(30);
    ExpectUpdate(-1h);
    Start();
    Round();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.working = false;
    m_core.clock.Advance(5s);
    m_thread.join();
    EXPECT_TRUE(Stalls().empty());
}

TEST_F(Patrol, TimeoutOfZeroIsNotOff) {
    m_core.patrolTimeout_s = 0;
    m_core.script.SetPercent(30);
    Start();
    for (int round = 1; round <= 5; ++round) Round();  // the stamp holds no time: no stall
    EXPECT_TRUE(Stalls().empty());
    ExpectUpdate(0s);
    LastRound();
    EXPECT_EQ(Stalls().size(), 1u);
}

TEST_F(Patrol, RunnerThatGoesDuringTheCloseLeavesNoResult) {
    m_core.script.SetPercent(30);
    ExpectUpdate(-1h);
    Start();
    Round();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.goesAtClose = true;
    m_core.clock.Advance(5s);
    m_thread.join();
    ASSERT_EQ(Stalls().size(), 1u);
    EXPECT_EQ(Stalls()[0].Status().result, nullptr);
    EXPECT_EQ(m_core.journal.Count("runner.GetTaskResult 3"), 0u);
}

}  // namespace
}  // namespace rq

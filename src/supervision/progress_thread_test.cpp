// The progress thread's measuring and reporting; its patrol is in progress_patrol_test.cpp.
#include "supervision/progress_thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "supervision/testing/gate.h"
#include "supervision/testing/progress_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;
using testing::ProgressFixture;
using testing::RunnerAnswers;

class Progress : public ProgressFixture {};

TEST_F(Progress, NothingHappensBeforeTheInterval) {
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.clock.Advance(4999ms);
    EXPECT_TRUE(Reports().empty());
    m_core.clock.Advance(1ms);
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, MessageHasTheFixedFields) {
    m_core.script.With([](RunnerAnswers& answers) {
        answers.progress.percent = 12.5;
        answers.progress.speed = 3.25;
    });
    Start();
    Round();
    const auto message = Reports().at(0);
    EXPECT_EQ(message.id, 4008u);
    const auto& report = message.As<EngineProgressMessage>();
    EXPECT_EQ(report.id, 4009u);  // differs from the id that it travels under
    EXPECT_EQ(report.kind, "process");
    EXPECT_EQ(report.sender, "Worker");
    EXPECT_EQ(report.receiver, "Lite/Agent");
    ASSERT_EQ(report.entries.size(), 1u);
    EXPECT_EQ(message.Progress().taskId, "T1");
    EXPECT_EQ(message.Progress().second, "");
    EXPECT_EQ(message.Progress().third, "");
    EXPECT_EQ(message.Progress().percent, 12.5f);
    EXPECT_EQ(message.Progress().speed, 3.25f);
}

TEST_F(Progress, FirstRoundCountsAsAChangeEvenAtZeroPercent) {
    Start();
    Round();
    ASSERT_EQ(Reports().size(), 1u);
    EXPECT_EQ(Reports()[0].Progress().percent, 0.0f);
    EXPECT_EQ(m_core.journal.Console(), "");
}

TEST_F(Progress, SamePercentIsSentOnce) {
    m_core.script.SetPercent(10);
    Start();
    Round();
    Round();
    Round();
    EXPECT_EQ(Reports().size(), 1u);
    m_core.script.SetPercent(10.5);
    Round();
    EXPECT_EQ(Reports().size(), 2u);
    m_core.script.SetPercent(10);
    Round();
    EXPECT_EQ(Reports().size(), 3u);
}

TEST_F(Progress, StandardOutputLines) {
    m_core.script.With([](RunnerAnswers& answers) {
        answers.progress.percent = 12.345678;
        answers.progress.speed = 0.1;
    });
    Start();
    Round();
    const std::string lines = "Process=12.3457\nAverateSpeed=0.1\n";
    EXPECT_EQ(m_core.journal.Console(), lines);
    // Each round, whether anything is sent or not.
    m_core.paused = true;
    Round();
    m_core.disconnected = true;
    m_core.script.SetStatus(kTaskFinished);
    Round();
    EXPECT_EQ(m_core.journal.Console(), lines + lines + lines);
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, StandardOutputAtTheEndsOfTheRange) {
    Start();
    for (const double percent : {0.0, -1.0, 100.5}) {
        m_core.script.SetPercent(percent);
        Round();
    }
    EXPECT_EQ(m_core.journal.Console(), "");
    m_core.script.SetPercent(100.0);
    Round();
    EXPECT_EQ(m_core.journal.Console(), "Process=100\nAverateSpeed=0\n");
    EXPECT_EQ(Reports().size(), 4u);
}

TEST_F(Progress, AboveHundredIsLoggedAndSentAsHundred) {
    m_core.script.SetPercent(100.25);
    Start();
    Round();
    EXPECT_EQ(Reports().at(0).Progress().percent, 100.0f);
    const std::string line = Line(3, " task( T1 ) process is more then 100.0.");
    EXPECT_EQ(m_core.journal.LogLines(), std::vector<std::string>{line});
    Round();  // logged each round, sent once
    EXPECT_EQ(m_core.journal.Count(line), 2u);
    m_core.paused = m_core.disconnected = true;
    Round();
    EXPECT_EQ(m_core.journal.Count(line), 3u);
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, NoSendInFinalStatuses) {
    Start();
    double percent = 1;
    for (const std::uint32_t status : {0u, 4u, 5u}) {
        m_core.script.SetStatus(status);
        m_core.script.SetPercent(percent++);
        Round();
        EXPECT_TRUE(Reports().empty()) << status;
    }
    for (const std::uint32_t status : {3u, 7u, 1u}) {
        m_core.script.SetStatus(status);
        m_core.script.SetPercent(percent++);
        Round();
    }
    EXPECT_EQ(Reports().size(), 3u);
}

TEST_F(Progress, NoSendWhilePausedOrDisconnected) {
    m_core.paused = true;
    Start();
    m_core.script.SetPercent(1);
    Round();
    m_core.paused = false;
    m_core.disconnected = true;
    m_core.script.SetPercent(2);
    Round();
    EXPECT_TRUE(Reports().empty());
    m_core.disconnected = false;
    Round();  // 2 again: it is known, although it was never sent
    EXPECT_TRUE(Reports().empty());
    m_core.script.SetPercent(3);
    Round();
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, RefusedReportIsNotRepeated) {
    m_core.failures = 1;
    m_core.script.SetPercent(5);
    Start();
    Round();
    Round();
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, TranscodeSendsItsTimeSpeed) {
    m_core.taskType = 1;
    SetWork(10, 500, 0s);
    Start();
    Round();  // 5 s after the start
    EXPECT_EQ(Reports().at(0).Progress().speed, 4.0f);
    EXPECT_EQ(Reports().at(0).Progress().averageSpeed, 100.0f);
    EXPECT_EQ(m_core.journal.LogLines(),
              std::vector<std::string>{Line(
                  2, "Efficiency: Percent:10.00 % , AverageSpeed:100.00 frame/s, TimeSpeed:4.00.", "PROG")});
    EXPECT_EQ(m_core.journal.Console(), "Process=10\nAverateSpeed=4\n");
}

TEST_F(Progress, AStepOfTheWallClockChangesNoSpeed) {
    m_core.taskType = 1;
    SetWork(10, 500, 0s);
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.clock.SetLocal(m_core.clock.Local() + boost::posix_time::hours(1));
    Round();
    EXPECT_EQ(Reports().at(0).Progress().speed, 4.0f);
    EXPECT_EQ(Reports().at(0).Progress().averageSpeed, 100.0f);
}

TEST_F(Progress, RunnersFrameRateCounts) {
    m_core.taskType = 8;
    m_core.script.With([](RunnerAnswers& answers) { answers.frameRate = 50; });
    SetWork(10, 500, 0s);
    Start();
    Round();
    EXPECT_EQ(Reports().at(0).Progress().speed, 2.0f);
}

TEST_F(Progress, ReviewSendsItsAverageSpeed) {
    m_core.taskType = 2;
    SetWork(10, 500, 0s);
    Start();
    Round();
    EXPECT_EQ(Reports().at(0).Progress().speed, 100.0f);
    EXPECT_EQ(Reports().at(0).Progress().averageSpeed, 100.0f);
    EXPECT_EQ(m_core.journal.LogLines(),
              std::vector<std::string>{Line(2, "Efficiency: Percent:10.00 % , TimeSpeed:100.00.", "PROG")});
}

TEST_F(Progress, FramesAndKinSendUnitsPerMillisecondAndLogNothing) {
    for (const std::int32_t type : {13, 20, 23}) {
        m_core.taskType = type;
        m_core.sent.Clear();
        SetWork(10, 500, 0s);
        Start();
        Round();
        Stop();
        EXPECT_EQ(Reports().at(0).Progress().speed, 0.1f) << type;
        EXPECT_EQ(Reports().at(0).Progress().averageSpeed, 0.0f) << type;
    }
    EXPECT_EQ(m_core.journal.LogLines().size(), 3u);  // the three end lines
}

TEST_F(Progress, NoElapsedTimeIsSentAsTheDivisionGaveIt) {
    m_core.taskType = 13;
    SetWork(10, 500, 5s);  // starts when the round measures
    Start();
    Round();
    EXPECT_TRUE(std::isinf(Reports().at(0).Progress().speed));
    EXPECT_EQ(m_core.journal.Console(), "Process=10\nAverateSpeed=inf\n");
}

TEST_F(Progress, StartStampWithoutATimeIsNoElapsedTime) {
    m_core.taskType = 2;
    m_core.script.With([](RunnerAnswers& answers) {
        answers.progress.percent = 1;
        answers.progress.processed = 5;
    });
    Start();
    Round();
    EXPECT_TRUE(std::isinf(Reports().at(0).Progress().speed));
}

TEST_F(Progress, NotificationWithTheFlagSetOnlyShortensTheWait) {
    m_core.script.SetPercent(10);
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaitsBegun(1));
    m_core.progressSignal.Notify();
    ASSERT_TRUE(m_core.clock.WaitForWaitsBegun(2));
    EXPECT_TRUE(Reports().empty());
    EXPECT_EQ(m_core.journal.Console(), "");
    Round();
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, StopDuringTheWaitMeasuresNothingMore) {
    m_core.script.SetPercent(10);
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    Stop();
    EXPECT_TRUE(Reports().empty());
    EXPECT_EQ(m_core.journal.Entries(),
              std::vector<std::string>{Line(2, "Worker process thread has stopped. PID:4711, TaskID:[T1]")});
}

TEST_F(Progress, StopBeforeTheFirstWaitIsNotLost) {
    m_core.working = false;
    m_core.progressSignal.Notify();
    Start();
    m_thread.join();
    EXPECT_EQ(m_core.clock.WaitsBegun(), 0u);
}

TEST_F(Progress, ClearedFlagWithoutANotificationIsSeenAfterOneMoreRound) {
    m_core.script.SetPercent(10);
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.working = false;
    m_core.clock.Advance(5s);
    m_thread.join();
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, StopWaitsForTheEndOfAMeasuredRound) {
    testing::Gate sending, goOn;
    m_core.onSend = [&](std::uint32_t) {
        sending.Open();
        goOn.Wait();
    };
    m_core.script.SetPercent(10);
    Start();
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    m_core.clock.Advance(5s);
    ASSERT_TRUE(sending.Wait());
    testing::Gate stopped;
    std::thread stopper([&] {
        m_core.working = false;
        m_core.progressSignal.Notify();
        stopped.Open();
    });
    EXPECT_FALSE(
        stopped.Wait(std::chrono::seconds(1)));  // it would come at once if the round did not hold it
    goOn.Open();
    stopper.join();
    m_thread.join();
    EXPECT_EQ(Reports().size(), 1u);
}

TEST_F(Progress, WithoutARunnerNothingIsSentAndNothingStalls) {
    m_core.hasRunner = false;
    m_core.taskType = 1;
    Start();
    Round();
    Round();
    m_core.clock.Advance(1h);
    ASSERT_TRUE(m_core.clock.WaitForWaiters(1));
    EXPECT_TRUE(m_core.journal.Entries().empty());
}

}  // namespace
}  // namespace rq

#include <gtest/gtest.h>

#include <chrono>

#include "platform/process.h"
#include "supervision/testing/gate.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Line;
using testing::RunnerAnswers;
using testing::WorkerFixture;

class WorkLoop : public WorkerFixture {
  protected:
    void Begin(std::int32_t type = RQ_TASK_MD5_COMPUTE) {
        m_start.taskType = type;
        InitCore();
        m_journal.Clear();
    }
    std::size_t Performed() const { return m_journal.Count("runner.PerformTask"); }
    const std::string m_progressEnd =
        Line(2, "Worker process thread has stopped. PID:" + Pid() + ", TaskID:[T1]");
    const std::string m_heartbeatEnd =
        Line(2, "Worker thread for sending heartbeat has stopped. PID:" + Pid() + ", TaskID:[T1]");

  private:
    static std::string Pid() { return std::to_string(platform::CurrentProcessId()); }
};

TEST_F(WorkLoop, OneTaskFromBeginToEnd) {
    Begin();
    m_script.onPerform = [this] {
        EXPECT_TRUE(m_core->IsWorking());
        EXPECT_TRUE(m_clock.WaitForWaiters(2));  // the progress thread waits as well as the heartbeat's
        m_script.SetStatus(kTaskFinished);
        return 0;
    };
    StartWork();
    EXPECT_TRUE(m_journal.WaitFor(m_progressEnd));  // without the clock moving
    WaitForIdle();
    EXPECT_FALSE(m_core->IsWorking());
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 0);
    Release();
    m_core.reset();
    const auto entries =
        m_journal.EntriesThat([this](const std::string& entry) { return entry != m_heartbeatEnd; });
    EXPECT_EQ(entries,
              (std::vector<std::string>{Line(1, "Prepare work begin.."),
                                        "runner.AnalyseTask <task/>",
                                        Line(2, "SendMSG: TCP_WORKER_SEND_ID. TaskID:[T1]"),
                                        "send 4001",
                                        Line(2, "Prepare work end. TaskID:[T1]"),
                                        Line(1, "Start do work.."),
                                        "console emStatus=3\n",
                                        "send 4009",
                                        "runner.PerformTask",
                                        "console emStatus=0\n",
                                        "runner.GetTaskResult 3",
                                        Line(2, "Status=Finished, SendMSG.", "MAIN", "thread_get_status"),
                                        "send 4009",
                                        Line(1, "Stop progress thread begin.."),
                                        Line(1, "End do work. Status=[0]."),
                                        m_progressEnd,
                                        "console Received task type: 4014\n",
                                        Line(2, "Received Message: destroy.."),
                                        Line(2, "WorkerBase Release begin.."),
                                        "runner.Release",
                                        "runner deleted",
                                        "client.Disconnect",
                                        "client.Uninitialize",
                                        "client deleted",
                                        Line(2, "WorkerBase Release end.."),
                                        Line(1, "RQWorker is destroyed" + std::string(61, '.'))}));
    EXPECT_EQ(m_journal.Count(m_heartbeatEnd), 1u);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 0}));
}

TEST_F(WorkLoop, TheProgressThreadRunsBeforeTheFirstStatusIsSent) {
    Begin();
    m_engine.onSend = [this](std::uint32_t id) {
        if (id == TCP_WORKER_STATE_ID && ++m_tasks == 1) {
            EXPECT_TRUE(m_clock.WaitForWaiters(2, 20s));  // it waits as well as the heartbeat's
        }
        return true;
    };
    ASSERT_TRUE(m_clock.WaitForWaiters(1));  // the exit order would end a heartbeat that does not wait yet
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    EXPECT_EQ(m_tasks, 2);
}

TEST_F(WorkLoop, PerformGetsTheParameters) {
    m_parameters.resize(1);
    m_parameters[0].progressReportInterval_s = 17;
    Begin();
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    m_script.With([](RunnerAnswers& answers) { EXPECT_EQ(answers.parameters.progressReportInterval_s, 17); });
}

TEST_F(WorkLoop, StopFlagBeforeTheBeginRunsNothing) {
    Begin();
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    m_journal.Clear();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    EXPECT_EQ(Performed(), 0u);
    EXPECT_EQ(m_journal.Count(Line(1, "Prepare work begin..")), 0u);
}

TEST_F(WorkLoop, ExitFlagBeforeTheBeginStillRunsTheOneTask) {
    Begin();
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    EXPECT_EQ(Performed(), 1u);
}

TEST_F(WorkLoop, FailedAnalysisIsNotPerformed) {
    Begin();
    m_script.With([](RunnerAnswers& answers) { answers.analyseResult = 9; });
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 9);
    EXPECT_EQ(Performed(), 0u);
    EXPECT_EQ(m_journal.Count(Line(4, "WorkRunner DoWork False!")), 1u);
    EXPECT_EQ(m_engine.sent.Statuses(), std::vector<std::uint32_t>{4});
}

TEST_F(WorkLoop, FailedPerformanceIsReturnedWithTheRunnersStatus) {
    Begin();
    m_script.onPerform = [this] {
        m_script.SetStatus(kTaskError);
        return 5;
    };
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 5);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 4}));
    EXPECT_EQ(m_journal.Count(Line(1, "End do work. Status=[4].")), 1u);
    EXPECT_EQ(m_journal.Count(Line(4, "WorkRunner DoWork False!")), 1u);
}

// A close that lands while the final status is under way.
TEST_F(WorkLoop, StatusOfTheLastLineIsReadAnew) {
    Begin();
    m_engine.onSend = [this](std::uint32_t id) {
        if (id == TCP_WORKER_STATE_ID && ++m_tasks == 2) m_script.SetStatus(kTaskCancelled);
        return true;
    };
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 0}));
    EXPECT_EQ(m_journal.Count(Line(1, "End do work. Status=[5].")), 1u);
}

// Back to back, the thread holds its mutex nearly always; it must still let the main thread end it.
TEST_F(WorkLoop, AHeartbeatWithoutAnIntervalEndsWithTheWork) {
    m_parameters.resize(1);
    m_parameters[0].heartbeatInterval_s = 0;
    Begin();
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_HEARTBEAT_ID, 10));
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    const std::size_t beats = m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).size();
    Release();
    EXPECT_LE(m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).size(), beats + 1);
    EXPECT_EQ(m_core->HeartbeatInterval_s(), 0);
}

// Both mutexes are kept while the log lines are written, so the threads speak afterwards.
TEST_F(WorkLoop, HeartbeatEndsAfterDoWorkHasReturned) {
    Begin();
    ASSERT_TRUE(m_clock.WaitForWaiters(1));
    m_script.onPerform = [] { return 5; };
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    WaitForIdle();
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 5);
    Release();
    EXPECT_LT(m_journal.Find(Line(4, "WorkRunner DoWork False!")), m_journal.Find(m_heartbeatEnd));
    EXPECT_EQ(m_journal.Count(m_heartbeatEnd), 1u);
    EXPECT_TRUE(m_engine.sent.WithId(TCP_WORKER_HEARTBEAT_ID).empty());
}

// ---- orders during an analysis ----

class OrderInAnalysis : public WorkLoop {
  protected:
    // What the engine does while the runner analyses the only task; the task's 4009s.
    std::vector<std::uint32_t> StatusesWith(const std::function<void()>& engine) {
        m_script.onAnalyse = [engine](const std::string&, std::string& taskId) {
            taskId = "T1";
            engine();
            return 0;
        };
        Begin();
        StartWork();
        EXPECT_TRUE(m_journal.WaitFor(m_progressEnd));
        m_engine.DeliverDestroy();
        EXPECT_EQ(JoinWork(), 0);
        EXPECT_EQ(Performed(), 1u);
        return m_engine.sent.Statuses();
    }
};

// A text that was taken is performed, with the stop flag set: the plug-in ends it, and its status is told.
TEST_F(OrderInAnalysis, ACancelReachesTheTaskThatFollows) {
    EXPECT_EQ(StatusesWith([this] { m_engine.DeliverCommand(TCP_TASK_CANCEL_ID); }),
              (std::vector<std::uint32_t>{3, 0}));
    EXPECT_LT(m_journal.Find("send 4003"), m_journal.Find("runner.PerformTask"));
}

TEST_F(OrderInAnalysis, AFinishReachesTheTaskThatFollows) {
    EXPECT_EQ(StatusesWith([this] { m_engine.DeliverCommand(TCP_TASK_FINISH_ID); }),
              (std::vector<std::uint32_t>{3, 0}));
    EXPECT_LT(m_journal.Find("send 4020"), m_journal.Find("runner.PerformTask"));
}

TEST_F(OrderInAnalysis, ASuspendHoldsUpNothingBeforeThePerformCall) {
    EXPECT_EQ(StatusesWith([this] { m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID); }),
              (std::vector<std::uint32_t>{3, 0}));
}

TEST_F(OrderInAnalysis, ALossLetsItBePerformedAndTellsNobody) {
    EXPECT_TRUE(StatusesWith([this] { m_engine.DeliverLoss(); }).empty());
}

// ---- the wait for the exit order ----

// It counts from the end of the task, however long that took, and follows a refused text too.
TEST_F(WorkLoop, TheWaitForTheExitOrderBeginsWhenTheTaskHasEnded) {
    Begin();
    m_script.onPerform = [this] {
        m_clock.Advance(100s);
        m_script.SetStatus(kTaskFinished);
        return 0;
    };
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    for (int second = 1; second <= 60; ++second) {
        WaitForIdle();
        m_clock.Advance(1s);
    }
    WaitForIdle();
    EXPECT_FALSE(m_core->HeartbeatShouldStop());
    m_clock.Advance(1s);
    EXPECT_EQ(JoinWork(), 0);
}

TEST_F(WorkLoop, ARefusedTextIsFollowedByTheWaitForTheExitOrder) {
    Begin();
    m_script.With([](RunnerAnswers& answers) { answers.analyseResult = 9; });
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor("send 4009"));
    for (int second = 1; second <= 60; ++second) {
        WaitForIdle();
        m_clock.Advance(1s);
    }
    WaitForIdle();
    EXPECT_FALSE(m_core->HeartbeatShouldStop());
    m_clock.Advance(1s);
    EXPECT_EQ(JoinWork(), 9);
}

TEST_F(WorkLoop, WithoutAnOrderTheEndComesAfter61Seconds) {
    Begin();
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    for (int second = 1; second <= 60; ++second) {
        WaitForIdle();
        m_clock.Advance(1s);
    }
    WaitForIdle();
    EXPECT_FALSE(m_core->HeartbeatShouldStop());
    m_clock.Advance(1s);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_TRUE(m_core->HeartbeatShouldStop());
}

TEST_F(WorkLoop, ExitOrderEndsTheWaitAtOnce) {
    Begin();
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    WaitForIdle();
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 0);
}

TEST_F(WorkLoop, LossEndsTheWaitAtOnce) {
    Begin();
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    WaitForIdle();
    m_engine.DeliverLoss();
    EXPECT_EQ(JoinWork(), 0);
}

TEST_F(WorkLoop, OtherOrdersNeitherEndNorShiftTheExitWait) {
    Begin();
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    for (int second = 1; second <= 61; ++second) {
        WaitForIdle();
        m_clock.Advance(500ms);
        m_engine.DeliverText(TCP_TASK_ADD_ID, "<more/>");
        m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
        m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
        EXPECT_FALSE(m_core->HeartbeatShouldStop());
        WaitForIdle();
        m_clock.Advance(500ms);
    }
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(Performed(), 1u);
}

// ---- pause ----

TEST_F(WorkLoop, PausedWorkerRunsNothingUntilResumed) {
    Begin();
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    StartWork();
    for (int second = 1; second <= 5; ++second) {
        WaitForIdle();
        const auto waits = m_clock.WaitsBegun();
        m_clock.Advance(999ms);
        EXPECT_EQ(m_clock.WaitsBegun(), waits);
        m_clock.Advance(1ms);
        ASSERT_TRUE(m_clock.WaitForWaitsBegun(waits + 1));
    }
    EXPECT_EQ(m_journal.Count("runner.AnalyseTask <task/>"), 0u);
    m_engine.DeliverCommand(TCP_TASK_RESUME_ID);  // takes effect at once
    EXPECT_TRUE(m_journal.WaitFor("runner.PerformTask"));
}

TEST_F(WorkLoop, TheRunnerIsSuspendedAndResumedBeforeTheWorkerIs) {
    Begin();
    m_script.onSuspend = [this] { EXPECT_FALSE(m_core->IsPaused()); };
    m_script.onResume = [this] { EXPECT_TRUE(m_core->IsPaused()); };
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    EXPECT_TRUE(m_core->IsPaused());
    m_engine.DeliverCommand(TCP_TASK_RESUME_ID);
    EXPECT_FALSE(m_core->IsPaused());
    EXPECT_EQ(m_journal.Count("runner.SuspendTask"), 1u);
    EXPECT_EQ(m_journal.Count("runner.ResumeTask"), 1u);
}

TEST_F(WorkLoop, DestroyDoesNotEndAPausedWorkerButACancelDoes) {
    Begin();
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    StartWork();
    WaitForIdle();
    const auto waits = m_clock.WaitsBegun();
    m_engine.DeliverDestroy();
    ASSERT_TRUE(m_clock.WaitForWaitsBegun(waits + 1));  // looked, and waits again
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(Performed(), 0u);
}

// ---- packages ----

class PackageLoop : public WorkLoop, public ::testing::WithParamInterface<std::int32_t> {};

TEST_P(PackageLoop, KeepsTakingTasksUntilACancel) {
    Begin(GetParam());
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd, 1));
    m_engine.DeliverText(TCP_TASK_ADD_ID, "<second/>");  // taken at once
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd, 2));
    WaitForIdle();
    m_clock.Advance(39s);  // no limit of idle time
    WaitForIdle();
    m_engine.DeliverText(TCP_TASK_ADD_ID, "<third/>");
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd, 3));
    WaitForIdle();
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(Performed(), 3u);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 0, 3, 0, 3, 0}));
    EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_SEND_ID).size(), 1u);
}

TEST_P(PackageLoop, TakesNoTaskWhileItIsBeingClosed) {
    Begin(GetParam());
    m_script.onPerform = [this] {
        m_closed.Wait();
        m_script.SetStatus(kTaskCancelled);
        return 0;
    };
    m_script.onClose = [this](std::uint32_t) {
        m_closed.Open();
        m_goOn.Wait(20s);
    };
    m_core->AddTask("<a/>");
    StartWork("<b/>");
    ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask"));
    std::thread handler([this] { m_engine.DeliverCommand(TCP_TASK_CANCEL_ID); });
    EXPECT_EQ(JoinWork(), 0);  // the close is still under way
    EXPECT_EQ(Performed(), 1u);
    m_goOn.Open();
    handler.join();
}

TEST_P(PackageLoop, DestroyAloneDoesNotEndIt) {
    Begin(GetParam());
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    m_engine.DeliverDestroy();
    m_engine.DeliverText(TCP_TASK_ADD_ID, "<second/>");
    ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask", 2));
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
    EXPECT_EQ(JoinWork(), 0);
}

TEST_P(PackageLoop, EarlierProgressThreadHasEndedBeforeTheNextTaskIsPrepared) {
    Begin(GetParam());
    m_core->AddTask("<a/>");
    m_core->AddTask("<b/>");
    StartWork("<c/>");
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd, 3));
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
    EXPECT_EQ(JoinWork(), 0);
    const auto order = m_journal.EntriesThat([this](const std::string& entry) {
        return entry == m_progressEnd || entry.starts_with("runner.AnalyseTask");
    });
    EXPECT_EQ(order,
              (std::vector<std::string>{"runner.AnalyseTask <a/>", m_progressEnd, "runner.AnalyseTask <b/>",
                                        m_progressEnd, "runner.AnalyseTask <c/>", m_progressEnd}));
}

// A notification that no wait took must not cut the first wait of the next task's thread short.
TEST_P(PackageLoop, ProgressOfTheSecondTaskIsReported) {
    Begin(GetParam());
    m_script.onPerform = [this] {
        m_script.SetStatus(kTaskRunning);
        if (++m_tasks == 2) {
            m_script.SetPercent(42);
            m_inside.Open();
            m_goOn.Wait();
        }
        m_script.SetStatus(kTaskFinished);
        return 0;
    };
    m_core->AddTask("<a/>");
    StartWork("<b/>");
    ASSERT_TRUE(m_inside.Wait());
    WaitForIdle();  // heartbeat and progress
    m_clock.Advance(5s);
    EXPECT_TRUE(m_engine.sent.WaitFor(TCP_WORKER_PROGRESS_ID, 1));
    EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_PROGRESS_ID).at(0).Progress().percent, 42.0f);
    m_goOn.Open();
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
    EXPECT_EQ(JoinWork(), 0);
}

TEST_P(PackageLoop, LastTasksResultIsReturned) {
    Begin(GetParam());
    m_script.onPerform = [this] {
        m_script.SetStatus(kTaskFinished);
        return ++m_tasks == 1 ? 5 : 0;
    };
    m_core->AddTask("<a/>");
    StartWork("<b/>");
    ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask", 2));
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_journal.Count(Line(4, "WorkRunner DoWork False!")), 0u);
}

INSTANTIATE_TEST_SUITE_P(Types, PackageLoop, ::testing::Values(14, 23));

// ---- while a task runs ----

TEST_F(WorkLoop, CancelDuringATaskIsReportedAsCancelled) {
    Begin();
    m_script.onClose = [this](std::uint32_t) {
        m_script.SetStatus(kTaskCancelled);
        m_closed.Open();
    };
    m_script.onPerform = [this] {
        m_closed.Wait();
        return 0;
    };
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask"));
    m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 5}));
}

TEST_F(WorkLoop, LossDuringATaskReportsNothingAndEnds) {
    Begin();
    m_script.onClose = [this](std::uint32_t) { m_closed.Open(); };
    m_script.onPerform = [this] {
        m_closed.Wait();
        m_script.SetStatus(kTaskCancelled);
        return 0;
    };
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask"));
    m_engine.DeliverLoss();
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_engine.sent.Statuses(), std::vector<std::uint32_t>{3});
}

// A task that stands still at 50 percent and ends as cancelled when it is closed.
class StalledTask : public WorkLoop {
  protected:
    void Stall(std::int32_t type) {
        Begin(type);
        if (!m_script.onClose) {
            m_script.onClose = [this](std::uint32_t) {
                m_script.SetStatus(kTaskCancelled);
                m_closed.Open();
            };
        }
        m_script.onPerform = [this] {
            m_closed.Wait();
            return 0;
        };
        const LocalTime stamp = m_clock.Local();
        m_script.With([&](RunnerAnswers& answers) {
            answers.progress.percent = 50;
            answers.progress.expectedNextUpdate = stamp;
        });
        StartWork();
        ASSERT_TRUE(m_journal.WaitFor("runner.PerformTask"));
        for (int second = 5; second <= 60; second += 5) {
            WaitForIdle();  // heartbeat and progress
            EXPECT_EQ(m_engine.sent.Statuses(), std::vector<std::uint32_t>{3});
            m_clock.Advance(5s);
        }
    }
};

TEST_F(StalledTask, IsClosedAndReportedAndTheWorkerWaitsForItsOrderToEnd) {
    Stall(RQ_TASK_MD5_COMPUTE);
    ASSERT_TRUE(m_journal.WaitFor("send 4009", 3));
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 0);
    // The patrol's own report and the work loop's, where 5 has become 4.
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 4, 4}));
    EXPECT_EQ(m_journal.Count("runner.CloseTask 1 0"), 1u);
}

// The close mode of a package's task is not kept, so that its 5 stays.
TEST_F(StalledTask, OfAPackageEndsTheWorkerByTheStopFlag) {
    m_script.onClose = [this](std::uint32_t) {
        m_script.SetStatus(kTaskCancelled);
        m_script.With([](RunnerAnswers& answers) { answers.closeMode = 0; });
        m_closed.Open();
    };
    Stall(RQ_TASK_PACKAGE);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 4, 5}));
}

// The task gives up at once and has its final status ready while the patrol still closes it.
TEST_F(StalledTask, IsReportedBeforeItReportsItself) {
    m_script.onClose = [this](std::uint32_t) {
        m_script.SetStatus(kTaskCancelled);
        m_closed.Open();
        EXPECT_TRUE(m_journal.WaitFor("runner.GetTaskResult 3"));  // the work loop's
    };
    Stall(RQ_TASK_MD5_COMPUTE);
    ASSERT_TRUE(m_journal.WaitFor("send 4009", 3));
    m_engine.DeliverDestroy();
    EXPECT_EQ(JoinWork(), 0);
    const auto reports = m_engine.sent.WithId(TCP_WORKER_STATE_ID);
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[1].Status().errorCode, 6u);
    EXPECT_EQ(reports[2].Status().errorCode, 0u);
}

TEST_F(WorkLoop, RefusedFinalStatusLetsOrdersAndHeartbeatsThrough) {
    Begin();
    m_engine.onSend = [this](std::uint32_t id) { return id != TCP_WORKER_STATE_ID || !m_refuse; };
    StartWork();
    ASSERT_TRUE(m_journal.WaitFor("send 4009", 3));  // running, finished and its first repeat
    ASSERT_TRUE(m_clock.WaitForWaiters(3));          // heartbeat, progress, repeat
    m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
    EXPECT_EQ(m_engine.sent.WithId(TCP_TASK_SUSPEND_REPLY_ID).size(), 1u);
    m_refuse = false;
    m_clock.Advance(1s);
    ASSERT_TRUE(m_clock.WaitForWaiters(3));
    m_clock.Advance(1s);
    ASSERT_TRUE(m_journal.WaitFor(m_progressEnd));
    EXPECT_EQ(m_engine.sent.Statuses(), (std::vector<std::uint32_t>{3, 0, 0, 0}));
}

}  // namespace
}  // namespace rq

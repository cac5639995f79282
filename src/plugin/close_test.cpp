// CloseTask, and the task thread that was never started.

#include "base/sync.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

constexpr const char* kWaiting = "2 apparitor::close: waiting for thread...";
constexpr const char* kWaitOk = "2 apparitor::close: waiting for thread ok.";
constexpr const char* kClosed = "2 task impl closed.";
constexpr const char* kFinish = "2 WB=====>Stop Mode Is Finish";
constexpr const char* kGrace = "1 apparitor::close: thread will be interrupted after 3 seconds...";
constexpr const char* kByPatrol = "2 apparitor::close: task interrupted by progress patrol.";

// A thread that does not end in time.
class StuckThread : public TaskThread {
  public:
    explicit StuckThread(std::vector<std::string>& calls) : m_calls(calls) {}
    bool Joinable() const override { return true; }
    void Join() override { m_calls.push_back("join"); }
    bool TimedJoin(std::chrono::milliseconds timeout) override {
        m_calls.push_back("wait " + std::to_string(timeout.count()));
        return false;
    }
    void Interrupt() override { m_calls.push_back("interrupt"); }
    void Detach() override { m_calls.push_back("detach"); }

  private:
    std::vector<std::string>& m_calls;
};

class CloseTaskTest : public RunnerTest {
  protected:
    WorkRunner& StuckRunner() {
        WorkRunnerSeams seams = Seams();
        seams.taskThread = std::make_unique<StuckThread>(m_calls);
        MakeRunner(std::move(seams));
        EXPECT_EQ(Init(), 0);
        EXPECT_EQ(Analyse(), 0);
        m_log.Clear();
        return *m_runner;
    }

    std::vector<std::string> m_calls;
};

TEST_F(CloseTaskTest, CancelStopsAndReturnsAtOnce) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 5), 0);
    EXPECT_EQ(runner.GetStatus(), 5u);
    EXPECT_TRUE(runner.IsStatusChanged());
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetCloseMode(), 2u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=2, wait:5...", kWaiting, kWaitOk, kClosed));
}

TEST_F(CloseTaskTest, CancelWithoutALimitJoins) {
    for (const std::int32_t wait : {0, -1}) {
        WorkRunner& runner = Analysed();
        EXPECT_EQ(runner.CloseTask(kCloseCancel, wait), 0);
        EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=2, wait:" + std::to_string(wait) + "...",
                                         kWaiting, kClosed));
    }
}

TEST_F(CloseTaskTest, CancelOfACancelledTaskChangesNothing) {
    WorkRunner& runner = Analysed();
    RQStore32(&m_info.status, RQ_STATUS_CANCELLED);
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 0), 0);
    EXPECT_FALSE(runner.IsStatusChanged());
    EXPECT_EQ(runner.GetStatus(), 5u);
}

TEST_F(CloseTaskTest, FinishSetsTheStopFlagTo2AndLeavesTheStatus) {
    WorkRunner& runner = Analysed();
    RQStore32(&m_info.status, RQ_STATUS_RUNNING);
    EXPECT_EQ(runner.CloseTask(kCloseFinish, 3), 0);
    EXPECT_EQ(runner.GetStopFlag(), 2u);
    EXPECT_EQ(runner.GetStatus(), 3u);
    EXPECT_EQ(runner.GetCloseMode(), 6u);
    EXPECT_THAT(Lines(),
                ElementsAre("2 close task:task-1, mode=6, wait:3...", kFinish, kWaiting, kWaitOk, kClosed));
}

TEST_F(CloseTaskTest, PatrolInterruptsNothingButSaysSo) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetStatus(), 0u);
    EXPECT_EQ(runner.GetCloseMode(), 1u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=1, wait:0...", kGrace, kByPatrol));
}

TEST_F(CloseTaskTest, AnotherModeIsACancelWithoutTheStatus) {
    WorkRunner& runner = Analysed();
    RQStore32(&m_info.status, RQ_STATUS_RUNNING);
    EXPECT_EQ(runner.CloseTask(4, 1), 0);
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetStatus(), 3u);
    EXPECT_EQ(runner.GetCloseMode(), 4u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=4, wait:1...", kWaiting, kWaitOk, kClosed));
}

TEST_F(CloseTaskTest, TheModeIsWrittenAsASignedNumber) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(0xFFFFFFFFu, 0), 0);
    EXPECT_EQ(Lines().at(0), "2 close task:task-1, mode=-1, wait:0...");
}

TEST_F(CloseTaskTest, ARepeatedModeLogsOneLineAndDoesNothing) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 5), 0);
    RQStore32(&m_info.status, RQ_STATUS_RUNNING);
    m_log.Clear();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 5), 0);
    EXPECT_EQ(runner.GetStatus(), 3u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=2, wait:5..."));
}

TEST_F(CloseTaskTest, Mode0IsARepeatOfNoCloseAtAll) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(0, 0), 0);
    EXPECT_EQ(runner.GetStopFlag(), 0u);
}

TEST_F(CloseTaskTest, AnotherModeAfterOneIsCarriedOut) {
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 0), 0);
    EXPECT_EQ(runner.CloseTask(kCloseFinish, 0), 0);
    EXPECT_EQ(runner.GetStopFlag(), 2u);
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetCloseMode(), 1u);
}

// ---- package tasks ----

TEST_F(CloseTaskTest, APackageIsNotWaitedForAndTheModeIsNotStored) {
    m_info.taskType = RQ_TASK_PACKAGE;
    WorkRunner& runner = Analysed();
    for (int i = 0; i < 2; ++i) {
        m_log.Clear();
        RQStore32(&m_info.status, RQ_STATUS_RUNNING);
        EXPECT_EQ(runner.CloseTask(kCloseCancel, 9), 0);
        EXPECT_EQ(runner.GetStatus(), 5u);
        EXPECT_EQ(runner.GetCloseMode(), 0u);
        EXPECT_EQ(runner.GetStopFlag(), 1u);
        EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=2, wait:9..."));
    }
}

TEST_F(CloseTaskTest, APackageClosedByThePatrol) {
    m_info.taskType = RQ_TASK_PACKAGE;
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_EQ(runner.GetCloseMode(), 0u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=1, wait:0...",
                                     "2 Force Cancel the current task. task type: PACKAGE"));
}

TEST_F(CloseTaskTest, APackageIsFinished) {
    m_info.taskType = RQ_TASK_PACKAGE;
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kCloseFinish, 0), 0);
    EXPECT_EQ(runner.GetStopFlag(), 2u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=6, wait:0...", kFinish));
}

TEST_F(CloseTaskTest, Status23CountsAsAPackage) {
    WorkRunner& runner = Analysed();
    RQStore32(&m_info.status, 23);
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_EQ(runner.GetCloseMode(), 0u);
    EXPECT_EQ(m_log.Count(2, "Force Cancel the current task. task type: PACKAGE"), 1u);
}

TEST_F(CloseTaskTest, ACancelOverwritesStatus23AndIsThenNoPackage) {
    WorkRunner& runner = Analysed();
    RQStore32(&m_info.status, 23);
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 0), 0);
    EXPECT_EQ(runner.GetCloseMode(), 2u);
}

TEST_F(CloseTaskTest, Type23IsWaitedForLikeAnyOther) {
    m_info.taskType = RQ_TASK_PACKAGE_PARAMETER_FILE;
    WorkRunner& runner = Analysed();
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_EQ(runner.GetCloseMode(), 1u);
}

// ---- without a task ----

TEST_F(CloseTaskTest, WithoutATaskTheStopFlagIsSetAndTheThreadAwaited) {
    WorkRunner& runner = Ready();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 2), 0);
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetCloseMode(), 2u);
    EXPECT_FALSE(runner.IsStatusChanged());
    EXPECT_THAT(Lines(), ElementsAre(kWaiting, kWaitOk, kClosed));
}

// A cancel that lands while the task is analysed reaches the perform call.
TEST_F(CloseTaskTest, ACancelDuringTheAnalysisIsNotLost) {
    m_plugin.analyse = [&](RQText, TaskInfo** info) {
        std::thread link([&] { EXPECT_EQ(m_runner->CloseTask(kCloseCancel, 0), 0); });
        link.join();
        *info = &m_info;
        return 0;
    };
    std::uint32_t seen = 0;
    m_plugin.perform = [&](const PerformArguments& call) {
        seen = RQLoad32(call.stopFlag);
        call.Leave(RQ_STATUS_CANCELLED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_EQ(seen, 1u);
}

// ---- a thread that does not end ----

TEST_F(CloseTaskTest, ATimedWaitThatRunsOutIsReported) {
    WorkRunner& runner = StuckRunner();
    EXPECT_EQ(runner.CloseTask(kCloseCancel, 7), -1);
    EXPECT_THAT(m_calls, ElementsAre("wait 7000"));
    EXPECT_EQ(runner.GetStopFlag(), 1u);
    EXPECT_EQ(runner.GetCloseMode(), 2u);
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=2, wait:7...", kWaiting,
                                     "3 apparitor::close: waiting for thread failed."));
}

TEST_F(CloseTaskTest, AWaitWithoutALimitJoinsTheThread) {
    WorkRunner& runner = StuckRunner();
    EXPECT_EQ(runner.CloseTask(kCloseFinish, 0), 0);
    EXPECT_THAT(m_calls, ElementsAre("join"));
}

TEST_F(CloseTaskTest, ThePatrolInterruptsAndLetsTheThreadGo) {
    WorkRunner& runner = StuckRunner();
    EXPECT_EQ(runner.CloseTask(kClosePatrol, 0), 0);
    EXPECT_THAT(m_calls, ElementsAre("wait 3000", "interrupt", "detach"));
    EXPECT_THAT(Lines(), ElementsAre("2 close task:task-1, mode=1, wait:0...", kGrace,
                                     "1 apparitor::close: thread interrupted...", kByPatrol));
}

TEST_F(CloseTaskTest, ReleaseCallsThePluginAndThenWaitsForTheThread) {
    m_plugin.release = [this] {
        m_calls.push_back("release");
        return 0;
    };
    WorkRunner& runner = StuckRunner();
    runner.Release();
    EXPECT_THAT(m_calls, ElementsAre("release", "join"));
}

// A real thread that is deaf to its interruption, and does not end in any time that is given to it.
class DeafThread : public TaskThread {
  public:
    explicit DeafThread(Signal& end)
        : TaskThread(boost::thread([&end] { end.WaitFor(std::chrono::minutes(5)); })) {}
    bool TimedJoin(std::chrono::milliseconds) override { return false; }
    void Interrupt() override {}
};

TEST_F(CloseTaskTest, ReleaseDoesNotWaitForAThreadThatThePatrolLetGo) {
    // Both are the thread's, which ends after the test.
    static auto& end = *new Signal;
    WorkRunnerSeams seams = Seams();
    auto thread = std::make_unique<DeafThread>(end);
    TaskThread* seen = thread.get();
    seams.taskThread = std::move(thread);
    MakeRunner(std::move(seams));
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(Analyse(), 0);
    EXPECT_TRUE(seen->Joinable());
    EXPECT_EQ(m_runner->CloseTask(kClosePatrol, 0), 0);
    EXPECT_FALSE(seen->Joinable());
    m_runner->Release();  // would wait for the end below
    end.Notify();
}

// ---- the thread object ----

TEST(TaskThreadTest, NeverStartedATimedJoinSucceedsAndTheRestDoesNothing) {
    TaskThread thread;
    EXPECT_FALSE(thread.Joinable());
    EXPECT_TRUE(thread.TimedJoin(0ms));
    EXPECT_TRUE(thread.TimedJoin(3s));
    thread.Join();
    thread.Interrupt();
    thread.Detach();
    EXPECT_FALSE(thread.Joinable());
}

TEST(TaskThreadTest, StartedItIsInterruptedAndJoined) {
    boost::mutex mutex;
    boost::condition_variable condition;
    bool interrupted = false;
    TaskThread thread(boost::thread([&] {
        boost::unique_lock<boost::mutex> lock(mutex);
        try {
            for (;;) condition.wait(lock);
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        }
    }));
    EXPECT_TRUE(thread.Joinable());
    EXPECT_FALSE(thread.TimedJoin(1ms));
    thread.Interrupt();
    thread.Join();
    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(thread.Joinable());
}

}  // namespace
}  // namespace rq

// Packages (worker types 14 and 23) with the runner that loads and drives a real plug-in: what one task
// leaves for the next.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <thread>

#include "kit/temp_dir.h"
#include "plugin/runner_fixture.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using namespace std::chrono_literals;
using testing::Gate;
using testing::Line;
using testing::WorkerFixture;

// A task's text is its ID.
struct Analysed {
    std::string text;
    TaskInfo info{};
};

class Package : public WorkerFixture, public ::testing::WithParamInterface<std::int32_t> {
  protected:
    Package() : m_directory(m_dir.Path()) {
        FakePlugin::Active() = &m_plugin;
        const std::string path = "fake" + NarrowUtf8(WideText(1, PathSeparator())) + "fake.so";
        m_dir.Write("fake/here", "");
        m_dir.Write("RQWorkerConfig.xml", "<c><WORKER><TYPE>" + std::to_string(GetParam()) + "</TYPE><PATH>" +
                                              path + "</PATH></WORKER></c>");
        m_plugin.analyse = [this](RQText text, TaskInfo** info) {
            Analysed& task = m_analysed.emplace_back();
            task.text = std::string(text.p, text.n);
            task.info.size = sizeof task.info;
            task.info.contractVersion = RQ_CONTRACT_VERSION;
            task.info.taskType = GetParam();
            task.info.taskId = {task.text.data(), task.text.size()};
            *info = &task.info;
            m_journal.Note("analyse " + task.text);
            return 0;
        };
    }
    ~Package() override { FakePlugin::Active() = nullptr; }
    // While the plug-in and its records are still there.
    void TearDown() override { End(); }

    void Begin(std::int32_t patrolTimeout_s = 60) {
        m_parameters.resize(1);
        m_parameters[0].progressPatrolTimeout_s = patrolTimeout_s;
        m_start.taskType = GetParam();
        WorkerCoreSeams seams = Seams();
        seams.createRunner = [this] {
            WorkRunnerSeams runner;
            runner.clock = &m_clock;
            runner.moduleDirectory = WideFromPath(m_dir.Path()) + PathSeparator();
            runner.loadLibrary = [this](WorkerPlugin& plugin, platform::OsError*) {
                plugin.hModule = &m_plugin;
                return true;
            };
            runner.findEntryPoints = [this](WorkerPlugin& plugin) {
                return m_plugin.FindEntryPoints(plugin);
            };
            return std::make_unique<WorkRunner>(std::move(runner));
        };
        m_core = std::make_unique<CRQWorkerBase>(std::move(seams));
        ASSERT_EQ(InitCore(), 0);
        StartWork("P-1");
    }
    // Until the order to stop, which it obeys at once.
    static void StandStill(const PerformArguments& call) {
        while (RQLoad32(call.stopFlag) == 0) SystemClock().SleepFor(1ms);
        call.Leave(RQ_STATUS_CANCELLED);
    }
    // The tasks that have ended, and their progress threads with them.
    void WaitForEndOf(const std::string& task) {
        ASSERT_TRUE(m_journal.WaitFor(Line(2, "Worker process thread has stopped. PID:" +
                                                  m_core->ProcessIdText() + ", TaskID:[" + task + "]")));
    }
    // Status, error code and task of every status report, in order.
    std::vector<std::string> Reports() const {
        std::vector<std::string> reports;
        for (const auto& message : m_engine.sent.WithId(TCP_WORKER_STATE_ID)) {
            const TaskStatusEntry& entry = message.Status();
            reports.push_back(std::to_string(entry.status) + " " + std::to_string(entry.errorCode) + " " +
                              entry.taskId);
        }
        return reports;
    }

    kit::TempDir m_dir;
    kit::ScopedDirectory m_directory;
    FakePlugin m_plugin;
    std::deque<Analysed> m_analysed;
};

INSTANTIATE_TEST_SUITE_P(Types, Package, ::testing::Values(14, 23));

// The patrol's report first, then the task's own: the close of a package of type 14 leaves no mark by which
// its 5 would become a 4. The stop flag ends the worker, whatever else it was given to do.
TEST_P(Package, ThatStandsStill) {
    m_plugin.perform = [this](const PerformArguments& call) {
        call.Progress(100, 50);
        m_inside.Open();
        StandStill(call);
        return 0;
    };
    Begin();
    ASSERT_TRUE(m_inside.Wait());
    m_engine.DeliverText(TCP_TASK_ADD_ID, "P-2");
    for (int second = 5; second <= 60; second += 5) {
        WaitForIdle();  // heartbeat and progress
        EXPECT_EQ(Reports(), std::vector<std::string>{"3 0 P-1"});
        m_clock.Advance(5s);
    }
    EXPECT_EQ(JoinWork(), 0);
    const bool isPackage = GetParam() == RQ_TASK_PACKAGE;
    EXPECT_EQ(Reports(), (std::vector<std::string>{"3 0 P-1", "4 6 P-1", isPackage ? "5 0 P-1" : "4 0 P-1"}));
    const TaskStatusEntry patrol = m_engine.sent.WithId(TCP_WORKER_STATE_ID).at(1).Status();
    EXPECT_EQ(patrol.detailErrorCode, 0x80000001u);
    EXPECT_EQ(patrol.errorText, "Task Not Response !");
    EXPECT_EQ(patrol.taskType, static_cast<std::uint32_t>(GetParam()));
    EXPECT_EQ(m_journal.Count(Line(2, "Force Cancel the current task. task type: PACKAGE")),
              isPackage ? 1u : 0u);
    EXPECT_EQ(m_journal.Count(Line(3, "ForceCancel, the status is error.", "MAIN", "thread_get_status")),
              isPackage ? 0u : 1u);
    EXPECT_EQ(m_journal.Count("analyse P-2"), 0u);
}

class StampOfTheTaskBefore : public Package {
  protected:
    // The first task moves, then ends; the second never tells anything.
    void BeginSecondTaskLater(std::int32_t patrolTimeout_s) {
        m_plugin.perform = [this](const PerformArguments& call) {
            if (++m_tasks == 1) {
                call.Progress(100, 50);
                call.Leave(RQ_STATUS_FINISHED);
                return 0;
            }
            m_inside.Open();
            StandStill(call);
            return 0;
        };
        Begin(patrolTimeout_s);
        WaitForEndOf("P-1");
        WaitForIdle();
        m_clock.Advance(300s);
        m_engine.DeliverText(TCP_TASK_ADD_ID, "P-2");
        ASSERT_TRUE(m_inside.Wait());
    }
    // So many rounds of five seconds pass; the patrol closes the task in the last one.
    void ExpectStallInRound(int last) {
        for (int round = 1; round <= last; ++round) {
            WaitForIdle();  // heartbeat and progress
            EXPECT_EQ(m_journal.Count(m_stall), 0u) << round;
            m_clock.Advance(5s);
        }
        EXPECT_EQ(JoinWork(), 0);
        EXPECT_EQ(m_journal.Count(m_stall), 1u);
        EXPECT_EQ(Reports().at(3), "4 6 P-2");
    }

    const std::string m_stall = Line(4, "Progress is not be updated for long time", "BASE");
};

INSTANTIATE_TEST_SUITE_P(Types, StampOfTheTaskBefore, ::testing::Values(14, 23));

// Each task has its own time.
TEST_P(StampOfTheTaskBefore, StallsNoTask) {
    BeginSecondTaskLater(60);
    ExpectStallInRound(12);
}

// Without a time-out the runner sets no stamp, and the one that is there counts: the first round that brings
// nothing new is a stall.
TEST_P(StampOfTheTaskBefore, CountsWithoutATimeout) {
    BeginSecondTaskLater(0);
    ExpectStallInRound(2);
}

// An update that comes when the task has ended is answered and analysed, and changes neither what that task
// reported nor the next one, which is analysed from its own text.
TEST_P(Package, UpdateOfATaskThatHasEnded) {
    m_plugin.perform = [this](const PerformArguments& call) {
        m_journal.Note("perform " + std::string(call.info->taskId.p, call.info->taskId.n));
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Begin();
    WaitForEndOf("P-1");
    m_engine.DeliverText(TCP_TASK_UPDATE_ID, "P-1b");
    EXPECT_EQ(m_engine.sent.WithId(TCP_TASK_UPDATE_REPLY_ID).at(0).As<TaskCommandReply>().taskId, "P-1");
    EXPECT_EQ(m_core->Runner()->GetTaskId(), "P-1");
    EXPECT_EQ(m_core->Runner()->GetStatus(), RQ_STATUS_FINISHED);
    m_engine.DeliverText(TCP_TASK_ADD_ID, "P-2");
    WaitForEndOf("P-2");
    m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
    EXPECT_EQ(JoinWork(), 0);
    EXPECT_EQ(m_journal.EntriesThat([](const std::string& entry) {
        return entry.starts_with("analyse ") || entry.starts_with("perform ");
    }),
              (std::vector<std::string>{"analyse P-1", "perform P-1", "analyse P-1b", "analyse P-2",
                                        "perform P-2"}));
    EXPECT_EQ(Reports(), (std::vector<std::string>{"3 0 P-1", "0 0 P-1", "3 0 P-2", "0 0 P-2"}));
    // One announcement, for the first.
    EXPECT_EQ(m_engine.sent.WithId(TCP_WORKER_SEND_ID).size(), 1u);
}

}  // namespace
}  // namespace rq

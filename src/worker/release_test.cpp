#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "base/result.h"
#include "supervision/testing/gate.h"
#include "worker/testing/worker_fixture.h"

namespace rq {
namespace {

using testing::Line;
using testing::RunnerAnswers;
using testing::WorkerFixture;

class Release : public WorkerFixture {
  protected:
    // Init, and everything that DoWork would have told the heartbeat thread.
    void Begin() {
        InitCore();
        m_engine.DeliverCommand(TCP_TASK_FINISH_ID);
        m_core->DoWork("", 3);
        m_journal.Clear();
        m_engine.sent.Clear();
    }
};

TEST_F(Release, WithoutInit) {
    MakeCore();
    m_journal.Clear();
    WorkerFixture::Release();
    EXPECT_EQ(m_journal.Entries(),
              (std::vector<std::string>{Line(2, "WorkerBase Release begin.."), "runner.Release",
                                        "runner deleted", Line(2, "WorkerBase Release end..")}));
}

TEST_F(Release, AfterAFailedPackageInit) {
    m_start.taskType = RQ_TASK_PACKAGE;
    m_script.With([](RunnerAnswers& answers) { answers.initResult = 1; });
    InitCore();
    m_journal.Clear();
    WorkerFixture::Release();
    EXPECT_EQ(m_journal.Calls(), (std::vector<std::string>{"runner.Release", "runner deleted"}));
}

TEST_F(Release, AfterAFailedInitDeletesTheClient) {
    m_script.With([](RunnerAnswers& answers) { answers.initResult = 1; });
    InitCore();
    m_journal.Clear();
    WorkerFixture::Release();
    EXPECT_EQ(m_journal.Calls(),
              (std::vector<std::string>{"runner.Release", "runner deleted", "client.Disconnect",
                                        "client.Uninitialize", "client deleted"}));
}

TEST_F(Release, OrdersDuringTheRunnersReleaseFindNoRunner) {
    Begin();
    m_script.onRelease = [this] {
        std::thread([this] {
            m_engine.DeliverCommand(TCP_TASK_CANCEL_ID);
            m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<a/>");
            m_engine.DeliverCommand(TCP_TASK_SUSPEND_ID);
            m_engine.DeliverCommand(TCP_TASK_RESUME_ID);
            EXPECT_EQ(m_core->SetClose(kCloseCancel), kStatusMissing);
            EXPECT_EQ(m_core->UpdateTask("<a/>"), kStatusMissing);
            EXPECT_EQ(m_core->thread_get_status(3), kStatusMissing);
        }).join();
    };
    WorkerFixture::Release();
    EXPECT_EQ(m_journal.EntriesThat([](const std::string& entry) { return entry.starts_with("runner"); }),
              (std::vector<std::string>{"runner.Release", "runner deleted"}));
    EXPECT_EQ(m_engine.sent.All().size(), 4u);  // the link is still there for the replies
}

TEST_F(Release, WaitsForAnOrderThatIsInsideTheRunner) {
    Begin();
    m_script.onUpdate = [this] {
        m_inside.Open();
        m_goOn.Wait();
        m_journal.Note("update done");
    };
    std::thread handler([this] { m_engine.DeliverText(TCP_TASK_UPDATE_ID, "<a/>"); });
    ASSERT_TRUE(m_inside.Wait());
    std::thread release([this] { WorkerFixture::Release(); });
    ASSERT_TRUE(m_journal.WaitFor(Line(2, "WorkerBase Release begin..")));
    m_goOn.Open();
    release.join();
    handler.join();
    EXPECT_LT(m_journal.Find("update done"), m_journal.Find("runner.Release"));
}

// The heartbeat's thread and the progress thread, held at their end: both use the runner and the link.
class ReleaseWithALateThread : public WorkerFixture, public ::testing::WithParamInterface<int> {};

TEST_P(ReleaseWithALateThread, KeepsTheRunnerUntilItHasEnded) {
    WorkerCoreSeams seams = Seams();
    seams.startThread = [this](std::function<void()> body) {
        const bool isLate = ++m_tasks == GetParam();
        return boost::thread([this, isLate, body = std::move(body)] {
            body();
            if (!isLate) return;
            m_goOn.Wait();
            m_journal.Note("late thread ended");
        });
    };
    m_core = std::make_unique<CRQWorkerBase>(std::move(seams));
    EXPECT_EQ(InitCore(), 0);
    m_engine.DeliverDestroy();
    EXPECT_EQ(m_core->DoWork("<task/>", 3), 0);
    std::thread release([this] { WorkerFixture::Release(); });
    EXPECT_FALSE(m_journal.WaitFor("runner.Release", 1, std::chrono::seconds(1)));  // it would come at once
    m_goOn.Open();
    release.join();
    EXPECT_LT(m_journal.Find("late thread ended"), m_journal.Find("runner.Release"));
    EXPECT_EQ(m_journal.Count("runner.Release"), 1u);
    EXPECT_EQ(m_tasks, 2);
}

INSTANTIATE_TEST_SUITE_P(Threads, ReleaseWithALateThread, ::testing::Values(1, 2));

TEST_F(Release, LossDuringDisconnect) {
    Begin();
    m_engine.onDisconnect = [this] { std::thread([this] { m_engine.DeliverLoss(); }).join(); };
    WorkerFixture::Release();
    EXPECT_EQ(m_journal.Count("runner.CloseTask 2 0"), 0u);
    EXPECT_TRUE(m_core->IsDisconnected());
}

TEST_F(Release, OrderDuringDisconnectIsAnsweredNotStalled) {
    Begin();
    m_engine.onDisconnect = [this] {
        std::thread([this] { m_engine.DeliverCommand(TCP_TASK_CANCEL_ID); }).join();
    };
    WorkerFixture::Release();
    EXPECT_EQ(m_engine.sent.WithId(TCP_TASK_CANCEL_REPLY_ID).size(), 1u);
}

TEST_F(Release, NothingIsSentAfterwards) {
    Begin();
    WorkerFixture::Release();
    const HeartbeatRecord record;
    EXPECT_FALSE(m_core->Send(TCP_WORKER_HEARTBEAT_ID, &record));
    EXPECT_TRUE(m_engine.sent.All().empty());
}

TEST_F(Release, DestructorSaysSo) {
    Begin();
    WorkerFixture::Release();
    m_journal.Clear();
    m_core.reset();
    EXPECT_EQ(m_journal.Entries(), std::vector<std::string>{Line(
                                       1,
                                       "RQWorker is destroyed"
                                       ".............................................................")});
}

}  // namespace
}  // namespace rq

// A store that cannot keep something for a while, and what workers have sent meanwhile.
#include "engine/resume_fixture.h"
#include "engine/sync_probe.h"
#include "link/spool_file.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNoFinal =
    "CREATE TRIGGER full BEFORE INSERT ON events WHEN NEW.kind = 'final' "
    "BEGIN SELECT RAISE(ABORT, 'no room'); END";
constexpr const char* kRoom = "DROP TRIGGER full";

class StoreTroubleTest : public ResumeTest {
  protected:
    std::string LogUntil(const std::string& text) {
        std::string log;
        EXPECT_TRUE(kit::WaitUntil([&] {
            log = kit::ReadBytes(Data("logs") / "engine.log");
            return log.find(text) != std::string::npos;
        })) << text;
        return log;
    }
};

// The worker has ended: no order to exit is due, nor a verdict for one that it does not follow.
TEST_F(StoreTroubleTest, AnAttemptThatCannotBeClosedNowIsClosedLater) {
    m_settings.destroyGrace = 10ms;
    Start();
    Change(
        "CREATE TRIGGER full BEFORE UPDATE OF is_open ON attempts "
        "BEGIN SELECT RAISE(ABORT, 'no room'); END");
    const auto id = Submit("connect\nstatus 3\nspool 0\nexit 0\n");
    LogUntil("the end of an attempt could not be recorded");
    std::this_thread::sleep_for(200ms);
    Change(kRoom);
    EXPECT_TRUE(kit::WaitUntil([&] { return FilesIn("spool").empty(); }));
    EXPECT_EQ(Show(id)["state"], "finished");
    EXPECT_EQ(Count(EventsUntil(id, "worker-exited"), "killed"), 0);
}

TEST_F(StoreTroubleTest, AStatusInTheSpoolStaysUntilItCanBeRecorded) {
    Start();
    const auto id = Submit("connect\nstatus 3\nexit 7\n");
    EXPECT_EQ(Ended(id)["state"], "lost");
    std::string token;
    const auto content = link::EncodeSpoolFile(
        5, link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished)).value());
    {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT token FROM attempts");
        ASSERT_TRUE(query.Row());
        token = query.Text();
    }
    Restart([&] {
        std::ofstream(Data("spool") / (token + ".final"), std::ios::binary) << content;
        std::ofstream(Data("spool") / "stranger.final", std::ios::binary) << content;
        Change(
            "CREATE TRIGGER full BEFORE INSERT ON events WHEN NEW.kind = 'late-status' "
            "BEGIN SELECT RAISE(ABORT, 'no room'); END");
    });
    EXPECT_TRUE(fs::exists(Data("spool") / (token + ".final")));
    EXPECT_TRUE(fs::exists(Data("spool") / "stranger.bad")) << "nobody knows whose it is";
    Restart([&] { Change(kRoom); });
    EXPECT_EQ(FilesIn("spool"), std::vector<std::string>{"stranger.bad"});
    EXPECT_EQ(Count(EventsUntil(id, "late-status"), "late-status"), 1);
}

// What came with it counts as little as the final status itself.
TEST_F(StoreTroubleTest, AMessageWhoseFinalStatusIsNotCommittedIsNotHere) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    Change(kNoFinal);
    auto message = StateMessage(17);
    message.entries.push_back(StateMessage(kTaskFinished).entries.front());
    worker.Send(TCP_WORKER_STATE_ID, message);
    LogUntil("a final status could not be committed");
    Restart([&] { Change(kRoom); });
    ASSERT_EQ(Resume(worker), 0u);
    EXPECT_TRUE(worker.WaitAck(1));
    EXPECT_EQ(Show(id)["state"], "finished");
}

TEST_F(StoreTroubleTest, WhatCameBehindAnUncommittedStatusCountsOnce) {
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    Change(kNoFinal);
    worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished));
    worker.Send(TCP_TASK_SUSPEND_REPLY_ID, TaskCommandReply{"1.0", "guid-1", "job", "0", "done"});
    EventsUntil(id, "reply");
    Change(kRoom);
    ASSERT_EQ(Resume(worker), 0u);
    EXPECT_TRUE(worker.WaitAck(2));
    EXPECT_EQ(Count(EventsUntil(id, "final"), "reply"), 1);
}

TEST_F(StoreTroubleTest, FinalStatusesThatComeTogetherShareASync) {
    SyncProbe probe;
    m_settings.durability = Durability::Power;
    Start();
    std::array<LinkClient, 6> workers;
    for (auto& worker : workers) Begin(worker);
    // While one is synced, the others come.
    probe.Hold(true);
    workers[0].Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished));
    if (!probe.AwaitHeld()) probe.Hold(false);
    const int before = probe.Syncs();
    for (std::size_t i = 1; i < workers.size(); ++i)
        workers[i].Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished));
    probe.Hold(false);
    for (auto& worker : workers) EXPECT_TRUE(worker.WaitAck(1));
    EXPECT_GE(probe.Syncs(), before + 1);
    EXPECT_LE(probe.Syncs(), before + 2);
    EXPECT_EQ(Ask("GET", "/api/v1/health")["tasks"]["finished"], workers.size());
    Stop();
}

TEST_F(StoreTroubleTest, NothingIsAcknowledgedOrShownBeforeItIsSynced) {
    SyncProbe probe;
    m_settings.durability = Durability::Power;
    Start();
    LinkClient worker;
    const auto id = Begin(worker);
    probe.SetFailing(true);
    worker.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskFinished));
    LogUntil("nothing is acknowledged until the store can be synced");
    EXPECT_EQ(Show(id)["error"]["code"], "store");
    EXPECT_EQ(worker.Unread(), 0u);
    probe.SetFailing(false);
    EXPECT_TRUE(worker.WaitAck(1));
    const auto order = worker.WaitOrder();
    ASSERT_TRUE(order);
    EXPECT_EQ(order->id, TCP_WORKER_DESTROY_ID) << "behind the acknowledgement";
    EXPECT_EQ(Show(id)["state"], "finished");
    Stop();
}

}  // namespace
}  // namespace rq::engine

// Package workers in the whole engine: what becomes of their tasks when they end, and when the engine does.
#include "engine/engine_package_fixture.h"
#include "engine/store.h"
#include "link/spool_file.h"

namespace rq::engine {
namespace {

// What it said last may not have got here, and it may have gone on to the next task.
TEST_F(PackageTest, AWorkerThatDiesLosesItsTaskAndMayHaveBegunTheOther) {
    AllowAttempts(2);
    Start();
    SubmitTwo("first in 1 await 4006\nfirst in 1 killed\nfinal 0\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    ExpectLostOnce(m_first);
    ExpectLostOnce(m_second);
    const std::string reason = Show(m_second)["attempt_list"][0]["reason"];
    EXPECT_NE(reason.find("may have begun it"), std::string::npos) << reason;
}

TEST_F(PackageTest, ItsPolicySaysWhetherATaskThatMayHaveBegunIsRepeated) {
    AllowAttempts(2);
    m_settings.retry.standard.onlyUntouched = true;
    Start();
    SubmitTwo("await 4006\nkilled\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "lost");
    EXPECT_EQ(Show(m_second)["attempts"], 1);
}

TEST_F(PackageTest, OneThatSaysGoodbyeHasNotBegunTheOther) {
    Start();
    SubmitTwo("await 4006\nbye\nexit 0\n", "status 3\nfinal 0\n");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "failed");
    AwaitState(third, "finished");
    EXPECT_EQ(Show(third)["attempt_list"][0]["worker_of"]["task"], m_second);
}

// It may cost its worker again.
TEST_F(PackageTest, NothingIsListedBehindATaskThatIsRepeated) {
    AllowAttempts(2);
    Start();
    m_first = SubmitPackage("status 3\nin 1 killed\nawait 4006\nfinal 0\n");
    EventsUntil(m_first, [](const json& event) {
        return event["kind"] == "state" && event["attempt"] == 2 && event["data"]["state"] == "running";
    });
    m_second = SubmitPackage("status 3\nfinal 0\n");
    EXPECT_EQ(StateOf(m_second), "queued");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "finished");
    EXPECT_EQ(Show(m_second)["attempts"], 1);
}

TEST_F(PackageTest, AWorkerThatDiesBetweenTwoTasksCostsNothing) {
    Start();
    const auto first = SubmitPackage("status 3\nfinal 0\nfirst sleep 100\nfirst killed\n");
    EXPECT_EQ(Ended(first)["state"], "finished");
    const auto second = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(second, "finished");
    EXPECT_EQ(Show(second)["attempts"], 1);
}

TEST_F(PackageTest, OneThatMayHaveBegunIsLost) {
    Start();
    SubmitTwo("await 4006\nfinal 0\nkilled\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(m_first), "finished");
}

TEST_F(PackageTest, ACancelOfTheTaskInHandEndsTheWorkerAndPutsTheOtherBack) {
    Start();
    SubmitTwo("await 4002\nreply 4003\nfinal 5\n", "status 3\nfinal 0\n");
    EXPECT_EQ(Order(m_first, "cancel")["result"], "requested");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "cancelled");
}

TEST_F(PackageTest, AFinishOfTheTaskInHandDoesTheSame) {
    Start();
    SubmitTwo("await 4019\nreply 4020\nfinal 0\n", "status 3\nfinal 0\n");
    EXPECT_EQ(Order(m_first, "finish")["result"], "requested");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "finished");
}

TEST_F(PackageTest, AStallEndsTheWorkerAndPutsTheOtherBack) {
    Start();
    SubmitTwo("await 4006\nstall\nfinal 5\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "failed");
    EXPECT_EQ(Show(m_first)["attempt_list"][0]["error"]["code"], 6);
    EXPECT_EQ(Count(EventsUntil(m_first, "late-status"), "late-status"), 1);
}

// A plug-in may report the codes of a stall: its worker is in order, and the next task is performed once.
TEST_F(PackageTest, AnErrorWithTheCodesOfAStallIsOneLikeAnyOther) {
    Start();
    SubmitTwo("await 4006\nfail-like-a-stall\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "finished");
    EXPECT_EQ(StateOf(m_first), "failed");
    EXPECT_EQ(Show(m_second)["attempts"], 1);
    EXPECT_EQ(Count(EventsUntil(m_first, "final"), "late-status"), 0);
}

// Its plug-in gives up without a status of its own: that is not the next task's beginning.
TEST_F(PackageTest, AStalledTaskThatReturnsInStatus3IsNotTheNextOne) {
    Start();
    SubmitTwo("await 4006\nstall\nstatus 3\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "failed");
}

// Its progress thread had found it overdue; the worker has set its stop flag, and begins nothing more.
TEST_F(PackageTest, AStallReportThatComesBehindTheEndIsTheEndedTasks) {
    Start();
    SubmitTwo("await 4006\nfinal 0\nstall\nawait 4019\nkilled\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "finished");
    EXPECT_EQ(Count(EventsUntil(m_first, "late-status"), "late-status"), 1);
}

TEST_F(PackageTest, AWorkerThatStalledAtItsLastTaskGetsNoFurtherOne) {
    Start();
    m_first = SubmitPackage("status 3\nfinal 0\nfirst stall\nfirst await 4019\n");
    EventsUntil(m_first, "late-status");
    m_second = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(m_second, "finished");
    EXPECT_EQ(Show(m_second)["attempts"], 1);
    EXPECT_NE(ProcessOf(m_second), ProcessOf(m_first));
}

TEST_F(PackageTest, AnOrderlyEndEndsAWorkerThatWaitsAndPutsBackWhatIsInAList) {
    Start();
    const auto idle = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(idle, "finished");
    Stop();
    Start();
    EXPECT_EQ(Show(idle)["attempt_list"][0]["exit"], json::parse(R"({"code":0})"));
    SubmitTwo("await 4002\nfinal 5\n", "status 3\nfinal 0\n");
    Stop();
    Start();
    AwaitState(m_second, "finished");
    EXPECT_EQ(StateOf(m_first), "cancelled");
    EXPECT_EQ(Show(m_second)["attempt_list"][0]["state"], "cancelled");
}

TEST_F(PackageTest, AnEngineThatStaysAwayLosesBothTasks) {
    AllowAttempts(2);
    m_settings.resumeWindow = 1s;
    m_settings.linkGrace = 1s;
    Start();
    SubmitTwo("first in 1 await 4006\nfinal 0\n", "status 3\nfinal 0\n");
    Stop(Engine::End::LeaveWorkers);
    Start();
    ExpectLostOnce(m_first);
    ExpectLostOnce(m_second);
}

// The first one's end is not the end of what the worker had.
TEST_F(PackageTest, TheNextEngineKnowsWhichTaskWasInHand) {
    m_settings.resumeWindow = 1s;
    m_settings.linkGrace = 1s;
    Start();
    const auto before = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(before, "finished");
    SubmitTwo("await 4006\nfinal 0\n", "status 3\nfinal 0\n");
    Stop(Engine::End::LeaveWorkers);
    Start();
    AwaitState(m_first, "lost");
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(before), "finished");
    EXPECT_EQ(Count(EventsUntil(before, "final"), "late-status"), 0);
}

TEST_F(PackageTest, AConnectionThatBreaksCostsAPackageWorkerNothing) {
    m_settings.resumeWindow = 30s;
    Start();
    SubmitTwo("await 4006\nclose\nresume\nfinal 0\n", "print second\nstatus 3\nfinal 0\n");
    const auto third = SubmitPackage("status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(third, "finished");
    EXPECT_EQ(Count(EventsUntil(m_first, "final"), "resumed"), 1);
    ExpectOneWorker({m_first, m_second, third}, "second\n");
}

TEST_F(PackageTest, ARestartOfTheEngineCostsAPackageWorkerNothing) {
    m_settings.resumeWindow = 30s;
    Start();
    const auto before = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(before, "finished");
    SubmitTwo("resume\nprogress 50 1\nfinal 0\n", "print second\nstatus 3\nprogress 50 1\nfinal 0\n");
    Stop(Engine::End::LeaveWorkers);
    Start();
    AwaitState(m_second, "finished");
    const auto later = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(later, "finished");
    for (const auto& id : {m_first, m_second})
        EXPECT_EQ(Count(EventsUntil(id, "final"), "progress"), 1) << id;
    ExpectOneWorker({before, m_first, m_second, later}, "second\n");
}

TEST_F(PackageTest, AWorkerThatWaitsIsFedByTheNextEngine) {
    m_settings.resumeWindow = 30s;
    Start();
    const auto before = SubmitPackage("first resumes\nstatus 3\nfinal 0\n");
    AwaitState(before, "finished");
    Stop(Engine::End::LeaveWorkers);
    Start();
    const auto later = SubmitPackage("status 3\nfinal 0\n");
    AwaitState(later, "finished");
    ExpectOneWorker({before, later}, "");
}

// The last engine was killed between its claim and the order.
TEST_F(PackageTest, ATaskThatDidNotReachItsWorkerIsGivenByTheNextEngine) {
    m_settings.resumeWindow = 30s;
    Start();
    m_first = SubmitPackage("status 3\nresume\nfinal 0\n");
    AwaitState(m_first, "running");
    Stop(Engine::End::LeaveWorkers);
    {
        auto store = Store::Open(m_settings.dataFolder + "/store.db").value();
        NewTask task;
        task.type = 14;
        task.text = "print second\nstatus 3\nfinal 0\n";
        m_second = store->Submit(task).value().id;
        const SharedWorker worker{1, 1, m_first, false, 1};
        ASSERT_EQ(store->ClaimNext({}, {}, [&] { return std::optional(worker); }).value()->id, m_second);
    }
    Start();
    AwaitState(m_second, "finished");
    ExpectOneWorker({m_first, m_second}, "second\n");
}

TEST_F(PackageTest, TheNextEngineKnowsThatAStopWasForAnotherTask) {
    AllowAttempts(2);
    m_settings.resumeWindow = 30s;
    Start();
    SubmitTwo("await 4002\nreply 4003\nfinal 0\ngoes-on\n",
              "status 3\nin 1 resume\nin 1 final 5\nin 2 final 0\nin 1 stops\n");
    Order(m_first, "cancel");
    AwaitState(m_second, "running");
    Stop(Engine::End::LeaveWorkers);
    Start();
    AwaitState(m_second, "finished");
    EXPECT_EQ(StateOf(m_first), "finished");
    EXPECT_EQ(Show(m_second)["attempts"], 2);
    EXPECT_EQ(Show(m_second)["attempt_list"][0]["state"], "lost");
}

// The last engine ended between the end of a paused task and the order that takes the pause back.
TEST_F(PackageTest, TheNextEngineTakesAPauseBack) {
    m_settings.resumeWindow = 30s;
    Start();
    SubmitTwo("await 4006\nfinal 0\n", "resume\nawait 4006\nstatus 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_first, "finished");
    Stop(Engine::End::LeaveWorkers);
    Start();
    AwaitState(m_second, "finished");
    ExpectOneWorker({m_first, m_second}, "");
}

class PackageSpoolTest : public PackageTest {
  protected:
    // The worker leaves this in the spool, with one more task in its list, and is killed.
    void LeaveBehind(const std::string& status, const char* sql = "") {
        Start();
        SubmitTwo("await 4006\nspool " + status + "\nkilled\n", "status 3\nfinal 0\n");
        Change(sql);
        Order(m_first, "suspend");
        Order(m_first, "resume");
    }
};

TEST_F(PackageSpoolTest, AStatusBehindWhichNothingWasMissedIsThatOfTheTaskInHand) {
    LeaveBehind("0");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "finished");
}

TEST_F(PackageSpoolTest, ItIsTakenOnceHoweverOftenTheEndIsTried) {
    LeaveBehind(
        "0", "CREATE TRIGGER full BEFORE UPDATE OF spent ON tasks BEGIN SELECT RAISE(ABORT, 'no room'); END");
    AwaitState(m_first, "finished");
    // It is tried again after a second.
    std::this_thread::sleep_for(1500ms);
    Change("DROP TRIGGER full");
    ExpectDoneAnew();
}

TEST_F(PackageSpoolTest, SoIsOneBeforeWhichNoStatusWasMissed) {
    LeaveBehind("4 late");
    ExpectDoneAnew();
    EXPECT_EQ(StateOf(m_first), "failed");
}

// The worker does not wait for the acknowledgement of that one for long.
TEST_F(PackageSpoolTest, BehindACancelledTaskTheOtherMayHaveBegun) {
    LeaveBehind("5");
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(m_first), "cancelled");
}

// The task in hand may have returned without a final status, and this may be the next one's.
TEST_F(PackageSpoolTest, AStatusBehindOneThatWasMissedIsNobodys) {
    LeaveBehind("0 unheard");
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(m_first), "lost");
    EXPECT_EQ(Count(EventsUntil(m_first, "worker-exited"), "late-status"), 0);
}

TEST_F(PackageSpoolTest, AStatusThatIsHereIsNotTheNextTasks) {
    Start();
    SubmitTwo("await 4006\nfinal 0\nspool 4 had\nkilled\n", "status 3\nfinal 0\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(m_first), "finished");
    EXPECT_EQ(Count(EventsUntil(m_second, "worker-exited"), "final"), 0);
}

// The engine was killed before it removed the file.
TEST_F(PackageSpoolTest, AStatusOfAWorkerThatHasEndedIsNotItsFirstTasks) {
    m_settings.packageIdle = 0ms;
    Start();
    SubmitTwo("await 4006\nfinal 0\n", "status 3\nfinal 4\n");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    Ended(m_second);
    Stop();
    std::string token;
    {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        Statement query = database->Prepare("SELECT token FROM attempts ORDER BY id");
        ASSERT_TRUE(query.Row());
        token = query.Text();
    }
    const auto file = Data("spool") / (token + ".final");
    const auto body = link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, StateMessage(kTaskError));
    std::ofstream(file, std::ios::binary) << link::EncodeSpoolFile(9, body.value());
    Start();
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(Count(EventsUntil(m_first, "final"), "late-status"), 0);
    // One that is still there says as little.
    LinkClient late;
    ASSERT_TRUE(late.Connect(m_engine->LinkPort()));
    ASSERT_EQ(late.Greet(m_engine->Token(), token), 0u);
    EXPECT_TRUE(late.WaitAck(late.Send(TCP_WORKER_STATE_ID, StateMessage(kTaskError))));
    EXPECT_EQ(Count(EventsUntil(m_first, "late-worker"), "late-status"), 0);
}

// It is said once, and the worker goes on: nobody could tell what it says next.
TEST_F(PackageTest, AWorkerWhoseCancelledTaskCannotBeRecordedIsEnded) {
    Start();
    SubmitTwo("await 4006\nfinal 5\n", "status 3\nfinal 0\n");
    Change(
        "CREATE TRIGGER full BEFORE UPDATE OF status ON attempts "
        "BEGIN SELECT RAISE(ABORT, 'no room'); END");
    Order(m_first, "suspend");
    Order(m_first, "resume");
    EXPECT_EQ(Verdict(m_first).find("store-failure: "), 0u);
    AwaitState(m_second, "lost");
    EXPECT_EQ(StateOf(m_first), "lost");
}

}  // namespace
}  // namespace rq::engine

#include "engine/store.h"

#include <gtest/gtest.h>

#include "engine/json.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

class StoreTest : public testing::Test {
  protected:
    StoreTest() { Open(); }

    void Open() {
        m_store.reset();
        auto store = Store::Open(m_folder.Utf8("store.db"), [this] { return m_now; });
        ASSERT_TRUE(store) << store.error().message;
        m_store = std::move(*store);
    }
    std::int64_t Submit(const std::string& text = "<T/>") {
        auto row = m_store->Submit({RQ_TASK_MD5_COMPUTE, "name", text, "api"});
        EXPECT_TRUE(row);
        return row->key;
    }
    Claim Claimed() {
        auto claim = m_store->ClaimNext();
        EXPECT_TRUE(claim && *claim);
        return **claim;
    }
    TaskRow Task(std::int64_t key) { return m_store->Task(key).value().value(); }
    std::vector<std::string> Kinds(std::int64_t key) {
        std::vector<std::string> kinds;
        const auto events = m_store->Events(key, 0, 1000);
        for (const auto& event : *events) kinds.push_back(event.kind);
        return kinds;
    }
    static FinalStatus Final(std::uint32_t status, const std::string& text = {}) {
        FinalStatus final;
        final.status = status;
        final.errorText = text;
        return final;
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1'000'000;
    std::unique_ptr<Store> m_store;
};

TEST_F(StoreTest, AnExitIsToldOnce) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->Exited(claim.token, {false, 7}));
    ASSERT_TRUE(m_store->Exited(claim.token, {false, 0, false}));
    EXPECT_EQ(m_store->Details(key).value()->attempts.at(0).exitCode, 7);
    const auto kinds = Kinds(key);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "worker-exited"), 1);
}

TEST_F(StoreTest, AnAttemptThatIsUndoneIsNotCounted) {
    RetryRules rules = RetryRules::Standard();
    rules.standard.attempts = 1;
    rules.standard.stopAfter = 1;
    m_store->SetRetryRules(rules);
    const auto key = Submit();
    ASSERT_TRUE(m_store->Undone(Claimed().token, "never began"));
    EXPECT_EQ(Task(key).state, TaskState::Queued);
    EXPECT_TRUE(m_store->Stops()->empty());
    const Claim second = Claimed();
    EXPECT_EQ(second.task, key);
    EXPECT_EQ(second.number, 2);
    const auto kinds = Kinds(key);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "start-undone"), 1);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "lost"), 0);
    ASSERT_TRUE(m_store->Undone(second.token, "never began"));
    ASSERT_TRUE(m_store->Lost(Claimed().token, "gone"));
    EXPECT_EQ(Task(key).state, TaskState::Lost);
    // One that was cancelled meanwhile stays so.
    const auto other = Submit();
    m_store->Unstop(RQ_TASK_MD5_COMPUTE);
    const Claim third = Claimed();
    ASSERT_TRUE(m_store->Cancel(other, "api", "cancelled"));
    ASSERT_TRUE(m_store->Undone(third.token, "never began"));
    EXPECT_EQ(Task(other).state, TaskState::Cancelled);
}

TEST_F(StoreTest, ATaskGoesFromTheQueueToItsResult) {
    const auto key = Submit("<A>文本</A>");
    EXPECT_EQ(Task(key).state, TaskState::Queued);
    EXPECT_EQ(Task(key).id, "t1");

    const Claim claim = Claimed();
    EXPECT_EQ(claim.task, key);
    EXPECT_EQ(claim.number, 1);
    EXPECT_EQ(claim.text, "<A>文本</A>");
    EXPECT_EQ(claim.token.size(), 32u);
    EXPECT_EQ(Task(key).state, TaskState::Starting);

    ASSERT_TRUE(m_store->WorkerStarted(claim.token, 42, "/out"));
    ASSERT_TRUE(m_store->Connected(claim.token, 7, 42, "1.2"));
    ASSERT_TRUE(m_store->Notice(claim.token, "job", "guid"));
    m_now = 2'000'000;
    ASSERT_TRUE(m_store->Status(claim.token, kTaskRunning));
    EXPECT_EQ(Task(key).state, TaskState::Running);
    EXPECT_EQ(Task(key).started_us, 2'000'000);

    FinalStatus final = Final(kTaskFinished);
    final.result = R"({"kind":"md5"})";
    m_now = 3'000'000;
    EXPECT_EQ(m_store->Finish(claim.token, final).value(), FinishOutcome::Committed);
    ASSERT_TRUE(m_store->Exited(claim.token, {false, 0}));

    const auto details = m_store->Details(key).value().value();
    EXPECT_EQ(details.task.state, TaskState::Finished);
    EXPECT_EQ(details.task.finished_us, 3'000'000);
    EXPECT_EQ(details.task.percent, 100.0);
    EXPECT_EQ(details.task.status, 0);
    EXPECT_EQ(details.task.reason, std::nullopt);
    EXPECT_EQ(details.result, R"({"kind":"md5"})");
    ASSERT_EQ(details.attempts.size(), 1u);
    EXPECT_EQ(details.attempts[0].state, AttemptState::Finished);
    EXPECT_EQ(details.attempts[0].processId, 42);
    EXPECT_EQ(details.attempts[0].session, 7);
    EXPECT_EQ(details.attempts[0].reportedTask, "job");
    EXPECT_EQ(details.attempts[0].exitCode, 0);
    EXPECT_EQ(details.attempts[0].exitSignal, std::nullopt);
    EXPECT_EQ(Kinds(key), (std::vector<std::string>{"submitted", "state", "claimed", "state",
                                                    "worker-started", "connected", "notice", "status",
                                                    "state", "final", "state", "worker-exited"}));
}

TEST_F(StoreTest, TheQueueIsFirstInFirstOut) {
    const auto first = Submit();
    const auto second = Submit();
    EXPECT_EQ(Claimed().task, first);
    EXPECT_EQ(Claimed().task, second);
    const auto none = m_store->ClaimNext();
    ASSERT_TRUE(none);
    EXPECT_FALSE(*none);
}

TEST_F(StoreTest, TheSameFinalStatusAgainChangesNothing) {
    const auto key = Submit();
    const Claim claim = Claimed();
    FinalStatus final = Final(kTaskFinished);
    final.result = "{}";
    ASSERT_EQ(m_store->Finish(claim.token, final).value(), FinishOutcome::Committed);
    const auto before = Kinds(key);
    EXPECT_EQ(m_store->Finish(claim.token, final).value(), FinishOutcome::Repeat);
    EXPECT_EQ(Kinds(key), before);
}

TEST_F(StoreTest, AnotherFinalStatusIsKeptAsAnEventOnly) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskError, "Task Not Response !")));
    EXPECT_EQ(m_store->Finish(claim.token, Final(kTaskFinished)).value(), FinishOutcome::Late);
    EXPECT_EQ(Task(key).state, TaskState::Failed);
    EXPECT_EQ(Task(key).reason, "Task Not Response !");
    EXPECT_EQ(Kinds(key).back(), "late-status");
    // One that differs in a text alone is another one, too.
    EXPECT_EQ(m_store->Finish(claim.token, Final(kTaskError, "x")).value(), FinishOutcome::Late);
}

TEST_F(StoreTest, AfterTheEndReportsDoNotReviveATask) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskFinished)));
    ASSERT_TRUE(m_store->Status(claim.token, kTaskRunning));
    ASSERT_TRUE(m_store->Progress(claim.token, {5, 1, 0}));
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    EXPECT_EQ(Task(key).state, TaskState::Finished);
    EXPECT_EQ(Task(key).percent, 100.0);
}

TEST_F(StoreTest, ALostAttemptLosesItsTask) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->Exited(claim.token, {true, 9}));
    ASSERT_TRUE(m_store->Lost(claim.token, "worker ended by signal 9"));
    const auto details = m_store->Details(key).value().value();
    EXPECT_EQ(details.task.state, TaskState::Lost);
    EXPECT_EQ(details.task.reason, "worker ended by signal 9");
    EXPECT_EQ(details.attempts[0].state, AttemptState::Lost);
    EXPECT_EQ(details.attempts[0].exitSignal, 9);
    // A final status that comes after that is late.
    EXPECT_EQ(m_store->Finish(claim.token, Final(kTaskFinished)).value(), FinishOutcome::Late);
}

TEST_F(StoreTest, CancelOfAQueuedTaskIsItsEnd) {
    const auto key = Submit();
    EXPECT_EQ(m_store->Cancel(key, "api", "why").value().result, "cancelled");
    EXPECT_EQ(Task(key).state, TaskState::Cancelled);
    EXPECT_EQ(Task(key).reason, "why");
    EXPECT_EQ(m_store->Cancel(key, "api", "why").value().result, "already-ended");
    EXPECT_FALSE(*m_store->ClaimNext());
}

TEST_F(StoreTest, ACancelledWorkerThatJustEndsLeavesACancelledTask) {
    const auto key = Submit();
    const Claim claim = Claimed();
    EXPECT_EQ(m_store->Cancel(key, "api", "why").value().result, "requested");
    EXPECT_EQ(m_store->Cancel(key, "api", "why").value().result, "requested");
    EXPECT_EQ(Task(key).state, TaskState::Finishing);
    ASSERT_TRUE(m_store->Lost(claim.token, "ended"));
    EXPECT_EQ(Task(key).state, TaskState::Cancelled);
    const auto kinds = Kinds(key);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "cancel-requested"), 1);
}

TEST_F(StoreTest, StatusThreeAloneMovesATask) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->Status(claim.token, kTaskRunning));
    EXPECT_EQ(Task(key).state, TaskState::Running);
    // Others are noted and move nothing.
    for (const std::uint32_t status : {std::uint32_t{kTaskPaused}, 1u}) {
        ASSERT_TRUE(m_store->Status(claim.token, status));
        EXPECT_EQ(Task(key).state, TaskState::Running);
    }
    EXPECT_EQ(Kinds(key).back(), "unknown-status");
}

TEST_F(StoreTest, ProgressIsAnEventForEachWholePercentOrAfterAWhile) {
    const auto key = Submit();
    const Claim claim = Claimed();
    const auto count = [&] {
        const auto kinds = Kinds(key);
        return std::count(kinds.begin(), kinds.end(), "progress");
    };
    for (const double percent : {1.0, 1.2, 1.9})
        ASSERT_TRUE(m_store->Progress(claim.token, {percent, 10, 0}));
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(Task(key).percent, 1.9);
    ASSERT_TRUE(m_store->Progress(claim.token, {2.0, 10, 0}));
    EXPECT_EQ(count(), 2);
    m_now += 10'000'000;
    ASSERT_TRUE(m_store->Progress(claim.token, {2.1, 10, 0}));
    EXPECT_EQ(count(), 3);
}

TEST_F(StoreTest, AnUnknownTokenIsRefused) {
    Submit();
    Claimed();
    EXPECT_FALSE(m_store->Status("nobody", kTaskRunning));
    EXPECT_FALSE(m_store->Finish("nobody", Final(kTaskFinished)));
    EXPECT_FALSE(m_store->Cancel(99, "api", "why"));
}

TEST_F(StoreTest, EverythingIsThereAfterReopening) {
    const auto waiting = [&] {
        Submit("<A/>");
        const Claim claim = Claimed();
        EXPECT_TRUE(m_store->Finish(claim.token, Final(kTaskFinished)));
        return Submit("<B/>");
    }();
    Open();
    EXPECT_EQ(Task(1).state, TaskState::Finished);
    EXPECT_EQ(Task(waiting).state, TaskState::Queued);
    EXPECT_EQ(Claimed().text, "<B/>");
}

TEST_F(StoreTest, OpenAttemptsAreThereForTheNextEngine) {
    const auto key = Submit();
    const Claim claim = Claimed();
    ASSERT_TRUE(m_store->WorkerStarted(claim.token, 4711, "/logs/t1a1_0.out", "boot.1"));
    ASSERT_TRUE(m_store->Connected(claim.token, 77, 4711, "1.0", "of another look"));
    ASSERT_TRUE(m_store->Notice(claim.token, "job", "guid"));
    ASSERT_TRUE(m_store->Status(claim.token, kTaskRunning));
    ASSERT_TRUE(m_store->Suspend(key, "api"));
    ASSERT_TRUE(m_store->Update(key, "api", "<New/>"));
    ASSERT_TRUE(m_store->Update(key, "api", "<Newer/>"));
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_UPDATE_REPLY_ID, "{}"));  // to the first of them
    ASSERT_TRUE(m_store->RememberLinkPort(4321));
    Open();
    EXPECT_EQ(m_store->LinkPort().value(), 4321);
    auto open = m_store->OpenAttempts().value();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].claim.token, claim.token);
    EXPECT_EQ(open[0].claim.id, "t1");
    EXPECT_EQ(open[0].claim.number, 1);
    EXPECT_EQ(open[0].state, AttemptState::Running);
    EXPECT_TRUE(open[0].started);
    EXPECT_EQ(open[0].session, 77u);
    EXPECT_EQ(open[0].processId, 4711u);
    EXPECT_EQ(open[0].processMark, "boot.1");
    EXPECT_EQ(open[0].output, "/logs/t1a1_0.out");
    EXPECT_EQ(open[0].reportedTask, "job");
    EXPECT_EQ(open[0].asked, std::uint32_t{TCP_TASK_SUSPEND_ID});
    EXPECT_TRUE(open[0].textAsked);
    // What has been answered does not stand any more; a final status alone closes nothing.
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_SUSPEND_REPLY_ID, "{}"));
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_UPDATE_REPLY_ID, "{}"));
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskFinished)));
    open = m_store->OpenAttempts().value();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].state, AttemptState::Finished);
    EXPECT_EQ(open[0].asked, 0u);
    EXPECT_FALSE(open[0].textAsked);
    ASSERT_TRUE(m_store->Closed(claim.token));
    EXPECT_TRUE(m_store->OpenAttempts().value().empty());
}

TEST_F(StoreTest, ARecordAndItsNumberAreCommittedTogether) {
    Submit();
    const Claim claim = Claimed();
    const auto number = [&] { return m_store->OpenAttempts().value().at(0).workerSeq; };
    m_store->BeginRecord(claim.token, 3);
    ASSERT_TRUE(m_store->Seen(claim.token));
    EXPECT_EQ(number(), 3u) << "with the verb, before the end of the record";
    ASSERT_TRUE(m_store->EndRecord());
    // One that no verb belongs to.
    m_store->BeginRecord(claim.token, 4);
    EXPECT_EQ(number(), 3u);
    ASSERT_TRUE(m_store->EndRecord());
    EXPECT_EQ(number(), 4u);
    // Outside of a record, and of a record that cannot be kept yet.
    ASSERT_TRUE(m_store->Seen(claim.token));
    m_store->BeginRecord(claim.token, 0);
    ASSERT_TRUE(m_store->Seen(claim.token));
    ASSERT_TRUE(m_store->EndRecord());
    EXPECT_EQ(number(), 4u);
    Open();
    EXPECT_EQ(number(), 4u);
}

TEST_F(StoreTest, ALinkThatBreaksAllTheTimeDoesNotFillTheStore) {
    const auto key = Submit();
    const Claim claim = Claimed();
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(m_store->Interrupted(claim.token, "closed"));
        ASSERT_TRUE(m_store->Resumed(claim.token, 4711));
    }
    const auto kinds = Kinds(key);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "interrupted"), 50);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "resumed"), 50);
}

TEST_F(StoreTest, ListsAreNewestFirstAndCanBeContinued) {
    for (int i = 0; i < 5; ++i) Submit();
    ASSERT_TRUE(m_store->Cancel(4, "api", "why"));
    TaskQuery query;
    query.limit = 2;
    auto rows = m_store->Tasks(query).value();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].id, "t5");
    query.before_key = rows[1].key;
    query.limit = 10;
    rows = m_store->Tasks(query).value();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].id, "t3");
    query.before_key.reset();
    query.states = {TaskState::Cancelled, TaskState::Running};
    rows = m_store->Tasks(query).value();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].id, "t4");
    EXPECT_EQ(m_store->CountByState().value(), (std::vector<std::int64_t>{4, 0, 0, 0, 0, 0, 0, 1, 0}));
}

TEST_F(StoreTest, AnExternalWorkerGetsATaskOfItsOwn) {
    const Claim claim = m_store->AdoptExternal("process 5").value();
    EXPECT_EQ(Task(claim.task).origin, "external");
    EXPECT_EQ(Task(claim.task).type, kUnknownType);
    ASSERT_TRUE(m_store->TypeSeen(claim.token, RQ_TASK_TRANSCODE));
    EXPECT_EQ(Task(claim.task).type, RQ_TASK_TRANSCODE);
}

TEST_F(StoreTest, TheListenerHearsOfEveryCommitWithEvents) {
    std::vector<std::int64_t> heard;
    m_store->SetListener([&](std::int64_t task) { heard.push_back(task); });
    const auto key = Submit();
    Claimed();
    EXPECT_EQ(heard, (std::vector<std::int64_t>{key, key}));
}

TEST_F(StoreTest, EventsCannotBeChangedOrRemoved) {
    Submit();
    auto database = Database::Open(m_folder.Utf8("store.db")).value();
    EXPECT_FALSE(database->Execute("UPDATE events SET kind = 'x'"));
    EXPECT_NE(database->TakeError().message.find("only ever added"), std::string::npos);
    EXPECT_FALSE(database->Execute("DELETE FROM events"));
}

// A store as the program with that schema left it: one finished task and one that waits.
void MakeOldStore(const std::string& path, int version) {
    auto database = Database::Open(path).value();
    ASSERT_TRUE(MigrateSchema(*database, version));
    ASSERT_TRUE(database->Execute(R"sql(
        INSERT INTO tasks (public_id, type, name, origin, text, state, created_us, started_us, finished_us,
                           attempts, last_attempt)
          VALUES ('t1', 3, 'a', 'api', '<A/>', 'finished', 10, 11, 12, 1, 1);
        INSERT INTO attempts (task, number, token, state, created_us, percent, status)
          VALUES (1, 1, 'secret', 'finished', 10, 100, 0);
        INSERT INTO results (attempt, json) VALUES (1, '{"kind":"md5"}');
        INSERT INTO events (task, attempt, time_us, kind, json) VALUES (1, 1, 10, 'claimed', '{"number":1}');
        INSERT INTO tasks (public_id, type, name, origin, text, state, created_us)
          VALUES ('t2', 3, 'b', 'api', '<B/>', 'queued', 20);
    )sql"));
}

TEST_F(StoreTest, AStoreOfAnEarlierSchemaIsBroughtUpWithItsTasks) {
    for (const int version : {1, 2, 3, 4, 5, 6, 7, 8}) {
        const std::string path = m_folder.Utf8("old" + std::to_string(version) + ".db");
        MakeOldStore(path, version);
        m_store = Store::Open(path, [this] { return m_now; }).value();
        const auto details = m_store->Details(1).value().value();
        EXPECT_EQ(details.task.state, TaskState::Finished);
        EXPECT_EQ(details.task.finished_us, 12);
        EXPECT_EQ(details.result, R"({"kind":"md5"})");
        EXPECT_EQ(Kinds(1), std::vector<std::string>{"claimed"});
        // What is new works on what is old.
        const Claim claim = Claimed();
        EXPECT_EQ(claim.id, "t2");
        EXPECT_EQ(claim.text, "<B/>");
        ASSERT_TRUE(m_store->Progress(claim.token, {41.5, 2.5, 62.25}));
        EXPECT_EQ(Task(2).averageSpeed, 62.25);
        m_store->SetRetryRules(RetryRules::Standard());
        ASSERT_EQ(m_store->OpenAttempts().value().size(), 1u) << "and none that has ended long ago";
        EXPECT_FALSE(m_store->OpenAttempts().value()[0].saidBye);
        ASSERT_TRUE(m_store->WorkerStarted(claim.token, 4711, "", "", 45'000));
        EXPECT_EQ(m_store->OpenAttempts().value()[0].silence_ms, 45'000);
        ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
        EXPECT_EQ(Task(2).state, TaskState::Queued);
        EXPECT_TRUE(Task(2).notBefore_us);
        std::vector<std::string> outputs;
        EXPECT_EQ(m_store->Delete(1, outputs).value().result, "deleted");
        auto database = Database::Open(path).value();
        EXPECT_FALSE(database->Execute("DELETE FROM events"));
    }
}

TEST_F(StoreTest, ANewerSchemaIsRefused) {
    m_store.reset();
    {
        auto database = Database::Open(m_folder.Utf8("store.db")).value();
        ASSERT_TRUE(database->Execute("PRAGMA user_version = 99"));
    }
    const auto store = Store::Open(m_folder.Utf8("store.db"));
    ASSERT_FALSE(store);
    EXPECT_NE(store.error().message.find("schema version 99"), std::string::npos);
}

TEST_F(StoreTest, AFileThatIsNoStoreIsNamedInTheError) {
    m_folder.Write("junk.db", std::string(4096, 'x'));
    const auto store = Store::Open(m_folder.Utf8("junk.db"));
    ASSERT_FALSE(store);
    EXPECT_NE(store.error().message.find("junk.db"), std::string::npos);
}

TEST_F(StoreTest, AVerbThatFailsLeavesNothingBehind) {
    const auto key = Submit();
    const Claim claim = Claimed();
    auto other = Database::Open(m_folder.Utf8("store.db")).value();
    ASSERT_TRUE(
        other->Execute("CREATE TRIGGER full BEFORE INSERT ON events WHEN NEW.kind = 'final' "
                       "BEGIN SELECT RAISE(ABORT, 'disk is full'); END"));
    const auto refused = m_store->Finish(claim.token, Final(kTaskFinished));
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find("disk is full"), std::string::npos);
    EXPECT_EQ(Task(key).state, TaskState::Starting);
    EXPECT_EQ(Task(key).status, std::nullopt);
    // And the same status is taken once there is room again.
    ASSERT_TRUE(other->Execute("DROP TRIGGER full"));
    EXPECT_EQ(m_store->Finish(claim.token, Final(kTaskFinished)).value(), FinishOutcome::Committed);
    EXPECT_EQ(Task(key).state, TaskState::Finished);
}

}  // namespace
}  // namespace rq::engine

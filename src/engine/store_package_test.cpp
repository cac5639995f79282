// Attempts that share a worker, in the store.
#include <gtest/gtest.h>

#include "engine/store.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

class StorePackageTest : public testing::Test {
  protected:
    StorePackageTest() {
        m_store = Store::Open(m_folder.Utf8("store.db"), [this] { return ++m_now; }).value();
        RetryRules rules = RetryRules::Standard();
        rules.standard.attempts = 1;
        m_store->SetRetryRules(rules);
    }
    std::int64_t Submit() { return m_store->Submit({14, "name", "<T/>", "api"}).value().key; }
    // The first task of a worker that runs.
    Claim First() {
        Submit();
        Claim claim = m_store->ClaimNext().value().value();
        EXPECT_TRUE(m_store->WorkerStarted(claim.token, 42, "/out"));
        EXPECT_TRUE(m_store->Connected(claim.token, 7, 42, "1.0"));
        EXPECT_TRUE(m_store->Begun(claim.token, "id"));
        return claim;
    }
    Claim Added(const Claim& first, const Claim& latest, bool idle = false) {
        Submit();
        return m_store
            ->ClaimNext({}, {},
                        [&] {
                            return SharedWorker{first.attempt, latest.attempt, latest.id, idle, 9};
                        })
            .value()
            .value();
    }
    TaskRow Task(const Claim& claim) { return m_store->Task(claim.task).value().value(); }
    AttemptRow Attempt(const Claim& claim) {
        return m_store->Details(claim.task)
            .value()
            .value()
            .attempts.at(static_cast<std::size_t>(claim.number) - 1);
    }
    std::vector<std::string> Kinds(const Claim& claim) {
        std::vector<std::string> kinds;
        for (const auto& event : m_store->Events(claim.task, 0, 100).value()) kinds.push_back(event.kind);
        return kinds;
    }
    static FinalStatus Final(std::uint32_t status) {
        FinalStatus final;
        final.status = status;
        return final;
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1'000'000;
    std::unique_ptr<Store> m_store;
};

TEST_F(StorePackageTest, AnAddedAttemptHasItsOwnTokenAndItsWorkersFacts) {
    const Claim first = First();
    const Claim second = Added(first, first);
    const Claim third = Added(first, second);
    EXPECT_NE(second.token, first.token);
    for (const auto& claim : {second, third}) {
        const AttemptRow attempt = Attempt(claim);
        EXPECT_EQ(attempt.state, AttemptState::Starting);
        EXPECT_EQ(attempt.processId, 42);
        EXPECT_EQ(attempt.session, 7);
        EXPECT_EQ(attempt.workerVersion, "1.0");
        EXPECT_EQ(attempt.output, "/out");
        EXPECT_FALSE(attempt.connected_us);
        EXPECT_EQ(attempt.sharedTask, "t1");
        EXPECT_EQ(attempt.sharedAttempt, 1);
    }
    EXPECT_FALSE(Attempt(first).sharedTask);
    EXPECT_EQ(Kinds(second), (std::vector<std::string>{"submitted", "state", "claimed", "state", "added"}));

    ASSERT_TRUE(m_store->Exited(third.token, {true, 9}, first.attempt));
    for (const auto& claim : {first, second, third}) EXPECT_EQ(Attempt(claim).exitSignal, 9);
    EXPECT_EQ(Kinds(third).back(), "worker-exited");
    EXPECT_EQ(Kinds(first).back(), "state");
}

TEST_F(StorePackageTest, TheNextAttemptMayHaveBegunFromTheFinalStatusBeforeItOn) {
    const Claim first = First();
    const Claim second = Added(first, first);
    ASSERT_TRUE(m_store->Finish(first.token, Final(kTaskFinished), second.token));
    EXPECT_TRUE(Attempt(second).connected_us);
    const Claim third = Added(first, second);
    ASSERT_TRUE(m_store->Unsaid(second.token, "why", third.token));
    EXPECT_TRUE(Attempt(third).connected_us);
    EXPECT_EQ(Task(second).state, TaskState::Failed);
    ASSERT_TRUE(m_store->Finish(third.token, Final(kTaskFinished)));
    EXPECT_TRUE(Attempt(Added(first, third, true)).connected_us);
}

TEST_F(StorePackageTest, ATaskThatIsPutBackHasItsOldPlaceAndAllItsAttempts) {
    const Claim first = First();
    const Claim second = Added(first, first);
    Submit();
    ASSERT_TRUE(m_store->PutBack(second.token, "not begun: gone"));
    EXPECT_EQ(Task(second).state, TaskState::Queued);
    EXPECT_EQ(Attempt(second).state, AttemptState::Cancelled);
    EXPECT_EQ(Attempt(second).reason, "not begun: gone");
    ASSERT_TRUE(m_store->PutBack(second.token, "twice"));
    EXPECT_EQ(Attempt(second).reason, "not begun: gone");

    const Claim again = m_store->ClaimNext().value().value();
    EXPECT_EQ(again.task, second.task);
    EXPECT_EQ(again.number, 2);
    // One attempt is allowed, and this is the first that counts.
    ASSERT_TRUE(m_store->Lost(again.token, "gone"));
    EXPECT_EQ(Task(again).state, TaskState::Lost);
    for (const auto& event : m_store->Events(again.task, 0, 100).value()) {
        if (event.kind == "no-repeat") {
            EXPECT_NE(event.json.find("1 of 1"), std::string::npos) << event.json;
        }
    }
}

TEST_F(StorePackageTest, ATaskThatWasCancelledInTheListIsCancelledWhenItIsPutBack) {
    const Claim first = First();
    const Claim second = Added(first, first);
    EXPECT_TRUE(m_store->Cancel(second.task, "api", "").value().send);
    EXPECT_EQ(Task(second).state, TaskState::Finishing);
    ASSERT_TRUE(m_store->PutBack(second.token, "not begun"));
    EXPECT_EQ(Task(second).state, TaskState::Cancelled);
}

TEST_F(StorePackageTest, TheNextEngineFindsWhatHasNotEnded) {
    const Claim first = First();
    const Claim second = Added(first, first);
    auto open = m_store->OpenOfWorker(first.attempt).value();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].claim.token, second.token);
    EXPECT_EQ(open[0].claim.id, "t2");
    EXPECT_FALSE(open[0].reached);
    EXPECT_EQ(open[0].addSeq, 9u);
    ASSERT_TRUE(m_store->AddedAgain(second.token, 4));
    EXPECT_EQ(m_store->OpenOfWorker(first.attempt).value()[0].addSeq, 4u);
    ASSERT_TRUE(m_store->Finish(first.token, Final(kTaskFinished), second.token));
    const Claim third = Added(first, second);
    open = m_store->OpenOfWorker(first.attempt).value();
    ASSERT_EQ(open.size(), 2u);
    EXPECT_TRUE(open[0].reached);
    EXPECT_FALSE(open[0].started);
    EXPECT_FALSE(open[1].reached);
    ASSERT_TRUE(m_store->Begun(second.token, "id"));
    EXPECT_TRUE(m_store->OpenOfWorker(first.attempt).value()[0].started);
    ASSERT_TRUE(m_store->Finish(second.token, Final(kTaskFinished), third.token));
    // The last one that has ended is who repeats of a status belong to.
    open = m_store->OpenOfWorker(first.attempt).value();
    ASSERT_EQ(open.size(), 2u);
    EXPECT_EQ(open[0].state, AttemptState::Finished);
    EXPECT_EQ(open[1].claim.token, third.token);
    FinalStatus stalled = Final(kTaskError);
    stalled.detailErrorCode = 0x80000001;
    stalled.errorCode = 6;
    stalled.stalled = true;
    ASSERT_TRUE(m_store->Finish(third.token, stalled));
    open = m_store->OpenOfWorker(first.attempt).value();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_TRUE(open[0].stalled);
}

TEST_F(StorePackageTest, AWorkerIsSharedFromItsSecondTaskOn) {
    const Claim first = First();
    EXPECT_FALSE(m_store->IsShared(first.token).value());
    Added(first, first);
    EXPECT_TRUE(m_store->IsShared(first.token).value());
    EXPECT_FALSE(m_store->IsShared("unknown").value());
}

TEST_F(StorePackageTest, TheFirstTaskForWhichAWorkerIsToldToStopIsKept) {
    const Claim first = First();
    EXPECT_FALSE(m_store->OpenAttempts().value()[0].told);
    ASSERT_TRUE(m_store->Told(first.token, 5));
    ASSERT_TRUE(m_store->Told(first.token, 6));
    EXPECT_EQ(m_store->OpenAttempts().value()[0].told, 5);
}

TEST_F(StorePackageTest, TheOutputOfASharedWorkerGoesWithTheLastOfItsTasks) {
    const Claim first = First();
    const Claim second = Added(first, first);
    std::vector<std::string> outputs;
    ASSERT_TRUE(m_store->Finish(first.token, Final(kTaskFinished), second.token));
    ASSERT_TRUE(m_store->Delete(first.task, outputs).value().changed);
    EXPECT_TRUE(outputs.empty());
    ASSERT_TRUE(m_store->Finish(second.token, Final(kTaskFinished)));
    ASSERT_TRUE(m_store->Delete(second.task, outputs).value().changed);
    EXPECT_EQ(outputs, std::vector<std::string>{"/out"});
}

TEST_F(StorePackageTest, TheNumbersOfTheWorkersRecordsAreKeptWithItsFirstAttempt) {
    const Claim first = First();
    const Claim second = Added(first, first);
    const auto open = m_store->OpenAttempts().value();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].claim.token, first.token);
    m_store->BeginRecord(first.token, 5);
    ASSERT_TRUE(m_store->Begun(second.token, "id"));
    EXPECT_EQ(m_store->OpenAttempts().value().at(0).workerSeq, 5u) << "with the verb";
    ASSERT_TRUE(m_store->EndRecord());
}

}  // namespace
}  // namespace rq::engine

// Orders, further attempts and stopped types in the store, on a clock that the test moves.
#include <gtest/gtest.h>

#include "engine/json.h"
#include "engine/store.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kSecond_us = 1'000'000;

class StoreOrdersTest : public testing::Test {
  protected:
    StoreOrdersTest() {
        m_store = Store::Open(m_folder.Utf8("store.db"), [this] { return m_now; }).value();
        m_rules.standard.errorCodes = {6};
        m_rules.standard.stopAfter = 0;
        m_store->SetRetryRules(m_rules);
    }
    std::int64_t Submit(std::int32_t type = RQ_TASK_MD5_COMPUTE) {
        return m_store->Submit({type, "name", "<T/>", "api"}).value().key;
    }
    std::optional<Claim> TryClaim() { return m_store->ClaimNext().value(); }
    Claim Claimed() {
        auto claim = TryClaim();
        EXPECT_TRUE(claim);
        return claim.value_or(Claim{});
    }
    // A task whose worker runs.
    Claim Running(std::int32_t type = RQ_TASK_MD5_COMPUTE) {
        Submit(type);
        Claim claim = Claimed();
        EXPECT_TRUE(m_store->Connected(claim.token, 7, 42, "1"));
        EXPECT_TRUE(m_store->Status(claim.token, kTaskRunning));
        return claim;
    }
    TaskRow Task(std::int64_t key) { return m_store->Task(key).value().value(); }
    std::vector<EventRow> Events(std::int64_t key, const std::string& kind) {
        std::vector<EventRow> found;
        for (auto& event : m_store->Events(key, 0, 1000).value()) {
            if (event.kind == kind) found.push_back(event);
        }
        return found;
    }
    static FinalStatus Final(std::uint32_t status, std::uint32_t error = 0) {
        FinalStatus final;
        final.status = status;
        final.errorCode = error;
        final.errorText = "text";
        return final;
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1000 * kSecond_us;
    RetryRules m_rules = RetryRules::Standard();
    std::unique_ptr<Store> m_store;
};

TEST_F(StoreOrdersTest, ALostWorkersTaskIsRepeatedAfterItsDelayAndNotForEver) {
    const auto key = Submit();
    for (const std::int64_t delay_s : {10, 30}) {
        const Claim claim = Claimed();
        ASSERT_TRUE(m_store->Lost(claim.token, "worker ended by signal 11"));
        EXPECT_EQ(Task(key).state, TaskState::Queued);
        EXPECT_EQ(Task(key).reason, "worker ended by signal 11");
        EXPECT_EQ(Task(key).notBefore_us, m_now + delay_s * kSecond_us);
        EXPECT_EQ(m_store->NextDue().value(), m_now + delay_s * kSecond_us);
        m_now += delay_s * kSecond_us - 1;
        EXPECT_FALSE(TryClaim());
        m_now += 1;
    }
    const Claim last = Claimed();
    EXPECT_EQ(last.number, 3);
    EXPECT_EQ(Task(key).notBefore_us, std::nullopt);
    ASSERT_TRUE(m_store->Lost(last.token, "gone"));
    EXPECT_EQ(Task(key).state, TaskState::Lost);
    EXPECT_EQ(m_store->NextDue().value(), std::nullopt);
    EXPECT_EQ(Events(key, "repeat").size(), 2u);
    ASSERT_EQ(Events(key, "no-repeat").size(), 1u);
    EXPECT_NE(Events(key, "no-repeat")[0].json.find("3 of 3 attempts were made"), std::string::npos);
}

TEST_F(StoreOrdersTest, AClockThatIsPutBackDoesNotHoldATask) {
    const auto key = Submit();
    ASSERT_TRUE(m_store->Lost(Claimed().token, "gone"));
    m_now -= 3600 * kSecond_us;
    EXPECT_EQ(Claimed().task, key);
}

TEST_F(StoreOrdersTest, AListedErrorIsRepeatedAndAnyOtherIsTheEnd) {
    const Claim listed = Running();
    ASSERT_EQ(m_store->Finish(listed.token, Final(kTaskError, 6)).value(), FinishOutcome::Committed);
    EXPECT_EQ(Task(listed.task).state, TaskState::Queued);
    EXPECT_EQ(m_store->Details(listed.task).value()->attempts[0].state, AttemptState::Failed);
    // The earlier attempt holds the task no longer.
    ASSERT_TRUE(m_store->Status(listed.token, kTaskRunning));
    EXPECT_EQ(Task(listed.task).state, TaskState::Queued);
    EXPECT_EQ(m_store->Finish(listed.token, Final(kTaskFinished)).value(), FinishOutcome::Late);
    EXPECT_EQ(m_store->Finish(listed.token, Final(kTaskError, 6)).value(), FinishOutcome::Repeat);
    EXPECT_EQ(Task(listed.task).state, TaskState::Queued);

    const Claim other = Running();
    ASSERT_TRUE(m_store->Finish(other.token, Final(kTaskError, 5)));
    EXPECT_EQ(Task(other.task).state, TaskState::Failed);
    EXPECT_TRUE(Events(other.task, "repeat").empty());
    EXPECT_TRUE(Events(other.task, "no-repeat").empty());
}

TEST_F(StoreOrdersTest, ATransferAndADeletionAreRepeatedOnlyWhileUntouched) {
    for (const std::int32_t type : {RQ_TASK_TRANSFER, RQ_TASK_DELETE}) {
        const Claim touched = Running(type);
        ASSERT_TRUE(m_store->Lost(touched.token, "gone"));
        EXPECT_EQ(Task(touched.task).state, TaskState::Lost) << type;
        EXPECT_EQ(Events(touched.task, "no-repeat").size(), 1u);
        const auto untouched = Submit(type);
        ASSERT_TRUE(m_store->Lost(Claimed().token, "the worker cannot be started"));
        EXPECT_EQ(Task(untouched).state, TaskState::Queued) << type;
        ASSERT_TRUE(m_store->Cancel(untouched, "api", ""));
    }
}

TEST_F(StoreOrdersTest, WhoWasToldToStopIsNotRepeated) {
    const Claim cancelled = Running();
    ASSERT_TRUE(m_store->Cancel(cancelled.task, "api", "why"));
    EXPECT_EQ(Task(cancelled.task).state, TaskState::Finishing);
    ASSERT_TRUE(m_store->Finish(cancelled.token, Final(kTaskError, 6)));
    EXPECT_EQ(Task(cancelled.task).state, TaskState::Failed);
    ASSERT_EQ(Events(cancelled.task, "no-repeat").size(), 1u);
    EXPECT_NE(Events(cancelled.task, "no-repeat")[0].json.find(
                  "error 0x00000006 may be repeated, and the task was told to stop"),
              std::string::npos);

    const Claim finishing = Running();
    ASSERT_TRUE(m_store->FinishTask(finishing.task, "api"));
    ASSERT_TRUE(m_store->Lost(finishing.token, "gone"));
    EXPECT_EQ(Task(finishing.task).state, TaskState::Lost);
    ASSERT_EQ(Events(finishing.task, "no-repeat").size(), 1u);
    EXPECT_NE(Events(finishing.task, "no-repeat")[0].json.find(
                  "the worker was lost, and the task was told to stop"),
              std::string::npos);
}

TEST_F(StoreOrdersTest, WhatWasStartedByHandRunsFromItsConnectionOnAndIsStartedNoMore) {
    const Claim claim = m_store->AdoptExternal("by hand").value();
    EXPECT_EQ(Task(claim.task).state, TaskState::Starting);
    ASSERT_TRUE(m_store->Connected(claim.token, 7, 42, "1"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Running);
    EXPECT_TRUE(Events(claim.task, "status").empty()) << "it has said nothing";
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Lost);
    ASSERT_EQ(Events(claim.task, "no-repeat").size(), 1u);
    const auto outcome = m_store->Retry(claim.task, "api").value();
    EXPECT_TRUE(outcome.refused);
    EXPECT_EQ(outcome.message,
              "t1 is lost: retry is for a task that is failed, cancelled or lost; it was started by hand, "
              "and the engine has no text to start it with");
}

TEST_F(StoreOrdersTest, AStatusThatNoTaskHasIsAnEventAndChangesNothing) {
    const Claim claim = Running();
    for (const std::uint32_t status : {17u, kTaskPaused + 0u, 0x80000000u})
        ASSERT_TRUE(m_store->Status(claim.token, status));
    EXPECT_EQ(Task(claim.task).state, TaskState::Running);
    EXPECT_EQ(Events(claim.task, "status").size(), 2u) << "3 and 7";
    const auto unknown = Events(claim.task, "unknown-status");
    ASSERT_EQ(unknown.size(), 2u);
    EXPECT_EQ(unknown[0].json, "{\"status\":17}");
    EXPECT_EQ(unknown[1].json, "{\"status\":2147483648}");
}

TEST_F(StoreOrdersTest, AWorkerThatEndsWithoutAWordFailsItsTaskAtOnce) {
    const Claim claim = Running();
    ASSERT_TRUE(m_store->Unsaid(claim.token, "it ended in status 3"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Failed);
    EXPECT_EQ(Task(claim.task).reason, "it ended in status 3");
    EXPECT_EQ(m_store->Details(claim.task).value()->attempts[0].state, AttemptState::Failed);
    EXPECT_EQ(Events(claim.task, "unsaid").size(), 1u);
}

TEST_F(StoreOrdersTest, AQueuedTaskIsSuspendedAndResumed) {
    const auto first = Submit();
    const auto second = Submit();
    auto outcome = m_store->Suspend(first, "api").value();
    EXPECT_EQ(outcome.result, "suspended");
    EXPECT_TRUE(outcome.changed);
    outcome = m_store->Suspend(first, "api").value();
    EXPECT_EQ(outcome.result, "already-suspended");
    EXPECT_FALSE(outcome.changed);
    EXPECT_EQ(Claimed().task, second);
    EXPECT_FALSE(TryClaim());
    EXPECT_EQ(m_store->Resume(first, "api").value().result, "resumed");
    EXPECT_EQ(m_store->Resume(first, "api").value().result, "not-suspended");
    EXPECT_EQ(Events(first, "asked").size(), 2u);
    EXPECT_EQ(Claimed().task, first);
}

TEST_F(StoreOrdersTest, AWorkersAnswersPauseAndContinueItsTask) {
    const Claim claim = Running();
    EXPECT_TRUE(m_store->Suspend(claim.task, "api").value().send);
    EXPECT_EQ(Task(claim.task).state, TaskState::Running);
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_SUSPEND_REPLY_ID, "{}"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Paused);
    EXPECT_EQ(m_store->Suspend(claim.task, "api").value().result, "already-suspended");
    EXPECT_TRUE(m_store->Resume(claim.task, "api").value().send);
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_RESUME_REPLY_ID, "{}"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Running);
    // Answers to other orders, and one after a cancel, move nothing.
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_UPDATE_REPLY_ID, "{}"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Running);
    ASSERT_TRUE(m_store->Cancel(claim.task, "api", ""));
    ASSERT_TRUE(m_store->Reply(claim.token, TCP_TASK_SUSPEND_REPLY_ID, "{}"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Finishing);
}

TEST_F(StoreOrdersTest, FinishIsForTheRunning) {
    const auto queued = Submit();
    auto outcome = m_store->FinishTask(queued, "api").value();
    EXPECT_TRUE(outcome.refused);
    EXPECT_EQ(outcome.message, "t1 is queued: finish is for a task that is running or paused");
    ASSERT_TRUE(m_store->Cancel(queued, "api", ""));
    const Claim claim = Running();
    outcome = m_store->FinishTask(claim.task, "api").value();
    EXPECT_EQ(outcome.result, "requested");
    EXPECT_TRUE(outcome.send);
    EXPECT_EQ(outcome.state, TaskState::Finishing);
    outcome = m_store->FinishTask(claim.task, "api").value();
    EXPECT_FALSE(outcome.changed);
    EXPECT_FALSE(outcome.send);
    // A cancel may follow, once.
    EXPECT_TRUE(m_store->Cancel(claim.task, "api", "").value().send);
    EXPECT_FALSE(m_store->Cancel(claim.task, "api", "").value().send);
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskFinished)));
    EXPECT_EQ(Task(claim.task).state, TaskState::Finished);
    EXPECT_EQ(m_store->FinishTask(claim.task, "api").value().result, "already-ended");
}

TEST_F(StoreOrdersTest, ANewTextIsForThisAttemptAndLaterOnes) {
    const Claim claim = Running();
    EXPECT_TRUE(m_store->Update(claim.task, "api", "<B/>").value().send);
    const auto again = m_store->Update(claim.task, "api", "<B/>").value();
    EXPECT_EQ(again.result, "unchanged");
    EXPECT_FALSE(again.send);
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    EXPECT_EQ(m_store->Update(claim.task, "api", "<C/>").value().result, "updated");
    m_now += 10 * kSecond_us;
    EXPECT_EQ(Claimed().text, "<C/>");
    EXPECT_TRUE(m_store->Update(claim.task, "api", "<D/>").value().refused);
}

TEST_F(StoreOrdersTest, ANewTextThatItsWorkerMustNotSeeIsForLaterAttemptsAlone) {
    const Claim claim = Running();
    const auto outcome = m_store->Update(claim.task, "api", "<B/>", false).value();
    EXPECT_EQ(outcome.result, "kept");
    EXPECT_TRUE(outcome.changed);
    EXPECT_FALSE(outcome.send);
    EXPECT_FALSE(m_store->OpenAttempts().value().at(0).textAsked);
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    m_now += 10 * kSecond_us;
    EXPECT_EQ(Claimed().text, "<B/>");
}

TEST_F(StoreOrdersTest, RetryQueuesWhatEndedBadly) {
    const Claim claim = Running();
    EXPECT_EQ(m_store->Retry(claim.task, "api").value().result, "not-ended");
    ASSERT_TRUE(m_store->Cancel(claim.task, "api", ""));
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskCancelled)));
    const auto outcome = m_store->Retry(claim.task, "api").value();
    EXPECT_EQ(outcome.result, "queued");
    EXPECT_EQ(outcome.state, TaskState::Queued);
    EXPECT_FALSE(m_store->Retry(claim.task, "api").value().changed);
    EXPECT_EQ(Task(claim.task).cancelRequested_us, std::nullopt);
    EXPECT_EQ(Task(claim.task).finished_us, std::nullopt);
    EXPECT_EQ(Task(claim.task).status, std::nullopt);
    // Its attempts are counted anew; while its earlier worker is still there it waits.
    EXPECT_FALSE(m_store->ClaimNext({}, {claim.task}).value());
    const Claim second = Claimed();
    EXPECT_EQ(second.number, 2);
    ASSERT_TRUE(m_store->Lost(second.token, "gone"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Queued);
    m_now += 10 * kSecond_us;
    ASSERT_TRUE(m_store->Finish(Claimed().token, Final(kTaskFinished)));
    const auto refused = m_store->Retry(claim.task, "api").value();
    EXPECT_TRUE(refused.refused);
    EXPECT_EQ(refused.message, "t1 is finished: retry is for a task that is failed, cancelled or lost");
}

TEST_F(StoreOrdersTest, AWorkerStartedByHandIsNeverRepeated) {
    const Claim claim = m_store->AdoptExternal("process 5").value();
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    EXPECT_EQ(Task(claim.task).state, TaskState::Lost);
    const auto refused = m_store->Retry(claim.task, "api").value();
    EXPECT_TRUE(refused.refused);
    EXPECT_EQ(refused.state, TaskState::Lost);
    EXPECT_FALSE(TryClaim());
}

TEST_F(StoreOrdersTest, DeleteTakesATaskAwayWithEverything) {
    const Claim claim = Running();
    std::vector<std::string> outputs;
    EXPECT_TRUE(m_store->Delete(claim.task, outputs).value().refused);
    ASSERT_TRUE(m_store->WorkerStarted(claim.token, 1, "/out"));
    FinalStatus final = Final(kTaskFinished);
    final.result = "{}";
    ASSERT_TRUE(m_store->Finish(claim.token, final));
    const auto other = Submit();
    EXPECT_EQ(m_store->Delete(claim.task, outputs).value().result, "deleted");
    EXPECT_EQ(outputs, std::vector<std::string>{"/out"});
    EXPECT_FALSE(m_store->Task(claim.task).value());
    EXPECT_TRUE(m_store->Events(claim.task, 0, 10).value().empty());
    EXPECT_TRUE(m_store->WasDeleted(claim.task).value());
    EXPECT_FALSE(m_store->WasDeleted(other).value());
    EXPECT_FALSE(m_store->WasDeleted(99).value());
    EXPECT_EQ(m_store->Tasks({}).value().size(), 1u);
    // Its number is not given again.
    EXPECT_EQ(Submit(), other + 1);
}

TEST_F(StoreOrdersTest, ATypeThatFailsAgainAndAgainIsStoppedAndSaysWhy) {
    m_rules.standard.attempts = 1;
    m_rules.standard.stopAfter = 3;
    m_rules.standard.stopFor = 60s;
    m_store->SetRetryRules(m_rules);
    const auto lose = [&] { ASSERT_TRUE(m_store->Lost(Running().token, "worker ended by signal 11")); };
    lose();
    lose();
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskFinished)));  // counts from 0 again
    lose();
    lose();
    // The task's own errors and cancels do not count.
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskError, 5)));
    EXPECT_TRUE(m_store->Stops().value().empty());
    lose();
    auto stops = m_store->Stops().value();
    ASSERT_EQ(stops.size(), 1u);
    EXPECT_EQ(stops[0].type, RQ_TASK_MD5_COMPUTE);
    EXPECT_EQ(stops[0].failures, 3);
    EXPECT_EQ(stops[0].until_us, m_now + 60 * kSecond_us);
    EXPECT_EQ(stops[0].reason,
              "3 attempts of type mc failed in a row, the last of them t7: worker ended by signal 11");
    EXPECT_EQ(Events(7, "type-stopped").size(), 1u);
    // A trial that fails stops it for as long again, from then on.
    m_now += 60 * kSecond_us;
    lose();
    stops = m_store->Stops().value();
    EXPECT_EQ(stops[0].until_us, m_now + 60 * kSecond_us);
    EXPECT_EQ(stops[0].since_us, m_now - 60 * kSecond_us);
    // So does one that fails with an error of its own; a cancelled one says nothing.
    m_now += 60 * kSecond_us;
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskError, 5)));
    stops = m_store->Stops().value();
    EXPECT_EQ(stops[0].until_us, m_now + 60 * kSecond_us);
    EXPECT_EQ(stops[0].failures, 5);
    // Of one that was not made as a trial such an error is its own affair.
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskError, 5)));
    EXPECT_EQ(m_store->Stops().value()[0].failures, 5);
    m_now += 60 * kSecond_us;
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskCancelled)));
    EXPECT_EQ(m_store->Stops().value()[0].until_us, m_now);
    // One that finishes releases it.
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskFinished)));
    EXPECT_TRUE(m_store->Stops().value().empty());
}

TEST_F(StoreOrdersTest, AStopByOrderStaysUntilTheOrderToGoOn) {
    EXPECT_TRUE(m_store->Stop(kEveryType, "drained").value());
    EXPECT_FALSE(m_store->Stop(kEveryType, "drained").value());
    EXPECT_TRUE(m_store->Stop(RQ_TASK_MD5_COMPUTE, "by hand").value());
    ASSERT_TRUE(m_store->Finish(Running().token, Final(kTaskFinished)));
    auto stops = m_store->Stops().value();
    ASSERT_EQ(stops.size(), 2u);
    EXPECT_EQ(stops[0].type, kEveryType);
    EXPECT_EQ(stops[0].until_us, std::nullopt);
    EXPECT_EQ(stops[1].reason, "by hand");
    EXPECT_TRUE(m_store->Unstop(kEveryType).value());
    EXPECT_FALSE(m_store->Unstop(kEveryType).value());
    EXPECT_TRUE(m_store->Unstop(RQ_TASK_MD5_COMPUTE).value());
    EXPECT_TRUE(m_store->Stops().value().empty());
}

}  // namespace
}  // namespace rq::engine

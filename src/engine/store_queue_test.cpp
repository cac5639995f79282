// Turns, times, deadlines and clients' keys in the store, on a clock that the test moves.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/store.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

constexpr std::int64_t kSecond_us = 1'000'000;

class StoreQueueTest : public testing::Test {
  protected:
    StoreQueueTest() {
        m_store = Store::Open(m_folder.Utf8("store.db"), [this] { return m_now; }).value();
    }
    static NewTask Task(std::int32_t priority = kStandardPriority) {
        NewTask task;
        task.type = RQ_TASK_MD5_COMPUTE;
        task.text = "<T/>";
        task.priority = priority;
        return task;
    }
    std::string Submit(const NewTask& task) { return m_store->Submit(task).value().id; }
    std::string Claimed() {
        const auto claim = m_store->ClaimNext().value();
        return claim ? claim->id : "";
    }
    TaskRow Row(std::int64_t key) { return m_store->Task(key).value().value(); }
    std::vector<std::string> Kinds(std::int64_t key) {
        std::vector<std::string> kinds;
        for (const auto& event : m_store->Events(key, 0, 1000).value()) kinds.push_back(event.kind);
        return kinds;
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1000 * kSecond_us;
    std::unique_ptr<Store> m_store;
};

TEST_F(StoreQueueTest, HigherPrioritiesGoFirstAndWithinOneTheOldest) {
    const auto low = Submit(Task(10)), a = Submit(Task()), b = Submit(Task()), high = Submit(Task(100));
    EXPECT_EQ(Claimed(), high);
    EXPECT_EQ(Claimed(), a);
    EXPECT_EQ(Claimed(), b);
    EXPECT_EQ(Claimed(), low);
    EXPECT_EQ(Claimed(), "");
}

TEST_F(StoreQueueTest, APriorityIsChangedInTheQueue) {
    const auto first = Submit(Task()), second = Submit(Task());
    const auto outcome = m_store->SetPriority(2, "api", 51).value();
    EXPECT_TRUE(outcome.changed);
    EXPECT_EQ(outcome.result, "changed");
    EXPECT_FALSE(m_store->SetPriority(2, "api", 51).value().changed);
    EXPECT_EQ(Claimed(), second);
    EXPECT_EQ(Claimed(), first);
    ASSERT_TRUE(m_store->Cancel(1, "api", ""));
}

TEST_F(StoreQueueTest, ATaskWaitsForItsTime) {
    NewTask task = Task(100);
    task.notBefore_us = m_now + 5 * kSecond_us;
    const auto later = Submit(task), other = Submit(Task());
    EXPECT_EQ(m_store->NextDue().value(), m_now + 5 * kSecond_us);
    EXPECT_EQ(Claimed(), other);
    EXPECT_EQ(Claimed(), "");
    m_now += 5 * kSecond_us;
    EXPECT_EQ(Claimed(), later);
}

TEST_F(StoreQueueTest, AQueuedTaskFailsAtItsDeadlineWithoutAnAttempt) {
    NewTask task = Task();
    task.deadline_us = m_now + kSecond_us;
    Submit(task);
    EXPECT_TRUE(m_store->PassDeadlines().value().empty());
    EXPECT_EQ(Row(1).state, TaskState::Queued);
    EXPECT_EQ(m_store->NextDue().value(), m_now + kSecond_us);
    m_now += kSecond_us;
    EXPECT_TRUE(m_store->PassDeadlines().value().empty());
    EXPECT_EQ(Row(1).state, TaskState::Failed);
    EXPECT_EQ(Row(1).attempts, 0);
    EXPECT_EQ(
        Row(1).reason,
        "its deadline 1970-01-01T00:16:41.000000Z passed before it could be started; no attempt was made");
    EXPECT_EQ(Claimed(), "");
    EXPECT_EQ(m_store->NextDue().value(), std::nullopt);
    EXPECT_EQ(Kinds(1), (std::vector<std::string>{"submitted", "state", "deadline", "state"}));

    const auto retried = m_store->Retry(1, "api").value();
    EXPECT_NE(retried.message.find("without its deadline"), std::string::npos) << retried.message;
    EXPECT_TRUE(m_store->PassDeadlines().value().empty());
    EXPECT_EQ(Row(1).state, TaskState::Queued);
}

TEST_F(StoreQueueTest, OfATaskWithAWorkerTheDeadlineIsNotedOnce) {
    NewTask task = Task();
    task.deadline_us = m_now + kSecond_us;
    Submit(task);
    task.cancelAtDeadline = true;
    Submit(task);
    Claimed();
    Claimed();
    m_now += kSecond_us;
    EXPECT_EQ(m_store->PassDeadlines().value(), (std::vector<std::int64_t>{2}));
    EXPECT_EQ(Row(1).state, TaskState::Starting);
    EXPECT_EQ(m_store->PassDeadlines().value(), (std::vector<std::int64_t>{2})) << "until it is told to stop";
    ASSERT_TRUE(m_store->Cancel(2, "deadline", ""));
    EXPECT_TRUE(m_store->PassDeadlines().value().empty());
    const auto kinds = Kinds(1);
    EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "deadline"), 1);
}

TEST_F(StoreQueueTest, AnAttemptThatWouldComeAfterTheDeadlineIsNotMade) {
    RetryRules rules = RetryRules::Standard();
    m_store->SetRetryRules(rules);
    NewTask task = Task();
    task.deadline_us = m_now + kSecond_us;
    Submit(task);
    const auto claim = m_store->ClaimNext().value().value();
    ASSERT_TRUE(m_store->Lost(claim.token, "it fell over"));
    EXPECT_EQ(Row(1).state, TaskState::Queued);
    m_now += kSecond_us;
    ASSERT_TRUE(m_store->PassDeadlines());
    EXPECT_EQ(Row(1).state, TaskState::Failed);
    EXPECT_NE(Row(1).reason->find("before another attempt; the last one: it fell over"), std::string::npos)
        << *Row(1).reason;
}

TEST_F(StoreQueueTest, AClientsKeyIsOneTask) {
    NewTask task = Task();
    task.key = "k";
    NewTask other = task;
    other.text = "<U/>";
    NewTask otherType = task;
    otherType.type = RQ_TASK_MD5_VERIFY;
    const auto all = m_store->SubmitAll({task, task, other, otherType}).value();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].result, SubmitResult::New);
    EXPECT_EQ(all[1].result, SubmitResult::Repeated);
    EXPECT_EQ(all[2].result, SubmitResult::KeyTaken);
    EXPECT_EQ(all[3].result, SubmitResult::KeyTaken);
    for (const auto& one : all) EXPECT_EQ(one.row.id, "t1");
    EXPECT_EQ(m_store->Tasks({}).value().size(), 1u);

    // What was submitted counts, whatever the text is now.
    ASSERT_TRUE(m_store->Update(1, "api", "<V/>").value().changed);
    ASSERT_TRUE(m_store->Update(1, "api", "<W/>").value().changed);
    EXPECT_EQ(m_store->SubmitAll({task}).value()[0].result, SubmitResult::Repeated);

    ASSERT_TRUE(m_store->Cancel(1, "api", ""));
    EXPECT_EQ(m_store->SubmitAll({task}).value()[0].row.state, TaskState::Cancelled)
        << "also when it has ended";
    std::vector<std::string> outputs;
    ASSERT_TRUE(m_store->Delete(1, outputs));
    EXPECT_EQ(m_store->SubmitAll({other}).value()[0].result, SubmitResult::New) << "a key goes with its task";
}

TEST_F(StoreQueueTest, WhatATaskAsksForIsKept) {
    NewTask task = Task(7);
    task.demand = {512, 3, {"in", "out"}};
    task.key = "k";
    task.deadline_us = m_now + 1;
    task.cancelAtDeadline = true;
    Submit(task);
    const TaskRow row = Row(1);
    EXPECT_EQ(row.priority, 7);
    EXPECT_EQ(row.demand, task.demand);
    EXPECT_EQ(row.clientKey, "k");
    EXPECT_EQ(row.deadline_us, m_now + 1);
    EXPECT_TRUE(row.cancelAtDeadline);
    const auto refused = m_store->ClaimNext([&](const Candidate& candidate) {
        EXPECT_EQ(candidate.demand, task.demand);
        return false;
    });
    EXPECT_FALSE(refused.value());
}

}  // namespace
}  // namespace rq::engine

#include "engine/explain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "engine/json.h"
#include "engine/store.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr std::int64_t kSecond_us = 1'000'000;

// On what a store really has of a task, on a clock that the test moves.
class ExplainTest : public testing::Test {
  protected:
    ExplainTest() {
        m_store = Store::Open(m_folder.Utf8("store.db"), [this] { return m_now; }).value();
        m_store->SetRetryRules(RetryRules::Standard());
    }
    Claim Running(std::int32_t type = RQ_TASK_MD5_COMPUTE) {
        NewTask task;
        task.type = type;
        task.text = "<T/>";
        EXPECT_TRUE(m_store->Submit(task));
        const Claim claim = m_store->ClaimNext().value().value();
        EXPECT_TRUE(m_store->Connected(claim.token, 7, 42, "1"));
        EXPECT_TRUE(m_store->Status(claim.token, kTaskRunning));
        return claim;
    }
    ExplainFacts Facts(std::int64_t task) {
        ExplainFacts facts;
        facts.now_us = m_now;
        facts.details = m_store->Details(task).value().value();
        facts.milestones = m_store->Milestones(task, 100).value();
        facts.progress = m_store->ProgressOf(task, 100).value();
        facts.pace = m_store->PaceOf(facts.details.task.type).value();
        return facts;
    }
    static std::string Rules(const json& list) {
        std::string rules;
        for (const auto& one : list) rules += (rules.empty() ? "" : " ") + one["rule"].get<std::string>();
        return rules;
    }
    static FinalStatus Final(std::uint32_t status, std::uint32_t error = 0) {
        FinalStatus final;
        final.status = status;
        final.errorCode = error;
        if (error != 0) final.errorText = "ERR_DISK_FULL";
        return final;
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1000 * kSecond_us;
    std::unique_ptr<Store> m_store;
};

TEST_F(ExplainTest, AQueuedTaskHasEveryRuleInOrder) {
    NewTask task;
    task.text = "<T/>";
    ASSERT_TRUE(m_store->Submit(task));
    ASSERT_TRUE(m_store->Submit(task));
    ExplainFacts facts = Facts(2);
    facts.ahead = m_store->Ahead(facts.details.task).value();
    EXPECT_EQ(ExplainJson(facts)["summary"], "t2 is queued behind 1 others");
    EXPECT_EQ(ExplainJson(facts)["ahead"], 1);
    facts.waits = {{"volume", "volume m is away"}, {"workers", "all", m_now, 4, 4, "workers"}};
    const json answer = ExplainJson(facts);
    EXPECT_EQ(answer["summary"], "t2 is queued and waits: volume m is away");
    EXPECT_EQ(Rules(answer["waits"]), "volume workers");
    EXPECT_EQ(answer["waits"][1]["limit"], 4);
    EXPECT_EQ(answer["waits"][1]["until"], "1970-01-01T00:16:40.000000Z");
    EXPECT_TRUE(answer["waits"][0]["limit"].is_null());
    EXPECT_TRUE(answer["pace"].is_null());
}

TEST_F(ExplainTest, AnUrgentTaskHasNobodyAhead) {
    NewTask task;
    task.text = "<T/>";
    ASSERT_TRUE(m_store->Submit(task));
    task.priority = 51;
    ASSERT_TRUE(m_store->Submit(task));
    EXPECT_EQ(m_store->Ahead(Facts(2).details.task).value(), 0);
    EXPECT_EQ(m_store->Ahead(Facts(1).details.task).value(), 1);
}

TEST_F(ExplainTest, ALostTaskSaysByWhichRulesItWasEndedAndRepeated) {
    const Claim claim = Running();
    ASSERT_TRUE(
        m_store->Note(claim.token, "killed", VerdictEventJson("no-heartbeat", "nothing came for 120 s")));
    ASSERT_TRUE(m_store->Lost(claim.token, "nothing came for 120 s (worker ended by signal 9)"));
    const json answer = ExplainJson(Facts(1));
    EXPECT_EQ(Rules(answer["because"]), "no-heartbeat lost repeat");
    EXPECT_THAT(answer["because"][0]["text"],
                HasSubstr("attempt 1: nothing came for 120 s; the limit is the heartbeat"));
    EXPECT_THAT(answer["because"][2]["text"], HasSubstr("repeated: "));
    EXPECT_EQ(answer["attempts"][0]["state"], "lost");
    EXPECT_GE(answer["history"].size(), 8u);
    EXPECT_EQ(answer["history"][0]["text"], "submitted");
    EXPECT_EQ(answer["history"][0]["time"], "1970-01-01T00:16:40.000000Z");
}

TEST_F(ExplainTest, AFailedTransferSaysWhyItIsNotRepeated) {
    const Claim claim = Running(RQ_TASK_TRANSFER);
    ASSERT_TRUE(m_store->Lost(claim.token, "gone"));
    const json answer = ExplainJson(Facts(1));
    EXPECT_EQ(Rules(answer["because"]), "lost no-repeat");
    EXPECT_EQ(answer["state"], "lost");
    EXPECT_THAT(answer["summary"], HasSubstr("t1 is lost after 0 s: gone"));
}

TEST_F(ExplainTest, AFailureHasItsCodes) {
    const Claim claim = Running();
    m_now += 5 * kSecond_us;
    ASSERT_TRUE(m_store->Finish(claim.token, Final(kTaskError, 6)));
    const json answer = ExplainJson(Facts(1));
    EXPECT_EQ(answer["because"][0]["text"], "attempt 1: its worker reported error, code 6 ERR_DISK_FULL");
    EXPECT_THAT(answer["summary"], HasSubstr("failed after 5 s"));
}

TEST_F(ExplainTest, ATaskThatItsWorkerClosedNamesTheSetting) {
    const Claim claim = Running();
    FinalStatus final = Final(kTaskError, 6);
    final.detailErrorCode = 0x80000001;
    final.stalled = true;
    ASSERT_TRUE(m_store->Finish(claim.token, final));
    EXPECT_THAT(ExplainJson(Facts(1))["because"][0]["text"].get<std::string>(),
                HasSubstr("ProgressPatrolTimeout"));
    // A plug-in may report the same codes.
    final.stalled = false;
    EXPECT_EQ(SentenceOf([&] {
                  EventRow event;
                  event.kind = "final";
                  event.json = FinalEventJson(final);
                  return event;
              }())
                  .find("ProgressPatrolTimeout"),
              std::string::npos);
}

TEST_F(ExplainTest, WhatNoEngineSawIsSaidInWords) {
    const auto sentence = [](const char* kind, const char* data) {
        EventRow event;
        event.kind = kind;
        event.json = data;
        return SentenceOf(event);
    };
    EXPECT_EQ(sentence("worker-exited", "{\"unknown\":true}"),
              "the worker ended while no engine could see how");
    EXPECT_EQ(sentence("worker-exited", "{\"code\":0}"), "the worker ended with exit code 0");
    EXPECT_EQ(sentence("worker-exited", "{\"signal\":9}"), "the worker ended by signal 9");
    EXPECT_EQ(sentence("interrupted", "{\"reason\":\"why\"}"), "the session was interrupted: why");
    EXPECT_EQ(sentence("resumed", "{\"pid\":7}"), "worker 7 went on with its session");
}

TEST_F(ExplainTest, ASlowTaskIsComparedWithOthersOfItsType) {
    for (int i = 0; i < 3; ++i) {
        const Claim done = Running();
        ASSERT_TRUE(m_store->Progress(done.token, {50, 100.0, 0}));
        ASSERT_TRUE(m_store->Finish(done.token, Final(kTaskFinished)));
    }
    const Claim other = Running(RQ_TASK_TRANSCODE);
    ASSERT_TRUE(m_store->Progress(other.token, {50, 1.0, 0}));
    ASSERT_TRUE(m_store->Finish(other.token, Final(kTaskFinished)));
    const Claim slow = Running();
    ASSERT_TRUE(m_store->Progress(slow.token, {10, 40.0, 0}));
    ExplainFacts facts = Facts(slow.task);
    facts.workers = 3;
    facts.cores = 2;
    json answer = ExplainJson(facts);
    EXPECT_EQ(Rules(answer["pace"]["findings"]), "slow shared-cores");
    EXPECT_THAT(answer["pace"]["findings"][0]["text"], HasSubstr("latest 3 finished tasks of type mc"));
    EXPECT_THAT(answer["pace"]["findings"][0]["text"], HasSubstr("40.00"));
    EXPECT_EQ(answer["pace"]["type_speed"], 100.0);

    ASSERT_TRUE(m_store->Progress(slow.token, {11, 60.0, 0}));
    m_now += 61 * kSecond_us;
    facts = Facts(slow.task);
    answer = ExplainJson(facts);
    EXPECT_EQ(Rules(answer["pace"]["findings"]), "speed stalls");
    ASSERT_TRUE(m_store->Progress(slow.token, {12, 60.0, 0}));
    m_now += kSecond_us;
    answer = ExplainJson(Facts(slow.task));
    EXPECT_EQ(Rules(answer["pace"]["findings"]), "speed stalled");
    EXPECT_EQ(answer["pace"]["longest_pause_s"], 61);
}

TEST_F(ExplainTest, ADeadlineThatPassedIsTold) {
    NewTask task;
    task.text = "<T/>";
    task.deadline_us = m_now + kSecond_us;
    ASSERT_TRUE(m_store->Submit(task));
    m_now += kSecond_us;
    ASSERT_TRUE(m_store->PassDeadlines());
    const json answer = ExplainJson(Facts(1));
    EXPECT_EQ(Rules(answer["because"]), "deadline");
    EXPECT_THAT(answer["summary"], HasSubstr("no attempt was made"));
}

TEST_F(ExplainTest, WithoutEventsTheAttemptsRemain) {
    const Claim claim = Running();
    ASSERT_TRUE(m_store->Unsaid(claim.token, "the worker ended in good order"));
    ASSERT_TRUE(m_store->DropEvents(m_now + 1, 0, 1000));
    const json answer = ExplainJson(Facts(1));
    EXPECT_TRUE(answer["history"].empty());
    EXPECT_EQ(answer["history_is_cut"], true);
    EXPECT_EQ(answer["attempts"][0]["reason"], "the worker ended in good order");
}

}  // namespace
}  // namespace rq::engine

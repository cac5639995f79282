// Priorities, times, and the node's limits, in the whole engine with real worker processes.
#include "engine/engine_fixture.h"

namespace rq::engine {
namespace {

class EngineLimitsTest : public EngineTest {
  protected:
    std::string SubmitWith(const json& fields, const std::string& script = kQuick) {
        json body = {{"type", "mc"}, {"text", script}};
        if (fields.is_object()) body.update(fields);
        const json answer = Ask("POST", "/api/v1/tasks", body);
        EXPECT_TRUE(answer.contains("id")) << answer;
        return answer.value("id", "");
    }
    json Fault(const json& fields) {
        json body = {{"type", "mc"}, {"text", kQuick}};
        if (fields.is_object()) body.update(fields);
        return Ask("POST", "/api/v1/tasks", body)["error"];
    }
    std::string Rules(const std::string& id) {
        std::string rules;
        const json task = Show(id);
        for (const auto& reason : task["waits"])
            rules += (rules.empty() ? "" : " ") + std::string(reason["rule"]);
        return rules;
    }
    // Until the task waits for exactly these.
    void AwaitRules(const std::string& id, const std::string& rules) {
        EXPECT_TRUE(kit::WaitUntil([&] { return Rules(id) == rules; })) << Rules(id);
    }

    // One runs until it is cancelled, one ends at once.
    static constexpr const char* kLong = "connect\nstatus 3\nawait 4002\nfinal 5\nbye\n";
    static constexpr const char* kQuick = "connect\nstatus 3\nfinal 0\nbye\n";
};

TEST_F(EngineLimitsTest, AVolumeThatIsAwayHoldsItsTasksWithoutAnAttempt) {
    m_settings.node.volumeInterval = 20ms;
    m_settings.node.volumes["media"] = {m_folder.Utf8("media"), 0, ""};
    Start();
    const auto held = SubmitWith({{"volumes", {"media"}}});
    const auto other = SubmitWith({});
    AwaitState(other, "finished");
    AwaitRules(held, "volume");
    const json task = Show(held);
    EXPECT_EQ(task["attempts"], 0);
    EXPECT_NE(task["waits"][0]["text"].get<std::string>().find("media is away"), std::string::npos);
    const json why = Ask("GET", "/api/v1/tasks/" + held + "/explain");
    EXPECT_EQ(why["waits"][0]["rule"], "volume");
    EXPECT_NE(why["summary"].get<std::string>().find("waits: volume media is away"), std::string::npos);
    const auto metrics = m_http->Send("GET", "/metrics", "");
    ASSERT_TRUE(metrics);
    EXPECT_NE(metrics->body.find("rq_tasks_queued{rule=\"volume\",type=\"mc\"} 1"), std::string::npos);
    EXPECT_NE(metrics->body.find("rq_volume_up{volume=\"media\"} 0"), std::string::npos);

    std::filesystem::create_directory(m_folder.Path() / "media");
    AwaitState(held, "finished");
    EXPECT_EQ(Show(held)["attempts"], 1);
    EXPECT_TRUE(Ask("GET", "/api/v1/health")["node"]["volumes"][0]["away"].is_null());
}

TEST_F(EngineLimitsTest, AVolumeBelowItsFloorHoldsItsTasks) {
    m_settings.node.volumes["media"] = {m_folder.Utf8(""), std::uint64_t{1} << 40, ""};
    Start();
    const auto id = SubmitWith({{"volumes", {m_folder.Utf8("film.mxf")}}});
    AwaitRules(id, "volume-space");
    const json reason = Show(id)["waits"][0];
    EXPECT_EQ(reason["limit"], std::int64_t{1} << 40);
    EXPECT_GT(reason["limit"], reason["present"]);
    EXPECT_EQ(reason["unit"], "MiB");
    EXPECT_EQ(Show(id)["volumes"], json({"media"}));
}

TEST_F(EngineLimitsTest, ATypeHasWorkersOfItsOwn) {
    m_settings.maxWorkers = 4;
    m_settings.node.typeWorkers[3] = 1;
    Start();
    const auto first = SubmitWith({}, kLong), second = SubmitWith({});
    AwaitState(first, "running");
    EXPECT_EQ(Rules(second), "type-workers");
    Order(first, "cancel");
    AwaitState(second, "finished");
}

TEST_F(EngineLimitsTest, MemoryIsForThoseThatFit) {
    m_settings.maxWorkers = 4;
    m_settings.node.memory_MiB = 1000;
    m_settings.node.passFor = 0ms;
    Start();
    const auto first = SubmitWith({{"memory_mib", 600}}, kLong);
    AwaitState(first, "running");
    EXPECT_EQ(Fault({{"memory_mib", 1001}})["message"],
              "memory_mib: 1001 MiB are more than the node has, 1000; such a task could never start here");
    const auto large = SubmitWith({{"memory_mib", 500}});
    AwaitRules(large, "memory");
    // Its time to be passed is over at once: what declares memory waits behind it, what does not goes on.
    const auto small = SubmitWith({{"memory_mib", 100}});
    AwaitState(SubmitWith({}), "finished");
    AwaitRules(small, "reserved");
    const auto urgent = SubmitWith({{"memory_mib", 100}, {"priority", 60}});
    EXPECT_EQ(Ended(urgent)["state"], "finished");
    EXPECT_EQ(Ask("GET", "/api/v1/health")["node"]["memory_mib"], (json{{"declared", 600}, {"limit", 1000}}));
    Order(first, "cancel");
    AwaitState(large, "finished");
    AwaitState(small, "finished");
}

TEST_F(EngineLimitsTest, ADeadlineCancelsAWorkerWhenThatWasAskedFor) {
    Start();
    // Time enough for both to run before it has passed.
    const auto cancelled = SubmitWith({{"deadline", "+3s"}, {"deadline_action", "cancel"}}, kLong);
    const auto kept = SubmitWith({{"deadline", "+3s"}}, kLong);
    const json task = Ended(cancelled);
    EXPECT_EQ(task["state"], "cancelled");
    const auto events = EventsUntil(cancelled, "cancel-requested");
    EXPECT_TRUE(std::any_of(events.begin(), events.end(), [](const json& event) {
        return event["kind"] == "cancel-requested" && event["data"]["by"] == "deadline";
    }));
    EventsUntil(kept, "deadline");
    EXPECT_EQ(Show(kept)["state"], "running");
    Order(kept, "cancel");
    EXPECT_EQ(Count(EventsUntil(kept, "final"), "deadline"), 1);
}

TEST_F(EngineLimitsTest, ATaskInTheQueueFailsAtItsDeadline) {
    m_settings.maxWorkers = 1;
    Start();
    const auto first = SubmitWith({}, kLong);
    const auto late = SubmitWith({{"deadline", "+1s"}});
    AwaitState(late, "failed");
    EXPECT_EQ(Show(late)["attempts"], 0);
    Order(first, "cancel");
}

TEST_F(EngineLimitsTest, ATimeAndAPriorityDecideWhoIsNext) {
    m_settings.maxWorkers = 1;
    Start();
    const auto first = SubmitWith({}, kLong);
    AwaitState(first, "running");
    const auto later = SubmitWith({{"not_before", "+1s"}, {"priority", 100}});
    const auto low = SubmitWith({{"priority", 1}}), high = SubmitWith({{"priority", 2}});
    EXPECT_EQ(Rules(later), "not-before workers");
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/" + low + "/explain")["ahead"], 2);
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/" + low + "/priority", {{"priority", 3}})["result"], "changed");
    Order(first, "cancel");
    AwaitState(high, "finished");
    AwaitState(later, "finished");
    EXPECT_LT(Show(low)["started"].get<std::string>(), Show(high)["started"].get<std::string>());
}

TEST_F(EngineLimitsTest, WhatNamesNoVolumeIsRefused) {
    m_settings.node.volumes["media"] = {m_folder.Utf8("media"), 0, ""};
    Start();
    for (const auto& volume : {std::string("medai"), m_folder.Utf8("other/x"), m_folder.Utf8("media/../x")}) {
        const json fault = Fault({{"volumes", {volume}}});
        EXPECT_EQ(fault["code"], "bad-field") << fault;
        EXPECT_EQ(fault["field"], "volumes");
    }
    EXPECT_TRUE(Ask("GET", "/api/v1/tasks")["tasks"].empty());
}

}  // namespace
}  // namespace rq::engine

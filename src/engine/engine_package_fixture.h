// What the tests of package workers in the whole engine share. All their tasks have the same task ID.
#pragma once

#include "engine/engine_fixture.h"

namespace rq::engine {

class PackageTest : public EngineTest {
  protected:
    PackageTest() {
        m_settings.maxWorkers = 1;
        m_settings.packageIdle = 30s;
    }
    // Does the lines, as the first task of its worker and as a later one.
    std::string SubmitPackage(const std::string& lines, const json& fields = json::object()) {
        const std::string text = "first connect\nfirst notice job\n" + lines + "first serve\nfirst bye\n";
        json body = {{"type", 14}, {"text", text}};
        body.update(fields);
        return Ask("POST", "/api/v1/tasks", body).value("id", "");
    }
    // The first rule that holds it.
    std::string RuleOf(const std::string& id) {
        const json waits = Show(id)["waits"];
        return waits.empty() ? "" : waits[0].value("rule", "");
    }
    json ProcessOf(const std::string& id) { return Show(id)["attempt_list"][0]["pid"]; }
    std::string StateOf(const std::string& id) { return Show(id)["state"]; }
    // The first runs and waits for the order to go on, the second waits in the worker's list.
    void SubmitTwo(const std::string& first, const std::string& second) {
        m_first = SubmitPackage("status 3\n" + first);
        m_second = SubmitPackage(second);
        AwaitState(m_first, "running");
        EventsUntil(m_second, "added");
    }
    // The second has been put back, and done by a worker of its own.
    void ExpectDoneAnew() {
        AwaitState(m_second, "finished");
        const json task = Show(m_second);
        EXPECT_EQ(task["attempts"], 2);
        EXPECT_EQ(task["attempt_list"][0]["state"], "cancelled");
        EXPECT_EQ(task["attempt_list"][0]["reason"].get<std::string>().find("not begun: "), 0u);
        EXPECT_TRUE(task["attempt_list"][1]["worker_of"].is_null());
        EXPECT_NE(task["attempt_list"][1]["pid"], task["attempt_list"][0]["pid"]);
    }
    // The worker that had it was lost with it, and another one has done it.
    void ExpectLostOnce(const std::string& id) {
        AwaitState(id, "finished");
        const json task = Show(id);
        EXPECT_EQ(task["attempts"], 2) << task;
        EXPECT_EQ(task["attempt_list"][0]["state"], "lost") << task;
    }
    // Each was done once, all by the same worker, which has printed this. Ends the engine.
    void ExpectOneWorker(const std::vector<std::string>& ids, const std::string& printed) {
        for (const auto& id : ids) {
            EXPECT_EQ(StateOf(id), "finished") << id;
            EXPECT_EQ(Show(id)["attempts"], 1) << id;
            EXPECT_EQ(ProcessOf(id), ProcessOf(ids[0])) << id;
            EXPECT_EQ(Count(EventsUntil(id, "final"), "final"), 1) << id;
        }
        const std::string output = Show(ids[0])["attempt_list"][0]["output"];
        Stop();
        EXPECT_EQ(kit::ReadText(PathFromUtf8(output)), "type 14 flag 1\n" + printed);
    }

    std::string m_first, m_second;
};

}  // namespace rq::engine

// What the tests of the whole engine share: an engine in this process, with real worker processes that follow
// a script (scripted_worker.cpp), and clients on real sockets. One thread of the test's, one of the engine's.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "base/paths.h"
#include "ctl/http_client.h"
#include "engine/engine.h"
#include "engine/link_client.h"
#include "engine/sqlite.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"
#include "platform/files.h"
#include "platform/process.h"

namespace rq::engine {

using namespace std::chrono_literals;
using nlohmann::json;

// What the record says of a worker that was killed: a signal, or the exit code that the kill gave it.
inline json KilledExit() {
    const char* kind = platform::kKilledExitCode == 9 ? "signal" : "code";
    return {{kind, platform::kKilledExitCode}};
}

class EngineTest : public testing::Test {
  protected:
    EngineTest() {
        m_settings.dataFolder = m_folder.Utf8("data 数据");
        m_settings.stageFolder = RQ_SCRIPTED_STAGE;
        m_settings.linkPort = 0;
        m_settings.httpPort = 0;
        m_settings.maxWorkers = 2;
        m_settings.durability = Durability::Process;  // a busy disk has no part in what these tests are about
        m_settings.retry = RetryRules::Never();
        m_settings.resumeWindow = 0ms;  // the scripted workers do not come back, unless a test is about that
    }
    ~EngineTest() override { Stop(); }

    void Start() {
        auto engine = Engine::Create(m_settings);
        ASSERT_TRUE(engine) << engine.error().message;
        m_engine = std::move(*engine);
        m_thread = std::thread([this] { m_engine->Run(); });
        m_http = std::make_unique<ctl::HttpClient>(m_engine->HttpPort(), m_engine->Token());
    }
    // No worker is left, unless they are to be.
    void Stop(Engine::End how = Engine::End::CancelTasks) {
        if (!m_engine) return;
        m_engine->RequestEnd(how);
        m_thread.join();
        m_http.reset();
        m_engine.reset();
    }

    json Ask(const std::string& method, const std::string& target, const json& body = nullptr) {
        const auto answer = m_http->Send(method, target, body.is_null() ? "" : body.dump());
        EXPECT_TRUE(answer) << answer.error().message;
        return answer ? json::parse(answer->body, nullptr, false) : json();
    }
    std::string Submit(const std::string& script) {
        return Ask("POST", "/api/v1/tasks", {{"type", "mc"}, {"text", script}}).value("id", "");
    }
    json Show(const std::string& id) { return Ask("GET", "/api/v1/tasks/" + id); }
    // The events of the task so far, waiting until `enough` says so of their kinds.
    std::vector<json> EventsUntil(const std::string& id, const std::function<bool(const json&)>& enough) {
        std::vector<json> events;
        std::int64_t last = 0;
        const auto end = std::chrono::steady_clock::now() + kit::kPatience;
        while (std::chrono::steady_clock::now() < end) {
            const json page =
                Ask("GET", "/api/v1/tasks/" + id + "/events?wait_ms=5000&after=" + std::to_string(last));
            last = page.value("last", last);
            for (const auto& event : page.value("events", json::array())) events.push_back(event);
            for (const auto& event : events) {
                if (enough(event)) return events;
            }
        }
        ADD_FAILURE() << id << ": the awaited event did not come";
        return events;
    }
    std::vector<json> EventsUntil(const std::string& id, const std::string& kind) {
        return EventsUntil(id, [&](const json& event) { return event["kind"] == kind; });
    }
    void AwaitState(const std::string& id, const std::string& state) {
        EventsUntil(id, [&](const json& event) {
            return event["kind"] == "state" && event["data"]["state"] == state;
        });
    }
    // The task in full once it has ended and its worker is gone.
    json Ended(const std::string& id) {
        EventsUntil(id, "worker-exited");
        EventsUntil(id, [](const json& event) {
            return event["kind"] == "state" &&
                   std::set<std::string>{"finished", "failed", "cancelled", "lost"}.contains(
                       event["data"]["state"]);
        });
        return Show(id);
    }
    json Order(const std::string& id, const std::string& order) {
        return Ask("POST", "/api/v1/tasks/" + id + "/" + order);
    }
    // Before Start.
    void AllowAttempts(int attempts) {
        m_settings.retry.standard.attempts = attempts;
        m_settings.retry.standard.firstDelay = 20ms;
    }
    // The rule and the reason by which the engine ended the task's worker.
    std::string Verdict(const std::string& id) {
        for (const auto& event : EventsUntil(id, "killed")) {
            if (event["kind"] == "killed")
                return event["data"].value("rule", "") + ": " + event["data"].value("reason", "");
        }
        return {};
    }
    static int Count(const std::vector<json>& events, const std::string& kind) {
        return static_cast<int>(std::count_if(events.begin(), events.end(),
                                              [&](const json& event) { return event["kind"] == kind; }));
    }
    // Of the store, behind the engine's back.
    void Change(const char* sql) {
        auto database = Database::Open(Utf8FromPath(Data("store.db"))).value();
        ASSERT_TRUE(database->Execute(sql)) << database->TakeError().message;
    }
    std::filesystem::path Data(const char* name) { return PathFromUtf8(m_settings.dataFolder) / name; }

    kit::TempDir m_folder;
    EngineSettings m_settings;
    std::unique_ptr<Engine> m_engine;
    std::thread m_thread;
    std::unique_ptr<ctl::HttpClient> m_http;
};

}  // namespace rq::engine

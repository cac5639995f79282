#include "engine/api.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "engine/json.h"
#include "kit/temp_dir.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

using nlohmann::json;

class FakeHost final : public ApiHost {
  public:
    explicit FakeHost(Store& store) : m_store(store) {}
    Facts GetFacts() const override { return {11, 0, 1, 2, 3, 4, ending}; }
    void OnSubmitted() override { ++submitted; }
    // What the store does of it; no worker is told.
    Result<OrderOutcome> GiveOrder(std::int64_t task, StateEvent order, const std::string& text) override {
        std::vector<std::string> outputs;
        switch (order) {
            case StateEvent::Cancel:
                return m_store.Cancel(task, "api", "why");
            case StateEvent::Suspend:
                return m_store.Suspend(task, "api");
            case StateEvent::Resume:
                return m_store.Resume(task, "api");
            case StateEvent::Finish:
                return m_store.FinishTask(task, "api");
            case StateEvent::Update:
                return m_store.Update(task, "api", text);
            case StateEvent::Retry:
                return m_store.Retry(task, "api");
            case StateEvent::Prioritise:
                return m_store.SetPriority(task, "api", std::stoi(text));
            default:
                return m_store.Delete(task, outputs);
        }
    }
    Result<bool> Drain(std::int32_t type) override { return m_store.Stop(type, "drained by api"); }
    Result<bool> GoOn(std::int32_t type) override { return m_store.Unstop(type); }
    std::vector<WaitReason> WhyWaits(const TaskRow& task) override {
        if (!task.suspended_us) return {};
        return {{"suspended", "since then", task.suspended_us}};
    }
    void RequestEndFromApi(bool cancel) override {
        ending = true;
        cancels = cancel;
    }

    const PathMap& Paths() const override { return paths; }

    int submitted = 0;
    bool ending = false;
    PathMap paths;
    bool cancels = false;

  private:
    Store& m_store;
};

class ApiTest : public testing::Test {
  protected:
    ApiTest()
        : m_store(Store::Open(m_folder.Utf8("store.db")).value()),
          m_host(*m_store),
          m_api(m_io, *m_store, m_host, "secret") {
        m_store->SetListener([this](std::int64_t task) { m_api.OnEvents(task); });
    }

    static ApiRequest Request(const std::string& method, const std::string& target,
                              const std::string& body = {}) {
        return {method, target, "127.0.0.1:8084", "Bearer secret", "", body};
    }
    void Send(const ApiRequest& request) {
        m_answered = 0;
        m_api.Handle(request, [this](ApiResponse response) {
            ++m_answered;
            m_response = std::move(response);
        });
        m_io.restart();
        m_io.poll();
    }
    // Status and document of an answer that comes at once.
    json Ask(const ApiRequest& request, unsigned status) {
        Send(request);
        EXPECT_EQ(m_answered, 1);
        EXPECT_EQ(m_response.status, status) << m_response.body;
        return json::parse(m_response.body);
    }
    json Ask(const std::string& method, const std::string& target, unsigned status,
             const std::string& body = {}) {
        return Ask(Request(method, target, body), status);
    }
    static std::string ErrorCode(const json& answer) { return answer["error"]["code"]; }
    std::string Submit() {
        return Ask("POST", "/api/v1/tasks", 201, R"({"type":"mc","text":"<T/>","name":"n"})")["id"];
    }

    kit::TempDir m_folder;
    boost::asio::io_context m_io;
    std::unique_ptr<Store> m_store;
    FakeHost m_host;
    Api m_api;
    ApiResponse m_response;
    int m_answered = 0;
};

TEST_F(ApiTest, NothingIsAnsweredWithoutTheToken) {
    for (const char* target : {"/api/v1/health", "/api/v1/tasks", "/nowhere"}) {
        auto request = Request("GET", target);
        request.authorization = "Bearer wrong!";
        EXPECT_EQ(ErrorCode(Ask(request, 401)), "no-token");
        request.authorization.clear();
        EXPECT_EQ(ErrorCode(Ask(request, 401)), "no-token");
    }
}

TEST_F(ApiTest, AnotherHostNameIsRefusedEvenWithTheToken) {
    auto request = Request("GET", "/api/v1/health");
    request.host = "rebound.example";
    EXPECT_EQ(ErrorCode(Ask(request, 403)), "bad-host");
    request.host.clear();
    EXPECT_EQ(ErrorCode(Ask(request, 403)), "bad-host");
}

TEST_F(ApiTest, UnknownPathsAndMethodsAreTold) {
    for (const char* target : {"/", "/api", "/api/v1", "/api/v2/health", "/api/v1/health/x",
                               "/api/v1/tasks/t1/x", "/api/v1/tasks/t1/events/x", "/api/v1/healht?limit=3"})
        EXPECT_EQ(ErrorCode(Ask("GET", target, 404)), "unknown-path") << target;
    EXPECT_EQ(ErrorCode(Ask("DELETE", "/api/v1/tasks", 405)), "bad-method");
    EXPECT_EQ(m_response.headers.at(0).second, "GET, HEAD, POST");
    EXPECT_EQ(ErrorCode(Ask("GET", "/api/v1/shutdown", 405)), "bad-method");
    EXPECT_EQ(ErrorCode(Ask("GET", "/api/v1/tasks/t1/cancel", 405)), "bad-method");
    EXPECT_EQ(ErrorCode(Ask("POST", "/api/v1/tasks/t1", 405)), "bad-method");
    EXPECT_EQ(ErrorCode(Ask("GET", "/api/v1/tasks/t1", 404)), "unknown-task");
    EXPECT_EQ(ErrorCode(Ask("GET", "/api/v1/tasks/12/events", 404)), "unknown-task");
}

TEST_F(ApiTest, SubmissionsThatComeTogetherAreCommittedTogether) {
    std::vector<std::string> answers;
    const auto submit = [&](const std::string& body) {
        m_api.Handle(Request("POST", "/api/v1/tasks", body),
                     [&](const ApiResponse& response) { answers.push_back(response.body); });
    };
    submit(R"({"type":"mc","text":"<A/>"})");
    submit(R"({"type":"mc","text":""})");
    submit(R"({"type":"mc","text":"<B/>"})");
    ASSERT_EQ(answers.size(), 1u) << "only what is refused is answered before the commit";
    m_io.poll();
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(json::parse(answers[1])["id"], "t1");
    EXPECT_EQ(json::parse(answers[2])["id"], "t2");
    EXPECT_EQ(m_host.submitted, 1);
    EXPECT_EQ(m_store->Details(2).value()->text, "<B/>");
}

TEST_F(ApiTest, WhatIsNoTargetIsABadRequest) {
    for (const char* target : {"nonsense", "/api/v1/%zz", "/api/v1/tasks?state=%4", "/api/v1/tasks/t1%"})
        EXPECT_EQ(ErrorCode(Ask("GET", target, 400)), "bad-request") << target;
}

TEST_F(ApiTest, UnknownAndDoubledParametersAreRefused) {
    const std::string id = Submit();
    const struct {
        const char *method, *target, *field;
    } cases[] = {{"GET", "/api/v1/tasks?states=queued", "states"},
                 {"GET", "/api/v1/tasks?limit=1&limit=2", "limit"},
                 {"GET", "/api/v1/tasks/t1/events?after=0&wait=5", "wait"},
                 {"GET", "/api/v1/tasks/t1?full", "full"},
                 {"POST", "/api/v1/tasks/t1/cancel?now=1", "now"},
                 {"GET", "/api/v1/health?verbose=1", "verbose"}};
    for (const auto& one : cases) {
        const json answer = Ask(one.method, one.target, 400);
        EXPECT_EQ(ErrorCode(answer), "bad-field") << one.target;
        EXPECT_EQ(answer["error"]["field"], one.field) << one.target;
    }
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/" + id, 200)["state"], "queued");
}

TEST_F(ApiTest, HealthTellsFactsAndCounts) {
    Submit();
    const json health = Ask("GET", "/api/v1/health", 200);
    EXPECT_EQ(health["status"], "ok");
    EXPECT_EQ(health["pid"], 11);
    EXPECT_EQ(health["workers"], json::parse(R"({"running":3,"max":4})"));
    EXPECT_EQ(health["tasks"]["queued"], 1);
    EXPECT_EQ(health["tasks"]["failed"], 0);
    EXPECT_EQ(health["started"], "1970-01-01T00:00:00.000000Z");
}

TEST_F(ApiTest, ASubmittedTaskCanBeShownAndListed) {
    const std::string id = Submit();
    EXPECT_EQ(id, "t1");
    EXPECT_EQ(m_response.headers.at(0).second, "/api/v1/tasks/t1");
    EXPECT_EQ(m_host.submitted, 1);
    const json task = Ask("GET", "/api/v1/tasks/" + id, 200);
    EXPECT_EQ(task["type"], 3);
    EXPECT_EQ(task["type_code"], "mc");
    EXPECT_EQ(task["name"], "n");
    EXPECT_EQ(task["text"], "<T/>");
    EXPECT_EQ(task["state"], "queued");
    EXPECT_TRUE(task["result"].is_null());
    EXPECT_TRUE(task["attempt_list"].is_array());
    EXPECT_TRUE(task["attempt_list"].empty());
    const json list = Ask("GET", "/api/v1/tasks?state=queued", 200);
    ASSERT_EQ(list["tasks"].size(), 1u);
    EXPECT_EQ(list["tasks"][0]["id"], id);
    EXPECT_FALSE(list["tasks"][0].contains("text"));
    EXPECT_TRUE(list["next"].is_null());
}

TEST_F(ApiTest, ListsHavePages) {
    for (int i = 0; i < 3; ++i) Submit();
    json list = Ask("GET", "/api/v1/tasks?limit=2", 200);
    EXPECT_EQ(list["tasks"].size(), 2u);
    EXPECT_EQ(list["next"], "t2");
    list = Ask("GET", "/api/v1/tasks?limit=2&after=t2", 200);
    ASSERT_EQ(list["tasks"].size(), 1u);
    EXPECT_EQ(list["tasks"][0]["id"], "t1");
    EXPECT_TRUE(list["next"].is_null());
    EXPECT_EQ(Ask("GET", "/api/v1/tasks?limit=x", 400)["error"]["field"], "limit");
}

TEST_F(ApiTest, BadSubmissionsAreRefusedByField) {
    EXPECT_EQ(ErrorCode(Ask("POST", "/api/v1/tasks", 400, "nonsense")), "bad-json");
    const json error = Ask("POST", "/api/v1/tasks", 400, R"({"type":"xx","text":"t"})")["error"];
    EXPECT_EQ(error["field"], "type");
    EXPECT_NE(error["message"].get<std::string>().find("\"xx\""), std::string::npos);
    auto request = Request("POST", "/api/v1/tasks", R"({"type":"mc","text":"t"})");
    request.contentType = "text/plain";
    EXPECT_EQ(ErrorCode(Ask(request, 415)), "bad-type");
    request.contentType = "Application/JSON; charset=utf-8";
    Ask(request, 201);
    m_host.ending = true;
    EXPECT_EQ(ErrorCode(Ask(request, 503)), "ending");
}

TEST_F(ApiTest, ASubmissionWithAKeyCanBeRepeated) {
    const char* body = R"({"type":"mc","text":"<T/>","key":"order 7"})";
    EXPECT_EQ(Ask("POST", "/api/v1/tasks", 201, body),
              (json{{"id", "t1"}, {"state", "queued"}, {"repeated", false}}));
    ASSERT_TRUE(m_store->Cancel(1, "api", ""));
    EXPECT_EQ(Ask("POST", "/api/v1/tasks", 200, body),
              (json{{"id", "t1"}, {"state", "cancelled"}, {"repeated", true}}));
    const json refused =
        Ask("POST", "/api/v1/tasks", 409, R"({"type":"mc","text":"<U/>","key":"order 7"})")["error"];
    EXPECT_EQ(refused["code"], "key-taken");
    EXPECT_EQ(refused["field"], "key");
    EXPECT_NE(refused["message"].get<std::string>().find("t1"), std::string::npos);
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/t1", 200)["key"], "order 7");
}

TEST_F(ApiTest, APriorityIsSet) {
    Ask("POST", "/api/v1/tasks", 201, R"({"type":"mc","text":"<T/>","priority":3})");
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/t1/priority", 200, R"({"priority":70})")["result"], "changed");
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/t1", 200)["priority"], 70);
    EXPECT_EQ(Ask("POST", "/api/v1/tasks/t1/priority", 400, R"({"priority":170})")["error"]["field"],
              "priority");
    ASSERT_TRUE(m_store->Cancel(1, "api", ""));
    Ask("POST", "/api/v1/tasks/t1/priority", 409, R"({"priority":1})");
}

TEST_F(ApiTest, CancelSaysWhatItDid) {
    const std::string id = Submit();
    json answer = Ask("POST", "/api/v1/tasks/" + id + "/cancel", 200);
    EXPECT_EQ(answer["result"], "cancelled");
    EXPECT_EQ(answer["state"], "cancelled");
    answer = Ask("POST", "/api/v1/tasks/" + id + "/cancel", 200);
    EXPECT_EQ(answer["result"], "already-ended");
    Submit();
    ASSERT_TRUE(m_store->ClaimNext());
    answer = Ask("POST", "/api/v1/tasks/t2/cancel", 200);
    EXPECT_EQ(answer["result"], "requested");
    EXPECT_EQ(answer["state"], "finishing");
}

TEST_F(ApiTest, OrdersSayWhatTheyDid) {
    const std::string path = "/api/v1/tasks/" + Submit();
    json answer = Ask("POST", path + "/suspend", 200);
    EXPECT_EQ(answer, json::parse(R"({"id":"t1","state":"queued","result":"suspended","changed":true,
        "message":"t1 stays in the queue until it is resumed"})"));
    answer = Ask("POST", path + "/suspend", 200);
    EXPECT_EQ(answer["result"], "already-suspended");
    EXPECT_EQ(answer["changed"], false);
    answer = Ask("GET", path, 200);
    EXPECT_TRUE(answer["suspended"].is_string());
    EXPECT_EQ(answer["waits"][0]["rule"], "suspended");
    EXPECT_TRUE(answer["waits"][0]["until"].is_string());
    EXPECT_EQ(Ask("POST", path + "/resume", 200)["result"], "resumed");
    EXPECT_TRUE(Ask("GET", path, 200)["waits"].empty());
    EXPECT_EQ(Ask("POST", path + "/update", 200, R"({"text":"<U/>"})")["result"], "updated");
    EXPECT_EQ(Ask("GET", path, 200)["text"], "<U/>");
    EXPECT_EQ(Ask("POST", path + "/cancel", 200)["result"], "cancelled");
    EXPECT_EQ(Ask("POST", path + "/retry", 200)["result"], "queued");
    EXPECT_EQ(Ask("POST", path + "/retry", 200)["result"], "not-ended");
    EXPECT_EQ(Ask("POST", path + "/cancel", 200)["result"], "cancelled");
    answer = Ask("DELETE", path, 200);
    EXPECT_EQ(answer["result"], "deleted");
    EXPECT_TRUE(answer["state"].is_null());
    EXPECT_EQ(ErrorCode(Ask("GET", path, 404)), "unknown-task");
    answer = Ask("DELETE", path, 200);
    EXPECT_EQ(answer["result"], "already-deleted");
    EXPECT_EQ(answer["changed"], false);
    EXPECT_EQ(ErrorCode(Ask("DELETE", "/api/v1/tasks/t99", 404)), "unknown-task");
}

TEST_F(ApiTest, AnOrderThatTheStateDoesNotAllowIsRefusedByName) {
    const std::string path = "/api/v1/tasks/" + Submit();
    const json error = Ask("POST", path + "/finish", 409)["error"];
    EXPECT_EQ(error["code"], "wrong-state");
    EXPECT_EQ(error["message"], "t1 is queued: finish is for a task that is running or paused");
    EXPECT_EQ(ErrorCode(Ask("DELETE", path, 409)), "wrong-state");
    EXPECT_EQ(ErrorCode(Ask("GET", path + "/suspend", 405)), "bad-method");
    EXPECT_EQ(ErrorCode(Ask("POST", path + "/delete", 404)), "unknown-path");
    EXPECT_EQ(Ask("POST", path + "/update", 400, R"({"texts":"x"})")["error"]["field"], "texts");
    EXPECT_EQ(Ask("POST", path + "/update", 400, "{}")["error"]["field"], "text");
    EXPECT_EQ(ErrorCode(Ask("POST", path + "/update", 400, "")), "bad-json");
}

TEST_F(ApiTest, APathIsMappedAndLookedFor) {
    m_folder.Write("media/a b.mxf", "12345");
    m_host.paths = PathMap::Make({{"Z:\\media", m_folder.Utf8("media")}}).value();
    const auto ask = [&](const std::string& query, unsigned status = 200) {
        Send(Request("GET", "/api/v1/path" + query));
        m_io.restart();
        m_io.run_for(std::chrono::seconds(20));
        EXPECT_EQ(m_answered, 1);
        EXPECT_EQ(m_response.status, status) << m_response.body;
        return json::parse(m_response.body);
    };
    json answer = ask("?path=z:/media/a%20b.mxf");
    EXPECT_EQ(answer["rule"]["given"], "Z:\\media");
    EXPECT_EQ(answer["reached"], true);
    EXPECT_EQ(answer["kind"], "file");
    EXPECT_EQ(answer["size_bytes"], 5);
    EXPECT_EQ(answer["readable"], true);
    EXPECT_EQ(answer["problem"], nullptr);
    EXPECT_EQ(ask("?path=Z:%5Cmedia")["kind"], "folder");
    answer = ask("?path=Z:%5Cmedia%5Cnone");
    EXPECT_EQ(answer["reached"], false);
    EXPECT_EQ(answer["problem"], "nothing is there");
    answer = ask("?path=media/x");
    EXPECT_EQ(answer["rule"], nullptr);
    EXPECT_EQ(answer["local"], "media/x");
    EXPECT_EQ(answer["problem"], "it is no absolute path on this node");
    EXPECT_EQ(ask("", 400)["error"]["field"], "path");
    EXPECT_EQ(ask("?path=", 400)["error"]["field"], "path");
    EXPECT_EQ(ask("?path=a%00b", 400)["error"]["field"], "path");
    EXPECT_EQ(ask("?p=a", 400)["error"]["field"], "p");
    EXPECT_EQ(Ask("POST", "/api/v1/path?path=/", 405)["error"]["code"], "bad-method");
}

TEST_F(ApiTest, DrainAndUndrainAreSeenInTheHealth) {
    EXPECT_EQ(Ask("POST", "/api/v1/drain", 200)["changed"], true);
    EXPECT_EQ(Ask("POST", "/api/v1/drain", 200)["changed"], false);
    EXPECT_EQ(Ask("POST", "/api/v1/drain", 200, R"({"type":"mc"})")["changed"], true);
    json health = Ask("GET", "/api/v1/health", 200);
    EXPECT_EQ(health["drained"], true);
    ASSERT_EQ(health["stopped"].size(), 2u);
    EXPECT_TRUE(health["stopped"][0]["type"].is_null());
    EXPECT_EQ(health["stopped"][1]["type_code"], "mc");
    EXPECT_EQ(health["stopped"][1]["reason"], "drained by api");
    EXPECT_TRUE(health["stopped"][1]["until"].is_null());
    EXPECT_EQ(Ask("POST", "/api/v1/undrain", 200)["result"], "undrained");
    EXPECT_EQ(Ask("POST", "/api/v1/undrain", 200)["changed"], false);
    EXPECT_EQ(Ask("POST", "/api/v1/undrain", 200, R"({"type":3})")["changed"], true);
    health = Ask("GET", "/api/v1/health", 200);
    EXPECT_EQ(health["drained"], false);
    EXPECT_TRUE(health["stopped"].empty());
    EXPECT_EQ(Ask("POST", "/api/v1/drain", 400, R"({"type":"xx"})")["error"]["field"], "type");
    EXPECT_EQ(ErrorCode(Ask("GET", "/api/v1/drain", 405)), "bad-method");
}

TEST_F(ApiTest, EventsComeAtOnceWhenThereAreSome) {
    const std::string id = Submit();
    const json answer = Ask("GET", "/api/v1/tasks/" + id + "/events?wait_ms=30000", 200);
    ASSERT_EQ(answer["events"].size(), 2u);
    EXPECT_EQ(answer["events"][0]["kind"], "submitted");
    EXPECT_EQ(answer["events"][0]["data"], json::parse(R"({"type":3,"origin":"api"})"));
    EXPECT_EQ(answer["events"][1]["data"]["state"], "queued");
    EXPECT_TRUE(answer["events"][0]["attempt"].is_null());
    EXPECT_EQ(answer["last"], answer["events"][1]["id"]);
    EXPECT_EQ(answer["task"]["id"], id);
    const json none = Ask("GET", "/api/v1/tasks/" + id + "/events?after=" + answer["last"].dump(), 200);
    EXPECT_TRUE(none["events"].empty());
    EXPECT_EQ(none["last"], answer["last"]);
    EXPECT_EQ(Ask("GET", "/api/v1/tasks/" + id + "/events?wait_ms=30001", 400)["error"]["field"], "wait_ms");
}

TEST_F(ApiTest, APollWaitsForTheEventsOfItsTask) {
    Submit();
    Submit();
    Send(Request("GET", "/api/v1/tasks/t2/events?after=4&wait_ms=30000"));
    EXPECT_EQ(m_answered, 0);
    ASSERT_TRUE(m_store->Cancel(1, "api", "why"));
    EXPECT_EQ(m_answered, 0);
    ASSERT_TRUE(m_store->Cancel(2, "api", "why"));
    ASSERT_EQ(m_answered, 1);
    const json answer = json::parse(m_response.body);
    EXPECT_EQ(answer["events"][0]["kind"], "cancel-requested");
    EXPECT_EQ(answer["task"]["state"], "cancelled");
}

TEST_F(ApiTest, APollEndsWithNothingWhenItsTimeIsUp) {
    Submit();
    Send(Request("GET", "/api/v1/tasks/t1/events?after=2&wait_ms=300"));
    EXPECT_EQ(m_answered, 0);
    m_io.run();
    ASSERT_EQ(m_answered, 1);
    EXPECT_TRUE(json::parse(m_response.body)["events"].empty());
}

TEST_F(ApiTest, EndWaitsAnswersThoseThatWait) {
    Submit();
    Send(Request("GET", "/api/v1/tasks/t1/events?after=2&wait_ms=30000"));
    EXPECT_EQ(m_answered, 0);
    m_api.EndWaits();
    EXPECT_EQ(m_answered, 1);
    Send(Request("GET", "/api/v1/tasks/t1/events?after=2&wait_ms=30000"));
    EXPECT_EQ(m_answered, 1);
}

TEST_F(ApiTest, ShutdownIsPassedOn) {
    EXPECT_EQ(Ask("POST", "/api/v1/shutdown", 202)["status"], "ending");
    EXPECT_TRUE(m_host.ending);
    EXPECT_FALSE(m_host.cancels);
    EXPECT_EQ(Ask("POST", "/api/v1/shutdown", 202, R"({"cancel": false})")["cancel"], false);
    EXPECT_EQ(Ask("POST", "/api/v1/shutdown", 202, R"({"cancel": true})")["cancel"], true);
    EXPECT_TRUE(m_host.cancels);
    EXPECT_EQ(ErrorCode(Ask("POST", "/api/v1/shutdown", 400, R"({"cancel": 1})")), "bad-field");
    EXPECT_EQ(ErrorCode(Ask("POST", "/api/v1/shutdown", 400, R"({"cansel": true})")), "bad-field");
}

TEST(Json, ResultsHaveTheirDocumentedForm) {
    stMD5TaskResult md5;
    md5.files.push_back({1, "/a", "s", "", "", kNotCompared, "abc"});
    md5.files.push_back({0, "/b", "", "x", "y", kDifferent, ""});
    const json result = json::parse(ResultJson(&md5));
    EXPECT_EQ(result["kind"], "md5");
    EXPECT_EQ(result["files"][0],
              json::parse(R"({"mode":"computation","first":"/a","second":"s","first_md5":"",
        "second_md5":"","verification":"not-compared","computed_md5":"abc"})"));
    EXPECT_EQ(result["files"][1]["mode"], "verification");
    EXPECT_EQ(result["files"][1]["verification"], "different");
    EXPECT_EQ(ResultJson(nullptr), "");

    stTransferTaskResult transfer;
    transfer.verifications.push_back({"/a", "/b", "1", "1", kEqual});
    transfer.outputs.push_back({2, "f", "s", 7, "<x/>", ""});
    const json moved = json::parse(ResultJson(&transfer));
    EXPECT_EQ(moved["kind"], "transfer");
    EXPECT_EQ(moved["verifications"][0]["verification"], "equal");
    EXPECT_EQ(moved["outputs"][0]["size_bytes"], 7);

    stTranscodeTaskResult transcode;
    transcode.outputs.push_back({"f", "s", 1, 2, 3, "<x/>"});
    EXPECT_EQ(json::parse(ResultJson(&transcode))["outputs"][0]["value64"], 3);
}

TEST(Json, BytesThatAreNotUtf8BecomeReplacementCharacters) {
    stMD5TaskResult md5;
    md5.files.push_back({1, "/\xff", "", "", "", kNotCompared, ""});
    EXPECT_EQ(json::parse(ResultJson(&md5))["files"][0]["first"], "/\xEF\xBF\xBD");
}

TEST(Json, TimesHaveMicrosecondsAlways) {
    EXPECT_EQ(TimeText(0), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(TimeText(1'738'317'600'000'001), "2025-01-31T10:00:00.000001Z");
}

TEST(Json, AFailureSaysEveryTextOnce) {
    FinalStatus final;
    final.status = kTaskError;
    final.errorText = "MD5 Verify Error!";
    final.detailErrorText = "/a: differs";
    final.furtherText = "/a: differs";
    EXPECT_EQ(FinalReason(final), "MD5 Verify Error!: /a: differs");
    EXPECT_EQ(FinalReason({}), std::nullopt);
}

}  // namespace
}  // namespace rq::engine

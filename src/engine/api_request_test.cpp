#include "engine/api_request.h"

#include <gtest/gtest.h>

namespace rq::engine {
namespace {

TEST(ParseTarget, TakesPathAndQueryApart) {
    const auto target = ParseTarget("/api/v1/tasks/t%31?after=3&wait_ms=&x=%20%E6%96%87&flag");
    ASSERT_TRUE(target);
    EXPECT_EQ(target->path, (std::vector<std::string>{"api", "v1", "tasks", "t1"}));
    EXPECT_EQ(target->query.at("after"), "3");
    EXPECT_EQ(target->query.at("wait_ms"), "");
    EXPECT_EQ(target->query.at("x"), " 文");
    EXPECT_EQ(target->query.at("flag"), "");
}

TEST(ParseTarget, RefusesWhatIsNoTarget) {
    for (const char* bad : {"", "api", "*", "/a%2", "/a%", "/a%zz", "http://x/"})
        EXPECT_FALSE(ParseTarget(bad)) << bad;
    EXPECT_TRUE(ParseTarget("/"));
}

TEST(IsLocalHost, NamesThisMachineOnly) {
    for (const char* good :
         {"127.0.0.1", "127.0.0.1:8084", "localhost", "LocalHost:1", "[::1]", "[::1]:8084"})
        EXPECT_TRUE(IsLocalHost(good)) << good;
    for (const char* bad : {"", "127.0.0.1.evil.example", "evil.example:8084", "localhost:", "localhost:x",
                            "127.0.0.1:99999", "::1", "[::1", "localhost:1:2", "0.0.0.0"})
        EXPECT_FALSE(IsLocalHost(bad)) << bad;
}

TEST(HasToken, WantsTheWholeToken) {
    EXPECT_TRUE(HasToken("Bearer abc", "abc"));
    EXPECT_TRUE(HasToken("bearer abc", "abc"));
    for (const char* bad :
         {"", "abc", "Bearer", "Bearer ", "Bearer ab", "Bearer abcd", "Bearer abC", "Basic abc"})
        EXPECT_FALSE(HasToken(bad, "abc")) << bad;
    EXPECT_FALSE(HasToken("Bearer ", ""));
}

TEST(ParseTaskId, TakesOwnIdsOnly) {
    EXPECT_EQ(ParseTaskId("t12"), 12);
    for (const char* bad : {"", "t", "12", "t0", "t-1", "t+1", "t1x", "T1", "t01", "t99999999999999999999"})
        EXPECT_FALSE(ParseTaskId(bad)) << bad;
}

TEST(ParseSubmission, TakesCodesAndNumbers) {
    EXPECT_EQ(ParseSubmission(R"({"type":"mc","text":"<T/>"})", 0)->type, 3);
    EXPECT_EQ(ParseSubmission(R"({"type":"14","text":"<T/>"})", 0)->type, 14);
    EXPECT_EQ(ParseSubmission(R"({"type":299,"text":"<T/>"})", 0)->type, 299);
    EXPECT_EQ(ParseSubmission(R"({"type":0,"text":"<T/>"})", 0)->type, 0);
    const auto task = ParseSubmission("{\"type\":\"tf\",\"text\":\"片\",\"name\":\"a b\"}", 0);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->type, 0);
    EXPECT_EQ(task->text, "片");
    EXPECT_EQ(task->name, "a b");
    EXPECT_EQ(task->origin, "api");
}

TEST(ParseSubmission, NamesTheFieldAtFault) {
    const struct {
        std::string body;
        std::string code, field;
    } cases[] = {
        {"", "bad-json", ""},
        {"[]", "bad-json", ""},
        {"{", "bad-json", ""},
        {"{\"type\":\"mc\",\"text\":\"\xff\"}", "bad-json", ""},
        {"{}", "bad-field", "type"},
        {R"({"type":"mc"})", "bad-field", "text"},
        {R"({"type":"MC","text":"x"})", "bad-field", "type"},
        {R"({"type":"mix","text":"x"})", "bad-field", "type"},
        {R"({"type":300,"text":"x"})", "bad-field", "type"},
        {R"({"type":-1,"text":"x"})", "bad-field", "type"},
        {R"({"type":"-1","text":"x"})", "bad-field", "type"},
        {R"({"type":1.5,"text":"x"})", "bad-field", "type"},
        {R"({"type":null,"text":"x"})", "bad-field", "type"},
        {R"({"type":"mc","text":""})", "bad-field", "text"},
        {R"({"type":"mc","text":5})", "bad-field", "text"},
        {R"({"type":"mc","text":"a\u0000b"})", "bad-field", "text"},
        {R"({"type":"mc","text":"x","name":"a\nb"})", "bad-field", "name"},
        {R"({"type":"mc","text":"x","name":")" + std::string(201, 'n') + "\"}", "bad-field", "name"},
        {R"({"type":"mc","text":"x","owner":1})", "bad-field", "owner"},
    };
    for (const auto& one : cases) {
        const auto task = ParseSubmission(one.body, 0);
        ASSERT_FALSE(task) << one.body;
        EXPECT_EQ(task.error().code, one.code) << one.body;
        EXPECT_EQ(task.error().field, one.field) << one.body;
        EXPECT_FALSE(task.error().message.empty());
    }
}

TEST(ParseSubmission, SurvivesDeepNesting) {
    EXPECT_FALSE(ParseSubmission(std::string(1'000'000, '['), 0));
    EXPECT_FALSE(
        ParseSubmission("{\"type\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}", 0));
}

TEST(ParseListQuery, ReadsStatesLimitAndPlace) {
    const auto query = ParseListQuery(*ParseTarget("/t?state=queued,failed,queued&limit=7&after=t9"));
    ASSERT_TRUE(query);
    EXPECT_EQ(query->states, (std::vector<TaskState>{TaskState::Queued, TaskState::Failed}));
    EXPECT_EQ(query->limit, 7);
    EXPECT_EQ(query->before_key, 9);
    const struct {
        const char *target, *field;
    } cases[] = {{"/t?state=gone", "state"}, {"/t?limit=0", "limit"}, {"/t?limit=1001", "limit"},
                 {"/t?limit=x", "limit"},    {"/t?after=9", "after"}, {"/t?limit=", "limit"}};
    for (const auto& one : cases) {
        const auto bad = ParseListQuery(*ParseTarget(one.target));
        ASSERT_FALSE(bad) << one.target;
        EXPECT_EQ(bad.error().field, one.field);
    }
}

TEST(Hosts, AnAddressIsNoName) {
    for (const char* host : {"192.0.2.7", "192.0.2.7:8084", "[2001:db8::1]", "[::1]:80", "127.0.0.1"})
        EXPECT_TRUE(IsAddressHost(host)) << host;
    for (const char* host : {"", ":80", "evil.example", "evil.example:80", "192.0.2.7:x", "192.0.2", "[]",
                             "[evil]", "2001:db8::1", "[::1", "192.0.2.7.evil.example"})
        EXPECT_FALSE(IsAddressHost(host)) << host;
}

}  // namespace
}  // namespace rq::engine

#include "engine/submission_fields.h"

#include <gtest/gtest.h>

namespace rq::engine {
namespace {

constexpr std::int64_t kSecond_us = 1'000'000;
constexpr std::int64_t kNow_us = 1'738'317'600 * kSecond_us;  // 2025-01-31T10:00:00Z

Checked<NewTask> Submission(const std::string& fields) {
    return ParseSubmission(R"({"type":"mc","text":"<T/>",)" + fields + "}", kNow_us);
}

TEST(ParseTime, TakesTimesInUtcAndTimesFromNowOn) {
    EXPECT_EQ(ParseTime("2025-01-31T10:00:00Z", 0), std::nullopt) << "more than ten years away";
    EXPECT_EQ(ParseTime("2025-01-31T10:00:00Z", kNow_us), kNow_us);
    EXPECT_EQ(ParseTime("2025-01-31T10:00:00.5Z", kNow_us), kNow_us + kSecond_us / 2);
    EXPECT_EQ(ParseTime("2024-02-29T23:59:59.000001Z", kNow_us), 1'709'251'199 * kSecond_us + 1);
    EXPECT_EQ(ParseTime("+0s", kNow_us), kNow_us);
    EXPECT_EQ(ParseTime("+90s", kNow_us), kNow_us + 90 * kSecond_us);
    EXPECT_EQ(ParseTime("+15m", kNow_us), kNow_us + 900 * kSecond_us);
    EXPECT_EQ(ParseTime("+2h", kNow_us), kNow_us + 7200 * kSecond_us);
    EXPECT_EQ(ParseTime("+7d", kNow_us), kNow_us + 7 * 86'400 * kSecond_us);
}

TEST(ParseTime, RefusesEverythingElse) {
    for (const char* text : {"",
                             "+",
                             "+s",
                             "+5",
                             "5s",
                             "+-5s",
                             "+5 s",
                             "+5w",
                             "+1.5h",
                             "+99999d",
                             "+9223372036854775807s",
                             "+99999999999999999999999s",
                             "2025-01-31",
                             "2025-01-31T10:00:00",
                             "2025-01-31T10:00:00+01:00",
                             "2025-02-29T10:00:00Z",
                             "2025-01-31T24:00:00Z",
                             "2025-01-31T10:60:00Z",
                             "2025-13-01T00:00:00Z",
                             "2025-01-31 10:00:00Z",
                             "2025-01-31T10:00:00.Z",
                             "2025-01-31T10:00:00.1234567Z",
                             "9999-12-31T23:59:59Z",
                             "-025-01-31T10:00:00Z"})
        EXPECT_EQ(ParseTime(text, kNow_us), std::nullopt) << text;
}

TEST(ParseSubmission, TakesWhatATaskAsksFor) {
    const auto task = Submission(
        R"("priority":100,"not_before":"+1m","deadline":"+1h","deadline_action":"cancel","memory_mib":512,)"
        R"("cores":2,"volumes":["in","/media/out"],"key":"order 7")");
    ASSERT_TRUE(task) << task.error().message;
    EXPECT_EQ(task->priority, 100);
    EXPECT_EQ(task->notBefore_us, kNow_us + 60 * kSecond_us);
    EXPECT_EQ(task->deadline_us, kNow_us + 3600 * kSecond_us);
    EXPECT_TRUE(task->cancelAtDeadline);
    EXPECT_EQ(task->demand, (Demand{512, 2, {"in", "/media/out"}}));
    EXPECT_EQ(task->key, "order 7");
}

TEST(ParseSubmission, NamesTheRunFieldAtFault) {
    const struct {
        const char* fields;
        const char* field;
    } cases[] = {
        {R"("priority":-1)", "priority"},
        {R"("priority":101)", "priority"},
        {R"("priority":"50")", "priority"},
        {R"("priority":50.0)", "priority"},
        {R"("priority":18446744073709551615)", "priority"},
        {R"("priority":null)", "priority"},
        {R"("not_before":5)", "not_before"},
        {R"("not_before":"+5")", "not_before"},
        {R"("deadline":"2025-01-31T10:00:00Z")", "deadline"},
        {R"("deadline":"+0s")", "deadline"},
        {R"("not_before":"+1h","deadline":"+1h")", "deadline"},
        {R"("deadline":"+1h","deadline_action":"stop")", "deadline_action"},
        {R"("deadline_action":"cancel")", "deadline_action"},
        {R"("memory_mib":0)", "memory_mib"},
        {R"("memory_mib":-1)", "memory_mib"},
        {R"("memory_mib":1.5)", "memory_mib"},
        {R"("memory_mib":"4G")", "memory_mib"},
        {R"("memory_mib":9223372036854775808)", "memory_mib"},
        {R"("cores":0)", "cores"},
        {R"("cores":4294967298)", "cores"},
        {R"("volumes":"in")", "volumes"},
        {R"("volumes":[""])", "volumes"},
        {R"("volumes":[5])", "volumes"},
        {R"("volumes":["a\nb"])", "volumes"},
        {R"("key":"")", "key"},
        {R"("key":7)", "key"},
        {R"("key":"a\tb")", "key"},
        {R"("prioritty":5)", "prioritty"},
    };
    for (const auto& one : cases) {
        const auto task = Submission(one.fields);
        ASSERT_FALSE(task) << one.fields;
        EXPECT_EQ(task.error().code, "bad-field") << one.fields;
        EXPECT_EQ(task.error().field, one.field) << one.fields;
        EXPECT_GT(task.error().message.size(), std::string(one.field).size() + 2) << one.fields;
    }
    EXPECT_FALSE(Submission("\"key\":\"" + std::string(201, 'k') + "\""));
}

TEST(ParsePriority, TakesOneNumber) {
    EXPECT_EQ(*ParsePriority(R"({"priority":0})"), 0);
    for (const char* body : {"", "{}", "[5]", R"({"priority":101})", R"({"priority":5,"x":1})"})
        EXPECT_FALSE(ParsePriority(body)) << body;
}

}  // namespace
}  // namespace rq::engine

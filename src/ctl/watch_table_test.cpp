#include "ctl/watch_table.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ctl/commands.h"
#include "ctl/display_width.h"

namespace rq::ctl {
namespace {

using nlohmann::json;

json Task(const std::string& id, const std::string& state, double percent, const std::string& name) {
    return {{"id", id},          {"state", state},    {"type", 3},
            {"type_code", "mc"}, {"priority", 50},    {"percent", percent},
            {"speed", 12.5},     {"reason", nullptr}, {"name", name}};
}

TEST(WatchLines, ColumnsStandBelowEachOther) {
    const auto lines =
        WatchLines({Task("t1", "running", 41.5, "片名.mxf"), Task("t12", "queued", 0, "b")}, 80, 20);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "ID   STATE    TYPE  PRIO  PERCENT  SPEED       NAME");
    EXPECT_EQ(lines[1], "t1   running  mc    50    41.5     12.5 MiB/s  片名.mxf");
    EXPECT_EQ(lines[2], "t12  queued   mc    50    0.0                  b");
}

TEST(WatchLines, NoLineReachesTheEdge) {
    const std::vector<json> tasks = {Task("t1", "running", 41.5, "一二三四五六七八九十一二三四五六七八九十")};
    for (unsigned columns = 1; columns < 100; ++columns) {
        for (const auto& line : WatchLines(tasks, columns, 20))
            EXPECT_LT(DisplayWidth(line), std::max(2u, columns)) << columns;
    }
}

TEST(WatchLines, WhatDoesNotFitIsCounted) {
    const std::vector<json> tasks(25, Task("t1", "queued", 0, "n"));
    const auto lines = WatchLines(tasks, 80, 20);
    EXPECT_EQ(lines.size(), 22u);
    EXPECT_EQ(lines.back(), "and 5 more");
    EXPECT_EQ(WatchLines({}, 80, 20).back(), "no task waits or runs");
}

TEST(WatchLines, AReasonIsShownWithoutControlCharacters) {
    json task = Task("t1", "queued", 0, "a\x1b[2Jb");
    task["reason"] = "waits: no\ndisk";
    EXPECT_NE(WatchLines({task}, 100, 20)[1].find("a?[2Jb  (waits: no?disk)"), std::string::npos);
}

TEST(Redraw, GoesUpAndClearsWhatIsLeft) {
    EXPECT_EQ(Redraw(0, {"a"}), "\ra\x1b[K\n\x1b[J");
    EXPECT_EQ(Redraw(3, {"a", "b"}), "\x1b[3A\ra\x1b[K\n\rb\x1b[K\n\x1b[J");
}

TEST(ChangeLine, SaysWhatOneTaskDoes) {
    EXPECT_EQ(ChangeLine(Task("t1", "running", 41.5, "n")), "t1: running, 41.5 %, 12.5 MiB/s");
    json failed = Task("t1", "failed", 3, "n");
    failed["reason"] = "the disk is full";
    EXPECT_EQ(ChangeLine(failed), "t1: failed, the disk is full");
}

TEST(ChangeKey, ChangesWithStateAndEachTenth) {
    const auto key = [](const std::string& state, double percent) {
        return ChangeKey(Task("t1", state, percent, "n"));
    };
    EXPECT_EQ(key("running", 41), key("running", 49.9));
    EXPECT_NE(key("running", 49), key("running", 50));
    EXPECT_NE(key("running", 41), key("paused", 41));
}

TEST(ExplainText, HasEveryPart) {
    const json answer = {
        {"summary", "t2 is queued and waits: volume m is away"},
        {"waits",
         json::array(
             {{{"rule", "volume"}, {"text", "volume m is away"}, {"until", nullptr}},
              {{"rule", "backoff"}, {"text", "attempt 2"}, {"until", "2025-01-31T10:00:00.000000Z"}}})},
        {"ahead", 3},
        {"pace", {{"findings", json::array({{{"rule", "slow"}, {"text", "its speed is 1"}}})}}},
        {"because", json::array({{{"rule", "lost"}, {"text", "attempt 1: gone"}}})},
        {"history",
         json::array({{{"time", "2025-01-31T10:00:00.000000Z"}, {"attempt", 1}, {"text", "lost\x1b"}}})},
        {"history_is_cut", true}};
    EXPECT_EQ(ExplainText(answer),
              "t2 is queued and waits: volume m is away\n"
              "\nwhy it waits, in the order of the rules\n"
              "  volume: volume m is away\n"
              "  backoff: attempt 2 (until 2025-01-31 10:00:00Z)\n"
              "\n3 queued tasks have their turn before it\n"
              "\nhow fast it is\n  slow: its speed is 1\n"
              "\nwhat decided\n  lost: attempt 1: gone\n"
              "\nhistory\n  2025-01-31 10:00:00Z  attempt 1: lost?\n"
              "  (older events are not shown, or not kept any more)\n");
}

}  // namespace
}  // namespace rq::ctl

// What rqctl prints: MD5 lines, lists, single tasks.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "ctl/commands.h"
#include "ctl/md5_output.h"

namespace rq::ctl {
namespace {

using nlohmann::json;

json Md5(const json& file) {
    return {{"kind", "md5"}, {"files", json::array({file})}};
}

json Computed(const std::string& path, const std::string& sum, const std::string& note = {}) {
    return Md5({{"mode", "computation"}, {"first", path}, {"second", note}, {"computed_md5", sum}});
}

json Compared(const std::string& verification, const std::string& found, const std::string& note = {}) {
    return Md5({{"mode", "verification"},
                {"first", "/a"},
                {"second", note},
                {"first_md5", "11"},
                {"second_md5", found},
                {"verification", verification}});
}

TEST(ReportMd5, WritesLinesAsMd5sumDoes) {
    EXPECT_EQ(ReportMd5(Computed("/片 名", "d41d8cd98f00b204e9800998ecf8427e")).text,
              "d41d8cd98f00b204e9800998ecf8427e  /片 名\n");
    // A backslash alone is escaped where it is part of a name.
    const bool separates = PathSeparator() == L'\\';
    EXPECT_EQ(ReportMd5(Computed("C:\\a\\b", "11")).text,
              separates ? "11  C:\\a\\b\n" : "\\11  C:\\\\a\\\\b\n");
    EXPECT_EQ(ReportMd5(Computed("/a\\b\nc", "11")).text, "\\11  /a\\\\b\\nc\n");
}

TEST(ReportMd5, AFileWithoutASumIsAProblem) {
    const auto report = ReportMd5(Computed("/gone", "", "No such file"));
    EXPECT_EQ(report.text, "");
    EXPECT_EQ(report.problems, (std::vector<std::string>{"/gone: No such file"}));
    EXPECT_EQ(ReportMd5(Computed("/gone", "")).problems.at(0), "/gone: no MD5 was computed");
}

TEST(ReportMd5, SaysHowAComparisonWent) {
    EXPECT_EQ(ReportMd5(Compared("equal", "11")).text, "/a: OK\n");
    const auto different = ReportMd5(Compared("different", "22"));
    EXPECT_EQ(different.text, "/a: FAILED\n");
    EXPECT_EQ(different.problems.at(0), "/a: expected 11, found 22");
    EXPECT_EQ(ReportMd5(Compared("different", "", "gone")).problems.at(0), "/a: gone");
    EXPECT_EQ(ReportMd5(Compared("not-compared", "22")).text, "/a: not compared\n");
}

TEST(ReportMd5, OtherResultsSayNothing) {
    for (const auto& other :
         {json(nullptr), json::array(), json::object(), json{{"kind", "transfer"}}, json{{"kind", "md5"}}}) {
        EXPECT_EQ(ReportMd5(other).text, "");
        EXPECT_TRUE(ReportMd5(other).problems.empty());
    }
}

json Task() {
    return {{"id", "t1"},
            {"state", "running"},
            {"type", 3},
            {"type_code", "mc"},
            {"name", "a\x1b[31mb"},
            {"percent", 41.55},
            {"reason", nullptr},
            {"created", "2025-01-31T10:00:00.123456Z"}};
}

TEST(ListTable, AlignsColumnsAndDisarmsNames) {
    const std::string table = ListTable(json::array({Task()}));
    EXPECT_EQ(table,
              "ID  STATE    TYPE  PERCENT  CREATED               NAME\n"
              "t1  running  mc    41.5     2025-01-31 10:00:00Z  a?[31mb\n");
    EXPECT_EQ(ListTable(json::array()), "ID  STATE  TYPE  PERCENT  CREATED  NAME\n");
}

TEST(ShowText, HasWhatThereIs) {
    json task = Task();
    task["attempt_list"] = json::array({{{"number", 1},
                                         {"state", "lost"},
                                         {"reason", "worker ended by signal 9"},
                                         {"pid", 5},
                                         {"status", nullptr},
                                         {"error", {{"code", 6}, {"text", "Task Not Response !"}}},
                                         {"exit", {{"signal", 9}}}}});
    const json events = json::array({{{"time", "T"}, {"kind", "lost"}, {"data", {{"reason", "x"}}}}});
    const std::string text = ShowText(task, events);
    for (const char* part :
         {"id:               t1\n", "  reason:         worker ended by signal 9\n",
          "  exit:           signal 9\n", "0x00000006 Task Not Response !", "T  lost  {\"reason\":\"x\"}\n"})
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    EXPECT_EQ(text.find("cancel"), std::string::npos);
}

TEST(ShowText, HasCodesOfExceptionsAsTheyAreKnown) {
    const auto shown = [](std::int64_t code) {
        json task = Task();
        task["attempt_list"] = json::array({{{"number", 1}, {"exit", {{"code", code}}}}});
        return ShowText(task, json::array());
    };
    EXPECT_NE(shown(3221225477).find("code 0xC0000005\n"), std::string::npos) << shown(3221225477);
    EXPECT_NE(shown(3).find("code 3\n"), std::string::npos);
}

}  // namespace
}  // namespace rq::ctl

#include "plugin_common/report.h"

#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::task {
namespace {

TEST(Report, IsAFileOfItsOwnInTheReportFolder) {
    const kit::TempDir dir;
    const kit::ScopedEnvironment folder("RQ_REPORT_DIR", dir.Utf8("made/for it"));
    Report report;
    ASSERT_FALSE(report.Create("delete", "a/b 新"));
    Report second;
    ASSERT_FALSE(second.Create("delete", "a/b 新"));
    EXPECT_NE(report.Path(), second.Path());
    report.Add("delete", "/x\ny");
    report.Add("end", "");
    ASSERT_FALSE(report.Write(true));
    const std::vector<std::string> lines = kit::ReadLines(PathFromUtf8(report.Path()));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(19), "Z task a/b 新");
    EXPECT_EQ(lines[1].substr(19), "Z delete /x\\ny");
    EXPECT_EQ(lines[2].substr(19), "Z end");
    const std::string name = Utf8FromPath(PathFromUtf8(report.Path()).filename());
    EXPECT_EQ(name.substr(0, 7), "delete_");
    EXPECT_EQ(name.substr(22, 9), "_a_b_____") << name;
}

TEST(Report, StandsBelowTheLogFolderWhenNothingElseIsSaid) {
    const kit::TempDir dir;
    const kit::ScopedEnvironment none("RQ_REPORT_DIR", std::nullopt);
    const kit::ScopedEnvironment logs("RQ_LOG_DIR", dir.Utf8());
    EXPECT_EQ(ReportFolder(), dir.Utf8("reports"));
}

TEST(Report, SaysWhatToDoWhenItCannotBeMade) {
    const kit::TempDir dir;
    dir.Write("file", "");
    const kit::ScopedEnvironment folder("RQ_REPORT_DIR", dir.Utf8("file"));
    Report report;
    const auto failure = report.Create("delete", "x");
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->words.rfind(dir.Utf8("file") + ": the report cannot be written: ", 0), 0u)
        << failure->words;
    EXPECT_NE(failure->words.find("RQ_REPORT_DIR"), std::string::npos);
    const kit::ScopedEnvironment relative("RQ_REPORT_DIR", "relative");
    ASSERT_TRUE(report.Create("delete", "x"));
}

}  // namespace
}  // namespace rq::task

// OVLInitWriteLog and OVLWriteLog in processes of their own: what a log file holds after each way to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <regex>

#include "base/paths.h"
#include "base/text.h"
#include "kit/child.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"
#include "util/directories.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

class LogTest : public testing::Test {
  protected:
    LogTest() : m_log(m_folder.Path() / "RQWorker" / "20170531" / PathFromUtf8("任务_W.log")) {}

    std::unique_ptr<kit::Child> Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin() + 1, Utf8FromPath(m_log));
        return std::make_unique<kit::Child>(RQ_LOG_WRITER, arguments);
    }
    int Run(std::vector<std::string> arguments) { return Start(std::move(arguments))->ExitCode(); }
    std::vector<std::string> Lines() const { return kit::ReadLines(m_log); }

    kit::TempDir m_folder;
    const std::filesystem::path m_log;
};

TEST_F(LogTest, EveryFormGoesToTheRegisteredFile) {
    ASSERT_EQ(Run({"forms"}), 0);
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 6u);
    const char* heads[] = {"[2] [thread_get_status] [BASE]",
                           "[4] [] [MAIN]",
                           "[3] [ACT] [PROG]",
                           "[5] [ACT] [MAIN]",
                           "[1] [ACT] [MAIN]",
                           "[1] [ACT] [MAIN]"};
    const char* texts[] = {"an unregistered tag", "the untagged form", "\xE5\xAE\xBD the wide form",
                           "a level too high",    "a level too low",   "two\\nlines\\r\\nand\ta tab"};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].substr(27, std::string(heads[i]).size()), heads[i]) << lines[i];
        EXPECT_TRUE(lines[i].ends_with(std::string("] ") + texts[i])) << lines[i];
    }
}

TEST_F(LogTest, LinesBeforeTheFirstRegistrationGoNowhere) {
    ASSERT_EQ(Run({"forms"}), 0);
    for (const std::string& line : Lines()) EXPECT_EQ(line.find("before any"), std::string::npos);
}

TEST_F(LogTest, SeveralProcessesAndThreadsShareAFile) {
    constexpr int kProcesses = 3, kThreads = 4, kLinesEach = 2000;
    std::vector<std::unique_ptr<kit::Child>> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(
            Start({"lines", "p" + std::to_string(p), std::to_string(kThreads), std::to_string(kLinesEach)}));
    }
    for (auto& child : children) ASSERT_EQ(child->ExitCode(), 0);

    const std::regex form(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[1\] \[ACT\] \[MAIN\] \[\d+/\d+\] (p\d\.\d)\.(\d+) (x*))");
    std::map<std::string, int> next;
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), std::size_t{kProcesses * kThreads * kLinesEach});
    for (const std::string& line : lines) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, form)) << line;
        const int number = std::stoi(parts[2]);
        EXPECT_EQ(number, next[parts[1]]++);  // each thread's lines are in order
        EXPECT_EQ(parts[3].length(), number % 97);
    }
    EXPECT_EQ(next.size(), std::size_t{kProcesses * kThreads});
}

TEST_F(LogTest, LevelThreeIsWrittenAtOnce) {
    ASSERT_EQ(Run({"level", "3"}), 0);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(LogTest, LevelTwoIsBuffered) {
    ASSERT_EQ(Run({"level", "2"}), 0);
    EXPECT_EQ(Lines().size(), 0u);
}

TEST_F(LogTest, BufferedLinesAreWrittenWhileTheProcessIdles) {
    const auto child = Start({"idle"});
    EXPECT_TRUE(kit::WaitForText(m_log, "] the line\n"));
    child->Kill();
}

TEST_F(LogTest, FlushBeforeAnAbort) {
    EXPECT_NE(Run({"flush"}), 0);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(LogTest, ACrashWritesWhatIsBuffered) {
    EXPECT_NE(Run({"crash"}), 0);
    EXPECT_EQ(Lines().size(), 1u);
}

TEST_F(LogTest, AnUnusableFolderStopsNothing) {
    m_folder.Write("RQWorker", "a file where a folder should be");
    const auto child = Start({"forms"});
    EXPECT_EQ(child->ExitCode(), 0);
    const std::string errors = child->Errors();
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_EQ(child->Output(), "");
}

// The day's folder is part of the path that is registered, and that path stays.
TEST_F(LogTest, ADayChangeDoesNotMoveTheLog) {
    using namespace KWOVL_UTILITY;
    const kit::ScopedEnvironment root("RQ_LOG_DIR", m_folder.Utf8("days"));
    ForgetProcessDirectories();
    kit::ScopedEnvironment east("TZ", "XXX-12");
    kit::TakeTimeZone();
    const std::wstring today = GetDailyLogDir();
    OVLInitWriteLog("day", today + L"_W.log", true);
    OVLWriteLog("day", 3, "before midnight", "MAIN");
    {
        const kit::ScopedEnvironment west("TZ", "XXX+12");  // 24 hours between them: another date
        kit::TakeTimeZone();
        EXPECT_NE(GetDailyLogDir(), today);
        OVLWriteLog("day", 3, "after midnight", "MAIN");
    }
    kit::TakeTimeZone();
    EXPECT_EQ(kit::ReadLines(PathFromWide(today + L"_W.log")).size(), 2u);
    EXPECT_EQ(kit::FindFiles(m_folder.Path() / "days", ".log").size(), 1u);
    ForgetProcessDirectories();
}

// In this process: a second tag has a file of its own, a tag registered again means the new file.
TEST_F(LogTest, TagsHaveFilesOfTheirOwn) {
    using namespace KWOVL_UTILITY;
    OVLInitWriteLog("first", WidenUtf8(m_folder.Utf8("first.log")), true);
    OVLInitWriteLog("second", WidenUtf8(m_folder.Utf8("second.log")), true);
    OVLWriteLog("first", 1, "to the first", "MAIN");
    OVLWriteLog("second", 1, "to the second", "MAIN");
    OVLInitWriteLog("second", WidenUtf8(m_folder.Utf8("third.log")), true);
    OVLWriteLog("second", 1, "to the third", "MAIN");
    OVLInitWriteLog("fourth", WidenUtf8(m_folder.Utf8("third.log")), true);
    OVLWriteLog("fourth", 1, "to the third too", "MAIN");
    OVLFlushLog();
    EXPECT_EQ(kit::ReadLines(m_folder.Path() / "first.log").size(), 1u);
    EXPECT_EQ(kit::ReadLines(m_folder.Path() / "second.log").size(), 1u);
    EXPECT_EQ(kit::ReadLines(m_folder.Path() / "third.log").size(), 2u);
}

}  // namespace
}  // namespace rq

#include "log/log_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <regex>
#include <thread>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq {
namespace {

void Write(LogFile& file, std::string_view text) {
    const spdlog::source_loc place{"MAIN", 1, "ACT"};
    file.log(spdlog::details::log_msg(place, "log", spdlog::level::warn, {text.data(), text.size()}));
}

class LogFileTest : public testing::Test {
  protected:
    std::filesystem::path Path(const char* name) const { return m_folder.Path() / name; }
    std::string Bytes(const char* name) const { return kit::ReadBytes(Path(name)); }
    bool Exists(const char* name) const { return std::filesystem::exists(Path(name)); }

    kit::TempDir m_folder;
};

TEST_F(LogFileTest, ALineHasTimeLevelTagModuleThreadAndText) {
    LogFile file(m_folder.Utf8("a_W.log"));
    Write(file, "Eos Called!");
    file.flush();
    const std::regex form(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[3\] \[ACT\] \[MAIN\] \[\d+/\d+\] Eos Called!\n)");
    EXPECT_TRUE(std::regex_match(Bytes("a_W.log"), form)) << Bytes("a_W.log");
}

// The last line of a crash has the form of every other, and the same clock.
TEST_F(LogFileTest, ACrashLineIsWrittenAtOnceInTheSameForm) {
    LogFile file(m_folder.Utf8("a_W.log"));
    Write(file, "Eos Called!");
    file.CrashFlush();
    file.CrashLine("crashed with SIGSEGV", 815);
    const auto lines = kit::ReadLines(Path("a_W.log"));
    ASSERT_EQ(lines.size(), 2u);
    const std::regex form(
        R"((\d{4}-\d\d-\d\d \d\d:)\d\d:\d\d\.\d{6} \[(\d)\] \[ACT\] \[MAIN\] (\[\d+/)(\d+)\] .*)");
    std::smatch ordinary;
    std::smatch crash;
    ASSERT_TRUE(std::regex_match(lines[0], ordinary, form)) << lines[0];
    ASSERT_TRUE(std::regex_match(lines[1], crash, form)) << lines[1];
    EXPECT_GE(crash[1], ordinary[1]) << "not local time";
    EXPECT_LE(lines[0].substr(0, 26), lines[1].substr(0, 26)) << "not local time";
    EXPECT_EQ(crash[2], "5");
    EXPECT_EQ(crash[3], ordinary[3]) << "the process";
    EXPECT_EQ(crash[4], "815");
    EXPECT_TRUE(lines[1].ends_with("] crashed with SIGSEGV")) << lines[1];
}

TEST_F(LogFileTest, MissingFoldersAreMade) {
    LogFile file(m_folder.Utf8("一/two words/a.log"));
    EXPECT_TRUE(file.IsOpen());
    Write(file, "x");
    file.flush();
    EXPECT_EQ(kit::ReadLines(m_folder.Path() / PathFromUtf8("一/two words/a.log")).size(), 1u);
}

TEST_F(LogFileTest, AFileThatCannotBeOpenedTakesLinesWithoutHarm) {
    m_folder.Write("file", "not a folder");
    testing::internal::CaptureStderr();
    LogFile file(m_folder.Utf8("file/below/a.log"));
    Write(file, "lost");
    file.flush();
    file.CrashFlush();
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_NE(errors.find("file/below/a.log"), std::string::npos) << errors;
}

TEST_F(LogFileTest, LinesAreAppendedToWhatIsThere) {
    m_folder.Write("a.log", "old\n");
    {
        LogFile file(m_folder.Utf8("a.log"));
        Write(file, "new");
    }
    const auto lines = kit::ReadLines(Path("a.log"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "old");
    EXPECT_TRUE(lines[1].ends_with("] new"));
}

TEST_F(LogFileTest, BufferedLinesStayInMemoryUntilAFlush) {
    LogFile file(m_folder.Utf8("a.log"));
    Write(file, "x");
    EXPECT_EQ(Bytes("a.log"), "");
    file.CrashFlush();
    EXPECT_TRUE(Bytes("a.log").ends_with("] x\n"));
    file.flush();
    EXPECT_EQ(kit::ReadLines(Path("a.log")).size(), 1u);
}

// Other threads log on while the crash is reported.
TEST_F(LogFileTest, ACrashWritesEachLineOnceAndLosesNone) {
    LogFile file(m_folder.Utf8("a.log"));
    for (const char* text : {"1", "2", "3", "4"}) {
        Write(file, text);
        file.CrashFlush();
        file.CrashFlush();
        if (*text == '2') file.flush();
    }
    Write(file, "5");
    file.flush();
    Write(file, "6");
    file.CrashFlush();
    const auto lines = kit::ReadLines(Path("a.log"));
    ASSERT_EQ(lines.size(), 6u);
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(lines[i].ends_with("] " + std::to_string(i + 1))) << lines[i];
}

TEST_F(LogFileTest, ACrashMeetsAThreadThatLogs) {
    constexpr int kRounds = 20;  // the two threads do not always meet
    constexpr int kLines = 600;  // fewer than the buffer takes
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = std::to_string(round) + ".log";
        LogFile file(m_folder.Utf8(name));
        std::atomic<bool> isDone{false};
        std::thread other([&] {
            for (int i = 0; i < kLines; ++i) Write(file, std::to_string(i));
            isDone = true;
        });
        while (!isDone) file.CrashFlush();
        other.join();
        file.CrashFlush();
        const auto lines = kit::ReadLines(m_folder.Path() / name);
        ASSERT_EQ(lines.size(), std::size_t{kLines});
        for (int i = 0; i < kLines; ++i)
            ASSERT_TRUE(lines[i].ends_with("] " + std::to_string(i))) << lines[i];
    }
}

TEST_F(LogFileTest, AFullBufferIsWrittenAsWholeLines) {
    LogFile file(m_folder.Utf8("a.log"));
    for (int i = 0; i < 100; ++i) Write(file, std::string(1000, 'x'));
    const std::string bytes = Bytes("a.log");
    ASSERT_FALSE(bytes.empty());
    EXPECT_TRUE(bytes.ends_with("x\n"));
    file.flush();
    EXPECT_EQ(kit::ReadLines(Path("a.log")).size(), 100u);
}

TEST_F(LogFileTest, ALineLongerThanTheBufferKeepsItsPlace) {
    LogFile file(m_folder.Utf8("a.log"));
    Write(file, "first");
    Write(file, std::string(200'000, 'y'));
    Write(file, "last");
    file.flush();
    const auto lines = kit::ReadLines(Path("a.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].ends_with("] first"));
    EXPECT_TRUE(lines[1].ends_with("] " + std::string(200'000, 'y')));
    EXPECT_TRUE(lines[2].ends_with("] last"));
}

TEST_F(LogFileTest, AFullFileIsContinuedUnderTheNextNumber) {
    LogFile file(m_folder.Utf8("task_W.log"), LogLimits{150, 2});
    for (int i = 0; i < 4; ++i) {
        Write(file, std::to_string(i) + std::string(200, 'x'));
        file.flush();
    }
    // Each flush fills a file, and the next one leaves it. The first and the two newest are kept.
    EXPECT_TRUE(Exists("task_W.log"));
    EXPECT_FALSE(Exists("task_W.1.log"));
    EXPECT_TRUE(Exists("task_W.2.log"));
    EXPECT_TRUE(Exists("task_W.3.log"));
    EXPECT_FALSE(Exists("task_W.4.log"));
    EXPECT_NE(Bytes("task_W.log").find("] 0x"), std::string::npos);
    EXPECT_NE(Bytes("task_W.3.log").find("] 3x"), std::string::npos);
}

TEST_F(LogFileTest, AnotherWritersContinuationIsFollowed) {
    LogFile first(m_folder.Utf8("_W.log"), LogLimits{150, 5});
    LogFile second(m_folder.Utf8("_W.log"), LogLimits{150, 5});
    Write(first, std::string(200, 'a'));
    first.flush();
    Write(first, "a");
    first.flush();  // goes on in number 1
    for (const char* text : {"b", "c"}) {
        Write(second, text);
        second.flush();  // its file is full: it follows before it writes
    }
    EXPECT_EQ(kit::ReadLines(Path("_W.log")).size(), 1u);
    EXPECT_EQ(kit::ReadLines(Path("_W.1.log")).size(), 3u);
    EXPECT_FALSE(Exists("_W.2.log"));
}

// The file of a writer that was quiet for long has been left and removed by others; none of its lines may
// go there, however long they are.
TEST_F(LogFileTest, NoLineGoesToAFileThatOthersHaveRemoved) {
    LogFile busy(m_folder.Utf8("_W.log"), LogLimits{150, 1});
    const auto fill = [&] {
        Write(busy, std::string(200, 'a'));
        busy.flush();
    };
    fill();
    fill();
    LogFile quiet(m_folder.Utf8("_W.log"), LogLimits{300, 9});  // in number 1
    LogFile quietToo(m_folder.Utf8("_W.log"), LogLimits{300, 9});
    Write(quiet, "hello");
    quiet.flush();
    for (int i = 0; i < 3; ++i) fill();
    Write(quiet, std::string(200, 'q'));
    quiet.flush();
    Write(quietToo, std::string(100'000, 'r'));
    std::string all;
    for (const auto& file : kit::FindFiles(m_folder.Path(), ".log")) {
        // A removed file that is open may still have its name.
        if (file.filename() != "_W.1.log") all += kit::ReadBytes(file);
    }
    EXPECT_NE(all.find("] q"), std::string::npos);
    EXPECT_NE(all.find("] r"), std::string::npos);
}

TEST_F(LogFileTest, ANewWriterBeginsInTheNewestFile) {
    m_folder.Write("_W.log", std::string(300, 'a'));
    m_folder.Write("_W.12.log", "here\n");
    m_folder.Write("_W.x.log", "");
    m_folder.Write("_W.99.txt", "");
    {
        LogFile file(m_folder.Utf8("_W.log"), LogLimits{150, 5});
        Write(file, "b");
    }
    EXPECT_EQ(kit::ReadLines(Path("_W.12.log")).size(), 2u);
}

}  // namespace
}  // namespace rq

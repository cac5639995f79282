// The real program of the stage, and a real restart.
#include <gtest/gtest.h>

#include <algorithm>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/os.h"
#include "kit/stage_copy.h"
#include "platform/codepage.h"

namespace rq {
namespace {

// Each address ("0x" and its digits) becomes "@".
std::string WithoutAddresses(std::string text) {
    for (auto at = text.find("0x"); at != std::string::npos; at = text.find("0x", at)) {
        const auto end = std::min(text.find_first_not_of("0123456789abcdef", at + 2), text.size());
        text.replace(at, end - at, "@");
    }
    return text;
}

class ProgramTest : public ::testing::Test {
  protected:
    kit::Child Run(const std::vector<std::string>& arguments) {
        kit::Child::Options options;
        options.environment = {{"RQ_LOG_DIR", m_dir.Utf8("日志")}, {"RQ_CONSOLE_ENCODING", ""}};
        options.directory = m_dir.Path();
        return kit::Child(kit::ProgramIn(kit::StageFolder(), "RQWorkerU"), arguments, options);
    }
    // What a run to the end writes, from GBK; each address becomes "@".
    std::string OutputOf(const std::vector<std::string>& arguments) {
        kit::Child child = Run(arguments);
        EXPECT_EQ(child.ExitCode(), 0) << child.Errors();
        const auto text = platform::GbkToUtf8(child.Output());
        EXPECT_TRUE(text) << "not GBK";
        return WithoutAddresses(text.value_or(""));
    }
    std::string Log() const {
        std::string all;
        for (const auto& path : kit::FindFiles(m_dir.Path(), "_W.log")) all += kit::ReadBytes(path);
        return all;
    }

    kit::TempDir m_dir;
};

const std::string kUsageBegin = "用法：RQWorkerU.exe Type Params-String\n\nType:\n\ttc\t转码\n";
const std::string kUsageEnd = " lc  响度控制任务\n kf  抽帧\n";

TEST_F(ProgramTest, WithoutArguments) {
    const std::string output = OutputOf({});
    EXPECT_EQ(output.find("argc:\n1" + kUsageBegin), 0u) << output;
    EXPECT_TRUE(output.ends_with(kUsageEnd)) << output;
}

TEST_F(ProgramTest, WithATypeAlone) {
    const std::string output = OutputOf({"mc"});
    EXPECT_EQ(output.find("argc:\n2" + kUsageBegin), 0u) << output;
    EXPECT_TRUE(output.ends_with(kUsageEnd + "Type:\n@")) << output;
}

TEST_F(ProgramTest, WithTypeAndTextNothingRuns) {
    EXPECT_EQ(OutputOf({"mc", "<x/>"}), "argc:\n3Type:\n@");
    EXPECT_EQ(Log().find("Begin DoWork"), std::string::npos);
}

TEST_F(ProgramTest, ARejectedTypeAsText) {
    EXPECT_EQ(OutputOf({"pd", "任务", "1"}),
              "argc:\n4Type:\n@ServerPort:\n@Type:\n@Cmd:\n@输入的类型参数不正确\n");
    const std::string log = Log();
    for (const char* text :
         {"RQWorkerU.exe Version:1.13.0.0 build20170531", "==>Worker Begin Load CrashDump.dll",
          "==>Worker End Load CrashDump.dll", "Eos Called!", "==>Worker Begin DoWork",
          "The input type para is wrong. type:pd"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text << " is not in:\n" << log;
    }
    EXPECT_EQ(log.find("Error when loading CrashDump.dll."), std::string::npos)
        << "the stage has the library";
}

TEST_F(ProgramTest, ARejectedTypeWithAFileNamesTheLogAfterIt) {
    m_dir.Write("任务 1.task.xml", "<x/>");
    EXPECT_EQ(OutputOf({"300", m_dir.Utf8("任务 1.task.xml"), "1", "1"}),
              "argc:\n5Type:\n@ServerPort:\n@Cmd:\n@FileFlag:\n@输入的类型参数不正确\n");
    const auto logs = kit::FindFiles(m_dir.Path(), "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(Utf8FromPath(logs[0].filename()), "任务 1_W.log");
}

TEST_F(ProgramTest, MoreArgumentsRunNothing) {
    EXPECT_EQ(OutputOf({"mc", "<x/>", "1", "1", "1"}), "argc:\n6Type:\n@ServerPort:\n@");
}

// While it waits for an engine that is not there.
TEST_F(ProgramTest, ACrashIsToldOnStandardErrorAndEndsTheProcess) {
    // Port 1 is nobody's.
    kit::Child child = Run({"mc", "<x/>", "1"});
    ASSERT_TRUE(kit::WaitUntil([&] { return child.Output().find("Cmd:") != std::string::npos; }));
    ASSERT_TRUE(kit::WaitUntil([&] { return !kit::FindFiles(m_dir.Path(), "_C.log").empty(); })) << Log();
    const kit::CrashSigns crash = kit::CrashProcess(child.Id());
    EXPECT_EQ(child.ExitCode(), 1000 + crash.code);
    EXPECT_EQ(child.Errors().find("RQWorkerU: crashed with " + crash.name), 0u) << child.Errors();
    EXPECT_NE(Log().find("==>Worker Begin init.."), std::string::npos) << "lost: the log's last lines";
    const auto reports = kit::FindFiles(m_dir.Path(), kit::CrashReportEnding());
    ASSERT_EQ(reports.size(), 1u);
    const auto logs = kit::FindFiles(m_dir.Path(), "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(reports[0].parent_path(), logs[0].parent_path());
    const std::string last = kit::ReadLines(logs[0]).back();
    EXPECT_NE(last.find(" [5] [ACT] [MAIN] ["), std::string::npos) << last;
    EXPECT_NE(last.find("crashed with "), std::string::npos) << last;
    EXPECT_TRUE(last.ends_with(Utf8FromPath(reports[0].filename()))) << last;
}

class RestartTest : public ::testing::Test {
  protected:
    RestartTest() {
        std::filesystem::copy_file(PathFromUtf8(RQ_RESTART_FIXTURE), m_program);
        m_options.directory = m_dir.Path();
        m_options.environment = {{"RQ_LOG_DIR", m_dir.Utf8("logs")}};
    }
    std::size_t Reports() const {
        return kit::FindFiles(m_dir.Path() / "logs", kit::CrashReportEnding()).size();
    }

    // Level and text of each line of the program's log.
    std::vector<std::string> Log() const {
        std::vector<std::string> lines;
        for (const std::string& line : kit::ReadLines(m_dir.Path() / PathFromUtf8(m_name + ".log"))) {
            const auto level = line.find(" [");
            const auto text = line.find("] ", line.find('/'));
            if (level == std::string::npos || text == std::string::npos) return {"not a log line: " + line};
            lines.push_back(line.substr(level + 2, 1) + line.substr(text + 1));
        }
        return lines;
    }

    kit::TempDir m_dir;
    // "<folder>/重启 worker", with the platform's ending.
    const std::string m_name = "重启 worker" + Utf8FromPath(PathFromUtf8(RQ_RESTART_FIXTURE).extension());
    const std::filesystem::path m_program = m_dir.Path() / PathFromUtf8(m_name);
    kit::Child::Options m_options;
};

TEST_F(RestartTest, StartsACopyWithoutArgumentsAndAborts) {
    m_dir.Write("worker.uid", "x");
    kit::Child child(m_program, {"time-out"}, m_options);
    EXPECT_EQ(child.ExitCode(), kit::Codes().abortExit);
    EXPECT_EQ(child.Errors(), "") << "a wanted abort says nothing";
    EXPECT_TRUE(kit::WaitForText(m_dir.Path() / PathFromUtf8(m_name + ".ran"), "1\n"));
    EXPECT_EQ(Log(), (std::vector<std::string>{"1 before", "3 patrol timeout, will restart worker .",
                                               "3 will abort this worker..."}));
    EXPECT_EQ(Reports(), 0u) << "a wanted abort leaves nothing";
}

// It cannot be let go of by a process that does not hold it.
TEST_F(RestartTest, ALockHeldElsewhereEndsTheProcessByTheException) {
    const auto file = m_dir.Write("worker.uid", "x");
    kit::Child holder(PathFromUtf8(RQ_LOCK_FIXTURE), {Utf8FromPath(file)});
    ASSERT_TRUE(kit::WaitForText(holder.OutputFile(), "locked"));
    kit::Child child(m_program, {"time-out"}, m_options);
    EXPECT_EQ(child.ExitCode(), kit::Codes().abortExit);
    EXPECT_NE(child.Errors().find("crashed with SIGABRT"), std::string::npos) << child.Errors();
    EXPECT_FALSE(std::filesystem::exists(m_dir.Path() / PathFromUtf8(m_name + ".ran")));
    const auto log = Log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0], "1 before");
    EXPECT_EQ(log[1].find("5 crashed with SIGABRT in thread "), 0u) << log[1];
    EXPECT_EQ(Reports(), 1u);
}

TEST_F(RestartTest, WithoutTheLockFileTheExceptionEndsTheProcess) {
    kit::Child child(m_program, {"time-out"}, m_options);
    EXPECT_EQ(child.ExitCode(), kit::Codes().abortExit);
    EXPECT_NE(child.Errors().find("crashed with SIGABRT"), std::string::npos) << child.Errors();
    EXPECT_FALSE(std::filesystem::exists(m_dir.Path() / PathFromUtf8(m_name + ".ran")));
}

}  // namespace
}  // namespace rq

// What the real program writes, byte for byte, and what it writes without parts of its stage.
#include <gtest/gtest.h>

#include <algorithm>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/stage_copy.h"
#include "platform/codepage.h"
#include "platform/library.h"

namespace rq {
namespace {

const std::string kUsage =
    "用法：RQWorkerU.exe Type Params-String\n"
    "\n"
    "Type:\n"
    "\ttc\t转码\n"
    "\ttf\t传输\n"
    "\tvac\t技审\n"
    "\tmc\tMD5计算\n"
    "\tmv\tMD5校验\n"
    "\tmix\t混合任务\n"
    "\tpd\t路径检测\n"
    "\tgfs\t源文件大小检测\n"
    "\tdf\t删除任务文件\n"
    "\trp\t修复\n"
    "\tfc\t文件检测\n"
    "\titc\t实时合并，Manager在分布式转码中自动添加\n"
    "\tirc\t分布式技审中的技审结果合并任务\n"
    " lc  响度控制任务\n"
    " kf  抽帧\n";

class ProgramConsole : public ::testing::Test {
  protected:
    ProgramConsole() {
        m_options.environment = {{"RQ_LOG_DIR", m_dir.Utf8("日志")}, {"RQ_CONSOLE_ENCODING", ""}};
        m_options.directory = m_dir.Path();
    }
    void SetEncoding(const std::string& name) { m_options.environment[1].second = name; }

    // Run to the end, its exit code 0.
    std::string BytesOf(const std::vector<std::string>& arguments,
                        const std::filesystem::path& stage = kit::StageFolder()) {
        kit::Child child(kit::ProgramIn(stage, "RQWorkerU"), arguments, m_options);
        EXPECT_EQ(child.ExitCode(), 0) << child.Errors();
        return child.Output();
    }
    // "[level] [tag] [module] text" of each line.
    std::vector<std::string> Log() const {
        std::vector<std::string> lines;
        for (const auto& path : kit::FindFiles(m_dir.Path(), "_W.log")) {
            for (const std::string& line : kit::ReadLines(path)) lines.push_back(WithoutTimeAndThread(line));
        }
        return lines;
    }
    static std::string WithoutTimeAndThread(const std::string& line) {
        const auto level = line.find(" [");
        const auto process = line.find('/');
        const auto begin = line.rfind(" [", process);
        const auto end = line.find("] ", process);
        if (level == std::string::npos || process == std::string::npos || end == std::string::npos)
            return line;
        return line.substr(level + 1, begin - level - 1) + line.substr(end + 1);
    }

    kit::TempDir m_dir;
    kit::Child::Options m_options;
};

TEST_F(ProgramConsole, TheWholeUsageInGbkWhenRedirected) {
    EXPECT_EQ(BytesOf({}), "argc:\n1" + platform::Utf8ToGbk(kUsage));
}

TEST_F(ProgramConsole, AForcedEncodingHolds) {
    SetEncoding("UTF-8");
    EXPECT_EQ(BytesOf({}), "argc:\n1" + kUsage);
    SetEncoding("GBK");
    EXPECT_EQ(BytesOf({}), "argc:\n1" + platform::Utf8ToGbk(kUsage));
}

TEST_F(ProgramConsole, TheRejectionOfATypeInTheForcedEncoding) {
    SetEncoding("UTF-8");
    const std::string output = BytesOf({"mix", "x", "1"});
    EXPECT_TRUE(output.ends_with("输入的类型参数不正确\n")) << output;
    SetEncoding("");
    EXPECT_TRUE(BytesOf({"mix", "x", "1"}).ends_with(platform::Utf8ToGbk("输入的类型参数不正确\n")));
}

TEST_F(ProgramConsole, WithoutAParameterFileTheLogHasNoPrefix) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"mc"}, {"mc", "<x/>"}, {"pd", "x", "1"}, {"mc", "x", "1", "2", "3"}}) {
        BytesOf(arguments);
        const auto logs = kit::FindFiles(m_dir.Path(), ".log");
        ASSERT_EQ(logs.size(), 1u) << arguments.size();
        EXPECT_EQ(Utf8FromPath(logs[0].filename()), "_W.log") << arguments.size();
    }
}

// Neither a file without a folder nor one that is not there stops the start; what the flag says is nobody's
// concern.
TEST_F(ProgramConsole, AFileWithoutAFolderLeavesThePrefixEmptyWhateverTheFlag) {
    m_dir.Write("task.xml", "<x/>");
    for (const char* flag : {"0", "1", "-7", "x", ""}) {
        BytesOf({"300", "task.xml", "1", flag});
        BytesOf({"300", "none.xml", "1", flag});
        const auto logs = kit::FindFiles(m_dir.Path(), ".log");
        ASSERT_EQ(logs.size(), 1u) << flag;
        EXPECT_EQ(Utf8FromPath(logs[0].filename()), "_W.log") << flag;
    }
}

TEST_F(ProgramConsole, APackageNamesItsLogByTheTime) {
    m_dir.Write("jobs/task.xml", "<x/>");
    kit::Child child(kit::ProgramIn(kit::StageFolder(), "RQWorkerU"),
                     {"14", m_dir.Utf8("jobs/task.xml"), "1", "1"}, m_options);
    ASSERT_TRUE(kit::WaitUntil([&] { return !kit::FindFiles(m_dir.Path(), "_W.log").empty(); }));
    const std::string name = Utf8FromPath(kit::FindFiles(m_dir.Path(), "_W.log")[0].filename());
    child.Kill();
    child.Wait();
    // Package_YYYYMMDD.HHMMSS.ffffff_W.log; the fraction is left out when it is zero.
    EXPECT_EQ(name.rfind("Package_", 0), 0u) << name;
    EXPECT_EQ(name[16], '.') << name;
    EXPECT_TRUE(name.size() == 8 + 8 + 1 + 6 + 7 + 6 || name.size() == 8 + 8 + 1 + 6 + 6) << name;
    EXPECT_EQ(name.find_first_not_of("0123456789.", 8), name.find("_W.log")) << name;
}

TEST_F(ProgramConsole, TheLogOfARunThatIsRejected) {
    BytesOf({"mix", "x", "1"});
    EXPECT_EQ(Log(), (std::vector<std::string>{
                         "[2] [ACT] [MAIN] RQWorkerU.exe Version:1.13.0.0 build20170531",
                         "[1] [ACT] [MAIN] ==>Worker Begin Load CrashDump.dll",
                         "[1] [ACT] [MAIN] ==>Worker End Load CrashDump.dll",
                         "[3] [ACT] [MAIN] Eos Called!",
                         "[1] [ACT] [MAIN] ==>Worker Begin DoWork",
                         "[4] [] [MAIN] The input type para is wrong. type:mix",
                     }));
}

TEST_F(ProgramConsole, WithoutTheCrashLibraryTheStartGoesOn) {
    const auto stage = m_dir.Path() / "stage";
    kit::CopyStage(stage);
    std::filesystem::remove(stage / PathFromUtf8(platform::SharedLibraryFileName("CrashDump")));
    BytesOf({"mc", "<x/>"}, stage);
    EXPECT_EQ(Log(), (std::vector<std::string>{
                         "[2] [ACT] [MAIN] RQWorkerU.exe Version:1.13.0.0 build20170531",
                         "[1] [ACT] [MAIN] ==>Worker Begin Load CrashDump.dll",
                         "[3] [ACT] [MAIN] Error when loading CrashDump.dll.",
                         "[1] [ACT] [MAIN] ==>Worker End Load CrashDump.dll",
                     }));
}

TEST_F(ProgramConsole, ALogFolderThatCannotBeMadeStopsNothing) {
    m_dir.Write("日志", "a file stands where the folder would be");
    EXPECT_EQ(BytesOf({"mc", "<x/>"}).rfind("argc:\n3Type:\n", 0), 0u);
}

}  // namespace
}  // namespace rq

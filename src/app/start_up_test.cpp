#include "app/start_up.h"

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "base/paths.h"
#include "kit/fake_clock.h"
#include "kit/files.h"
#include "kit/temp_dir.h"
#include "platform/library.h"
#include "util/console_capture.h"
#include "util/directories.h"
#include "util/log_capture.h"
#include "util/output_capture.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {
namespace {

class StartUpTest : public ::testing::Test {
  protected:
    StartUpTest() : m_logDir("RQ_LOG_DIR", m_dir.Utf8("logs")) {
        ForgetProcessDirectories();
        ProcessCommandLine() = {};
        m_seams.moduleHandle = [this] { return m_module; };
        m_seams.initialiseMfc = [this](void* module) { return m_mfc && module == m_module; };
        m_seams.loadLibrary = [this](const std::string& fileName) {
            m_loaded.push_back(fileName);
            return m_crashDump;
        };
        m_seams.pause = [this] {
            const bool isUsageShown = m_console.Text().ends_with(" kf  抽帧\n");
            m_calls.push_back(isUsageShown ? "pause" : "early");
        };
        m_seams.runWorker = [this](const std::string& type, const std::string& parameters) {
            m_calls.push_back("run " + type + " [" + parameters + "]");
            m_consoleAtRun = m_console.Text();
            return -1;
        };
        m_seams.clock = &m_clock;
    }
    ~StartUpTest() override { ForgetProcessDirectories(); }

    // Starts with the program's name and these.
    int Start(std::vector<std::wstring> arguments) {
        arguments.insert(arguments.begin(), L"RQWorkerU");
        m_arguments = std::move(arguments);
        m_pointers.clear();
        for (auto& text : m_arguments) m_pointers.push_back(text.data());
        m_pointers.push_back(nullptr);
        return StartUp(static_cast<int>(m_arguments.size()), m_pointers.data(), m_seams);
    }
    // What an echo of the argument looks like.
    std::string Echo(const std::string& label, int index) const {
        return label + "\n" + PointerText(m_pointers[static_cast<std::size_t>(index)]);
    }
    // The names of the worker logs that were made.
    std::vector<std::string> LogNames() const {
        std::vector<std::string> names;
        for (const auto& path : kit::FindFiles(m_dir.Path() / "logs", "_W.log")) {
            names.push_back(Utf8FromPath(path.filename()));
        }
        return names;
    }

    kit::TempDir m_dir;
    kit::ScopedEnvironment m_logDir;
    int m_object = 0;
    void* m_module = &m_object;
    void* m_crashDump = &m_object;
    bool m_mfc = true;
    kit::FakeClock m_clock;
    StartUpSeams m_seams;
    LogCapture m_log;
    ConsoleCapture m_console;
    std::vector<std::string> m_calls;
    std::vector<std::string> m_loaded;
    std::string m_consoleAtRun;
    std::vector<std::wstring> m_arguments;
    std::vector<wchar_t*> m_pointers;
};

const std::string kUsage =
    "用法：RQWorkerU.exe Type Params-String\n\n"
    "Type:\n"
    "\ttc\t转码\n\ttf\t传输\n\tvac\t技审\n\tmc\tMD5计算\n\tmv\tMD5校验\n\tmix\t混合任务\n\tpd\t路径检测\n"
    "\tgfs\t源文件大小检测\n\tdf\t删除任务文件\n\trp\t修复\n\tfc\t文件检测\n"
    "\titc\t实时合并，Manager在分布式转码中自动添加\n\tirc\t分布式技审中的技审结果合并任务\n"
    " lc  响度控制任务\n kf  抽帧\n";

TEST_F(StartUpTest, WithoutAModuleHandle) {
    m_module = nullptr;
    EXPECT_EQ(Start({L"mc", L"x", L"1"}), 1);
    EXPECT_EQ(m_console.Text(), "错误: GetModuleHandle 失败\n");
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(StartUpTest, WithoutMfc) {
    m_mfc = false;
    EXPECT_EQ(Start({L"mc", L"x", L"1"}), 1);
    EXPECT_EQ(m_console.Text(), "错误: MFC 初始化失败\n");
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(StartUpTest, NoArgumentEndsAfterTheUsage) {
    EXPECT_EQ(Start({}), 0);
    EXPECT_EQ(m_console.Text(), "argc:\n1" + kUsage);
    EXPECT_EQ(m_calls, (std::vector<std::string>{"pause"}));
}

TEST_F(StartUpTest, OneArgumentEchoesTheTypeAfterTheUsage) {
    EXPECT_EQ(Start({L"mc"}), 0);
    EXPECT_EQ(m_console.Text(), "argc:\n2" + kUsage + Echo("Type:", 1));
    EXPECT_EQ(m_calls, (std::vector<std::string>{"pause"}));
}

TEST_F(StartUpTest, TwoArgumentsRunNothing) {
    EXPECT_EQ(Start({L"mc", L"<x/>"}), 0);
    EXPECT_EQ(m_console.Text(), "argc:\n3" + Echo("Type:", 1));
    EXPECT_TRUE(m_calls.empty());
    EXPECT_EQ(ProcessCommandLine().CommandText, L"");
}

TEST_F(StartUpTest, ThreeArgumentsRunTheTextItself) {
    EXPECT_EQ(Start({L"mc", L"<任务/>", L"8083"}), 0);
    const std::string expected =
        "argc:\n4" + Echo("Type:", 1) + Echo("ServerPort:", 3) + Echo("Type:", 1) + Echo("Cmd:", 2);
    EXPECT_EQ(m_consoleAtRun, expected);
    EXPECT_EQ(m_console.Text(), expected);
    EXPECT_EQ(m_calls, (std::vector<std::string>{"run mc [<任务/>]"}));
    EXPECT_EQ(m_log.Count(3, "Eos Called!"), 1u);
    EXPECT_EQ(ProcessCommandLine().ServerPortOverride, 8083u);
    EXPECT_EQ(ProcessCommandLine().CommandText, L"<任务/>");
    EXPECT_EQ(ProcessCommandLine().LogFilePrefix, L"");
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"_W.log"}));
}

TEST_F(StartUpTest, PortsThatAreNoneAndPortsThatDoNotFit) {
    const std::vector<std::pair<std::wstring, std::uint32_t>> ports = {
        {L"0", 0}, {L"-5", 0}, {L"port", 0}, {L"", 0}, {L"65536", 65536}, {L"99999999999", 4294967295u}};
    for (const auto& [text, number] : ports) {
        ProcessCommandLine() = {};
        EXPECT_EQ(Start({L"mc", L"<x/>", text}), 0);
        EXPECT_EQ(ProcessCommandLine().ServerPortOverride, number) << NarrowUtf8(text);
    }
}

TEST_F(StartUpTest, ThreeArgumentsDoNotReadAFile) {
    const std::string file = m_dir.Utf8("task.xml");
    m_dir.Write("task.xml", "<inside/>");
    Start({L"mc", WidenUtf8(file), L"0"});
    EXPECT_EQ(m_calls, (std::vector<std::string>{"run mc [" + file + "]"}));
}

TEST_F(StartUpTest, FourArgumentsReadTheFile) {
    m_dir.Write("任务42.part1.xml", "<任务/>");
    const std::wstring file = WidenUtf8(m_dir.Utf8("任务42.part1.xml"));
    EXPECT_EQ(Start({L"mc", file, L"9000", L"1"}), 0);
    const std::string expected =
        "argc:\n5" + Echo("Type:", 1) + Echo("ServerPort:", 3) + Echo("Cmd:", 2) + Echo("FileFlag:", 4);
    EXPECT_EQ(m_consoleAtRun, expected);
    EXPECT_EQ(m_calls, (std::vector<std::string>{"run mc [<任务/>]"}));
    EXPECT_EQ(m_log.Count("Eos Called!"), 0u);
    EXPECT_EQ(ProcessCommandLine().ServerPortOverride, 9000u);
    EXPECT_EQ(ProcessCommandLine().CommandText, file);
    EXPECT_EQ(ProcessCommandLine().LogFilePrefix, L"任务42");
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"任务42_W.log"}));
}

TEST_F(StartUpTest, AFileThatCannotBeReadGivesAnEmptyText) {
    EXPECT_EQ(Start({L"tc", WidenUtf8(m_dir.Utf8("missing.xml")), L"x", L"1"}), 0);
    EXPECT_EQ(m_calls, (std::vector<std::string>{"run tc []"}));
    EXPECT_TRUE(m_log.Contains("The file \"" + m_dir.Utf8("missing.xml") + "\" is not used: "));
    EXPECT_EQ(ProcessCommandLine().ServerPortOverride, 0u);  // "x" is no number
}

TEST_F(StartUpTest, AFileWithoutAFolderNamesNoLog) {
    Start({L"mc", L"task42.xml", L"1", L"1"});
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"_W.log"}));
}

TEST_F(StartUpTest, APackageNamesItsLogByTheTime) {
    m_clock.SetLocal(
        LocalTime(boost::gregorian::date(2017, 5, 31),
                  boost::posix_time::time_duration(10, 15, 30) + boost::posix_time::milliseconds(250)));
    Start({L"14", WidenUtf8(m_dir.Utf8("task.xml")), L"1", L"1"});
    EXPECT_EQ(ProcessCommandLine().LogFilePrefix, L"Package_20170531.101530.250000");
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"Package_20170531.101530.250000_W.log"}));
}

// Only the text "14" itself is a package; what counts as the same number later is not.
TEST_F(StartUpTest, OtherTextsOfFourteenNameTheLogAfterTheFile) {
    for (const wchar_t* type : {L"014", L" 14", L"14 ", L"+14", L"23"}) {
        Start({type, WidenUtf8(m_dir.Utf8("task7.xml")), L"1", L"1"});
        EXPECT_EQ(ProcessCommandLine().LogFilePrefix, L"task7") << NarrowUtf8(type);
    }
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"task7_W.log"}));
}

TEST_F(StartUpTest, APackageGivenAsTextNamesNoLog) {
    Start({L"14", L"<x/>", L"1"});
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"_W.log"}));
}

TEST_F(StartUpTest, OnlyFourArgumentsNameTheLog) {
    const std::wstring file = WidenUtf8(m_dir.Utf8("task9.xml"));
    for (const auto& arguments : {std::vector<std::wstring>{L"mc", file},
                                  {L"mc", file, L"1"},
                                  {L"mc", file, L"1", L"1", L"1"},
                                  {L"14", file, L"1", L"1", L"1"},
                                  {L"14", file, L"1", L"1", L"1", L"1"}}) {
        Start(arguments);
        EXPECT_EQ(ProcessCommandLine().LogFilePrefix, L"") << arguments.size();
    }
    EXPECT_EQ(LogNames(), (std::vector<std::string>{"_W.log"}));
}

TEST_F(StartUpTest, MoreArgumentsRunNothing) {
    EXPECT_EQ(Start({L"mc", L"<x/>", L"77", L"1", L"more"}), 0);
    EXPECT_EQ(m_console.Text(), "argc:\n6" + Echo("Type:", 1) + Echo("ServerPort:", 3));
    EXPECT_TRUE(m_calls.empty());
    EXPECT_EQ(ProcessCommandLine().ServerPortOverride, 77u);
    EXPECT_EQ(ProcessCommandLine().CommandText, L"");
}

TEST_F(StartUpTest, LogLines) {
    Start({L"mc", L"<x/>"});
    EXPECT_EQ(m_log.Lines(), (std::vector<LogLine>{
                                 {"ACT", 2, "RQWorkerU.exe Version:1.13.0.0 build20170531", "MAIN"},
                                 {"ACT", 1, "==>Worker Begin Load CrashDump.dll", "MAIN"},
                                 {"ACT", 1, "==>Worker End Load CrashDump.dll", "MAIN"},
                             }));
    EXPECT_EQ(m_loaded, (std::vector<std::string>{platform::SharedLibraryFileName("CrashDump")}));
}

TEST_F(StartUpTest, LinesCallsAndEchoesInTheirOrder) {
    OutputCapture output;
    m_seams.moduleHandle = [&] {
        output.Note("module");
        return m_module;
    };
    m_seams.initialiseMfc = [&](void*) {
        output.Note("mfc");
        return true;
    };
    m_seams.loadLibrary = [&](const std::string&) {
        output.Note("load");
        return m_crashDump;
    };
    m_seams.runWorker = [&](const std::string&, const std::string&) {
        output.Note("run");
        return 0;
    };
    Start({L"mc", L"<x/>", L"1"});
    EXPECT_EQ(output.Row(),
              (std::vector<std::string>{
                  "module", "mfc", "> argc:\n4", "2 RQWorkerU.exe Version:1.13.0.0 build20170531",
                  "1 ==>Worker Begin Load CrashDump.dll", "load", "1 ==>Worker End Load CrashDump.dll",
                  "> " + Echo("Type:", 1), "> " + Echo("ServerPort:", 3), "3 Eos Called!",
                  "> " + Echo("Type:", 1), "> " + Echo("Cmd:", 2), "run"}));
}

TEST_F(StartUpTest, TheUsageFollowsTheLogAndThePauseFollowsTheUsage) {
    OutputCapture output;
    m_seams.pause = [&] { output.Note("pause"); };
    Start({L"mc"});
    EXPECT_EQ(output.Row(), (std::vector<std::string>{
                                "> argc:\n2", "2 RQWorkerU.exe Version:1.13.0.0 build20170531",
                                "1 ==>Worker Begin Load CrashDump.dll", "1 ==>Worker End Load CrashDump.dll",
                                "> " + kUsage, "pause", "> " + Echo("Type:", 1)}));
}

TEST_F(StartUpTest, TheFileIsReadBetweenTheTwoEchoesAndBeforeTheRun) {
    OutputCapture output;
    CommandLineValues atRun;
    m_seams.runWorker = [&](const std::string&, const std::string&) {
        output.Note("run");
        atRun = ProcessCommandLine();
        return 0;
    };
    const std::string missing = m_dir.Utf8("missing.xml");
    Start({L"mc", WidenUtf8(missing), L"9000", L"1"});
    std::vector<std::string> row = output.Row();
    ASSERT_EQ(row.size(), 10u);
    EXPECT_TRUE(row[7].starts_with("4 The file \"" + missing + "\" is not used: ")) << row[7];
    row.erase(row.begin() + 7);
    EXPECT_EQ(row, (std::vector<std::string>{"> argc:\n5", "2 RQWorkerU.exe Version:1.13.0.0 build20170531",
                                             "1 ==>Worker Begin Load CrashDump.dll",
                                             "1 ==>Worker End Load CrashDump.dll", "> " + Echo("Type:", 1),
                                             "> " + Echo("ServerPort:", 3), "> " + Echo("Cmd:", 2),
                                             "> " + Echo("FileFlag:", 4), "run"}));
    EXPECT_EQ(atRun.CommandText, WidenUtf8(missing));
    EXPECT_EQ(atRun.ServerPortOverride, 9000u);
    EXPECT_EQ(atRun.LogFilePrefix, L"missing");
}

TEST_F(StartUpTest, ATextIsStoredBeforeTheRun) {
    CommandLineValues atRun;
    m_seams.runWorker = [&](const std::string&, const std::string&) {
        atRun = ProcessCommandLine();
        return 0;
    };
    Start({L"mc", L"<x/>", L"9000"});
    EXPECT_EQ(atRun.CommandText, L"<x/>");
    EXPECT_EQ(atRun.ServerPortOverride, 9000u);
}

TEST_F(StartUpTest, AMissingCrashDumpLibraryStopsNothing) {
    m_crashDump = nullptr;
    Start({L"mc", L"<x/>", L"1"});
    EXPECT_EQ(m_log.Texts(), (std::vector<std::string>{
                                 "RQWorkerU.exe Version:1.13.0.0 build20170531",
                                 "==>Worker Begin Load CrashDump.dll",
                                 "Error when loading CrashDump.dll.",
                                 "==>Worker End Load CrashDump.dll",
                                 "Eos Called!",
                             }));
    EXPECT_EQ(m_log.Count(3, "Error when loading CrashDump.dll."), 1u);
    EXPECT_EQ(m_calls.size(), 1u);
}

TEST(PackageLogPrefix, MicrosecondsOnlyWhenThereAreSome) {
    const boost::gregorian::date date(2026, 1, 2);
    using boost::posix_time::microseconds;
    using boost::posix_time::time_duration;
    EXPECT_EQ(PackageLogPrefix(LocalTime(date, time_duration(3, 4, 5))), L"Package_20260102.030405");
    EXPECT_EQ(PackageLogPrefix(LocalTime(date, time_duration(23, 59, 59) + microseconds(7))),
              L"Package_20260102.235959.000007");
}

}  // namespace
}  // namespace rq

#include "app/start_up.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>

#include "app/echo.h"
#include "app/extract_base_name.h"
#include "app/run_worker.h"
#include "app/version.h"
#include "platform/console.h"
#include "platform/library.h"
#include "platform/start_up.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

namespace {

namespace utility = KWOVL_UTILITY;

// Whatever is written after this goes to "<daily folder>/<prefix>_W.log"; an empty prefix leaves "_W.log".
void OpenLog() {
    const WideText path = GetDailyLogDir() + ProcessCommandLine().LogFilePrefix + L"_W.log";
    utility::OVLInitWriteLog(LogChannelTag, path, true);
}

void NameLog(const wchar_t* type, const wchar_t* parameterFile, Clock& clock) {
    const bool isPackage = WideText(type) == L"14";
    ProcessCommandLine().LogFilePrefix =
        isPackage ? PackageLogPrefix(clock.Local()) : ExtractBaseName(parameterFile);
}

// The library is called by nobody; a worker without it works. The texts have its Windows name on every
// platform.
void LoadCrashDump(const StartUpSeams& seams) {
    Log(1, "==>Worker Begin Load CrashDump.dll");
    if (seams.loadLibrary(platform::SharedLibraryFileName("CrashDump")) == nullptr) {
        Log(3, "Error when loading CrashDump.dll.");
    }
    Log(1, "==>Worker End Load CrashDump.dll");
}

void RunWithFile(wchar_t* const argv[], const std::string& type, const StartUpSeams& seams) {
    CommandLineValues& values = ProcessCommandLine();
    values.CommandText = argv[2];
    EchoArgument("Cmd:", argv[2]);
    WideText content;  // stays empty when the file cannot be read
    utility::OVLReadFileToString(utility::OVLTStringToString(values.CommandText), content);
    EchoArgument("FileFlag:", argv[4]);
    seams.runWorker(type, utility::OVLTStringToUTF8(content));
}

void RunWithText(wchar_t* const argv[], const StartUpSeams& seams) {
    Log(3, "Eos Called!");
    EchoArgument("Type:", argv[1]);
    CommandLineValues& values = ProcessCommandLine();
    values.CommandText = argv[2];
    EchoArgument("Cmd:", argv[2]);
    seams.runWorker(utility::OVLTStringToUTF8(argv[1]), utility::OVLTStringToUTF8(values.CommandText));
}

}  // namespace

StartUpSeams StartUpSeams::Real() {
    StartUpSeams seams;
    seams.moduleHandle = platform::ModuleHandle;
    seams.initialiseMfc = platform::InitialiseMfc;
    seams.loadLibrary = [](const std::string& fileName) { return platform::LoadLibraryAltered(fileName); };
    seams.pause = platform::PauseForKey;
    seams.runWorker = [](const std::string& type, const std::string& parameters) {
        return RunWorker(type, parameters);
    };
    return seams;
}

std::wstring PackageLogPrefix(const LocalTime& now) {
    const auto date = now.date().year_month_day();
    const auto time = now.time_of_day();
    char text[64];
    int length = std::snprintf(text, sizeof text, "%04d%02d%02d.%02d%02d%02d", int{date.year},
                               int{date.month}, int{date.day}, static_cast<int>(time.hours()),
                               static_cast<int>(time.minutes()), static_cast<int>(time.seconds()));
    const long fraction_us = static_cast<long>(time.total_microseconds() % 1000000);
    if (fraction_us != 0) std::snprintf(text + length, sizeof text - length, ".%06ld", fraction_us);
    return L"Package_" + utility::OVLStringToTString(text);
}

std::string UsageText() {
    return "用法：RQWorkerU.exe Type Params-String\n"
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
           // The last two have a blank where the others have a tab.
           " lc  响度控制任务\n"
           " kf  抽帧\n";
}

int StartUp(int argc, wchar_t* const argv[], const StartUpSeams& seams) {
    void* module = seams.moduleHandle();
    if (module == nullptr) {
        ConsoleWrite("错误: GetModuleHandle 失败\n");
        return 1;
    }
    if (!seams.initialiseMfc(module)) {
        ConsoleWrite("错误: MFC 初始化失败\n");
        return 1;
    }
    ConsoleWrite("argc:\n" + std::to_string(argc));
    if (argc == 5) NameLog(argv[1], argv[2], *seams.clock);
    OpenLog();
    LogWorkerVersion();
    LoadCrashDump(seams);
    if (argc <= 2) {
        ConsoleWrite(UsageText());
        seams.pause();
    }
    if (argc < 2) return 0;  // there is no type to echo

    EchoArgument("Type:", argv[1]);
    const std::string type = utility::OVLTStringToString(argv[1]);
    if (argc > 3) {
        EchoArgument("ServerPort:", argv[3]);
        ProcessCommandLine().ServerPortOverride =
            utility::OVLStringToUInteger(utility::OVLTStringToString(argv[3]));
    }
    if (argc == 5) RunWithFile(argv, type, seams);
    if (argc == 4) RunWithText(argv, seams);
    return 0;
}

}  // namespace rq

int wmain(int argc, wchar_t* argv[]) {
    rq::platform::OpenStandardStreams();
    rq::platform::ContainChildren();  // where it is refused, a killed worker's children outlive it
    const int code = rq::StartUp(argc, argv, rq::StartUpSeams::Real());
    KWOVL_UTILITY::OVLFlushLog();
    return code;
}

// A process that logs, for the tests of the log files: util_log_writer <mode> <log file> [...].
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/text.h"
#include "platform/arguments.h"
#include "platform/crash.h"
#include "util/log_crash.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace {

using namespace KWOVL_UTILITY;

// <name> <threads> <lines>: level 1 lines from several threads, then a normal end.
void WriteLines(const std::string& name, int threads, int lines) {
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t) {
        writers.emplace_back([&name, t, lines] {
            for (int i = 0; i < lines; ++i) {
                rq::Log(1, name + "." + std::to_string(t) + "." + std::to_string(i) + " " +
                               std::string(static_cast<std::size_t>(i % 97), 'x'));
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
}

void WriteEveryForm() {
    OVLWriteLog("thread_get_status", 2, "an unregistered tag", "BASE");
    OVLWriteLog(4, "the untagged form", "MAIN");
    OVLWriteLog("ACT", 3, std::wstring(L"\u5bbd the wide form"), std::wstring(L"PROG"));
    OVLWriteLog("ACT", 9, "a level too high", "MAIN");
    OVLWriteLog("ACT", -1, "a level too low", "MAIN");
    OVLWriteLog("ACT", 1, "two\nlines\r\nand\ta tab", "MAIN");
}

}  // namespace

int main(int count, char** vector) {
    rq::platform::Arguments arguments(count, vector);
    const int argc = arguments.Count();
    char** argv = arguments.Vector();
    if (argc < 3) return 2;
    const std::string mode = argv[1];
    const std::wstring path = rq::WidenUtf8(argv[2]);
    rq::Log(5, "before any registration");
    OVLInitWriteLog("ACT", path, true);
    if (mode == "lines") {
        WriteLines(argv[3], std::atoi(argv[4]), std::atoi(argv[5]));
    } else if (mode == "forms") {
        WriteEveryForm();
    } else if (mode == "level") {  // <level>: one line, then an end that runs nothing
        rq::Log(std::atoi(argv[3]), "the line");
        std::_Exit(0);
    } else if (mode == "flush") {
        rq::Log(1, "the line");
        OVLFlushLog();
        std::abort();
    } else if (mode == "crash") {
        rq::platform::InstallCrashHandler();
        rq::platform::SetCrashHook(&rq::CrashFlushLog);
        rq::Log(1, "the line");
        std::abort();
    } else if (mode == "idle") {
        rq::Log(1, "the line");
        rq::SystemClock().SleepFor(std::chrono::minutes(5));  // the test ends this process
    } else {
        return 2;
    }
    return 0;
}

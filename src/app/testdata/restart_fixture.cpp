// A program that restarts itself: told "time-out" it takes a patrol time-out; started in any other way, as
// its fresh copy is, it writes its argument count to a file beside itself, and never restarts again. Its log
// is
// "<program>.log".
#include <string>
#include <string_view>

#include "app/crash_filter.h"
#include "app/restart_worker.h"
#include "base/text.h"
#include "platform/files.h"
#include "util/utility.h"
#include "util/worker_util.h"

int main(int argc, char** argv) {
    const std::string program = rq::platform::ModuleFileName();
    if (argc != 2 || std::string_view(argv[1]) != "time-out") {
        return rq::platform::ReplaceWholeFile(program + ".ran", std::to_string(argc) + "\n", false) ? 0 : 1;
    }
    KWOVL_UTILITY::OVLInitWriteLog(rq::LogChannelTag, rq::WidenUtf8(program + ".log"), true);
    rq::Log(1, "before");
    rq::InstallCrashFilter();
    rq::OnSupervisionEvent(0, 0, 0);
    return 3;  // not reached
}

// A program that restarts itself: told "time-out" it takes a patrol time-out; started in any other way, as
// its fresh copy is, it writes its argument count to a file beside itself, and never restarts again. Its log
// is
// "<program>.log".
#include <cstdio>
#include <string>
#include <string_view>

#include "app/crash_filter.h"
#include "app/restart_worker.h"
#include "base/text.h"
#include "util/utility.h"
#include "util/worker_util.h"

int main(int argc, char** argv) {
    if (argc != 2 || std::string_view(argv[1]) != "time-out") {
        std::FILE* file = std::fopen((std::string(argv[0]) + ".ran").c_str(), "w");
        if (file == nullptr) return 1;
        std::fprintf(file, "%d\n", argc);
        return std::fclose(file);
    }
    KWOVL_UTILITY::OVLInitWriteLog(rq::kLogTag, rq::WidenUtf8(std::string(argv[0]) + ".log"), true);
    rq::Log(1, "before");
    rq::InstallCrashFilter();
    rq::OnSupervisionEvent(0, 0, 0);
    return 3;  // not reached
}

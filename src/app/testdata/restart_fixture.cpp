// A program that restarts itself: told "time-out" it takes a patrol time-out; started in any other way, as
// its fresh copy is, it writes its argument count to a file beside itself, and never restarts again.
#include <cstdio>
#include <string>
#include <string_view>

#include "app/crash_filter.h"
#include "app/restart_worker.h"

int main(int argc, char** argv) {
    if (argc != 2 || std::string_view(argv[1]) != "time-out") {
        std::FILE* file = std::fopen((std::string(argv[0]) + ".ran").c_str(), "w");
        if (file == nullptr) return 1;
        std::fprintf(file, "%d\n", argc);
        return std::fclose(file);
    }
    rq::InstallCrashFilter();
    rq::OnSupervisionEvent(0, 0, 0);
    return 3;  // not reached
}

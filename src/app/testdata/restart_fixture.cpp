// A program that restarts itself: with an argument it takes a patrol time-out, without one (as the fresh copy
// is started) it leaves a file beside itself.
#include <cstdio>
#include <string>

#include "app/crash_filter.h"
#include "app/restart_worker.h"

int main(int argc, char** argv) {
    if (argc == 1) {
        std::FILE* file = std::fopen((std::string(argv[0]) + ".ran").c_str(), "w");
        if (file == nullptr) return 1;
        std::fputs("started again\n", file);
        return std::fclose(file);
    }
    rq::InstallCrashFilter();
    rq::OnSupervisionEvent(0, 0, 0);
    return 3;  // not reached
}

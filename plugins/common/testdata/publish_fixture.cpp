// Begins to publish the file that it is given, says so, and waits to be killed.
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/arguments.h"
#include "plugin_common/publish.h"

int main(int argc, char** argv) {
    rq::platform::Arguments arguments(argc, argv);
    if (arguments.Count() != 2) return 2;
    rq::task::Publication publication;
    if (publication.Begin(arguments.Vector()[1], {}, false)) return 1;
    std::puts("begun");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}

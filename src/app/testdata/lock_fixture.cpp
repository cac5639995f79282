// Takes the lock on the file that it is given, says so, and holds it until it is ended.
#include <boost/interprocess/sync/file_lock.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

#include "base/paths.h"
#include "platform/arguments.h"

int main(int argc, char** argv) {
    rq::platform::Arguments arguments(argc, argv);
    if (arguments.Count() != 2) return 2;
    boost::interprocess::file_lock lock(rq::PathFromUtf8(arguments.Vector()[1]).c_str());
    if (!lock.try_lock()) return 1;
    std::puts("locked");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}

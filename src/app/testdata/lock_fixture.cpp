// Takes the lock on the file that it is given, says so, and holds it until it is ended.
#include <boost/interprocess/sync/file_lock.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    boost::interprocess::file_lock lock(argv[1]);
    if (!lock.try_lock()) return 1;
    std::puts("locked");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}

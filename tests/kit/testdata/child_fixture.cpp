// What child_test.cpp runs: does what its first argument says.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

#include "platform/environment.h"
#include "platform/files.h"

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "speak") {
        std::fputs("out 输出\n", stdout);
        std::fputs("bad", stderr);
        return 7;
    }
    if (what == "surroundings") {
        std::fputs(rq::platform::GetEnvironment("RQ_KIT_CHILD").value_or("nothing").c_str(), stdout);
        return rq::platform::CreatePrivateFile("here", "") ? 0 : 1;
    }
    if (what == "copy") {
        const std::string input((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
        std::fputs(input.c_str(), stdout);
        return 0;
    }
    if (what == "hang") std::this_thread::sleep_for(std::chrono::hours(1));
    return 1;
}

// What process_test.cpp and crash_test.cpp start: does what its first argument says.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/console.h"
#include "platform/process.h"
#include "platform/start_up.h"

namespace {

void PrintArguments(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) std::printf("[%s]\n", argv[i]);
}

// Open descriptors above the standard ones.
void PrintDescriptors() {
    for (int fd = 3; fd < 256; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) std::printf("%d\n", fd);
    }
}

// Blocked or ignored signals among those that matter to a program.
void PrintSignals() {
    sigset_t blocked;
    ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
    for (int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction action {};
        ::sigaction(number, nullptr, &action);
        if (sigismember(&blocked, number) == 1 || action.sa_handler == SIG_IGN) std::printf("%d\n", number);
    }
}

// A grandchild that outlives this process.
int LeaveGrandchild(const char* file) {
    rq::platform::ProcessSpec spec;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::sleep(1000);
        ::_exit(0);
    }
    std::FILE* out = std::fopen(file, "w");
    std::fprintf(out, "%d\n", static_cast<int>(pid));
    std::fclose(out);
    return 0;
}

void Hook() noexcept {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "hook\n", 5);
}

[[gnu::noinline]] void Crash(const std::string& how) {
    rq::platform::InstallCrashHandler();
    rq::platform::SetCrashHook(&Hook);
    if (how == "segv") {
        volatile int* nowhere = nullptr;
        *nowhere = 1;
    } else if (how == "throw") {
        throw std::runtime_error("nobody catches this");
    } else if (how == "abort") {
        std::abort();
    } else if (how == "silent") {
        rq::platform::SilenceAbort();
        std::abort();
    } else {
        ::raise(std::atoi(how.c_str()));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "exit") return std::atoi(argv[2]);
    if (what == "arguments") PrintArguments(argc, argv);
    if (what == "descriptors") PrintDescriptors();
    if (what == "signals") PrintSignals();
    if (what == "hang") ::sleep(1000);
    if (what == "ignore-term") {
        ::signal(SIGTERM, SIG_IGN);
        std::printf("ready\n");
        std::fflush(stdout);
        ::sleep(1000);
    }
    if (what == "grandchild") return LeaveGrandchild(argv[2]);
    if (what == "crash") Crash(argv[2]);
    if (what == "console") {
        std::printf("buffered ");
        rq::platform::WriteStandardOutput("written ");
        std::printf("after");
    }
    if (what == "closed-reader") {
        for (int i = 0; i < 3; ++i) rq::platform::WriteStandardOutput("nobody reads this\n");
        return 5;
    }
    if (what.empty()) {
        // Started detached: tells by a file beside the program that it ran, and with how many arguments.
        std::FILE* out = std::fopen((std::string(argv[0]) + ".ran").c_str(), "w");
        std::fprintf(out, "%d %d\n", argc, static_cast<int>(::getsid(0) == ::getpid()));
        std::fclose(out);
    }
    return 0;
}

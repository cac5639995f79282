#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "platform/start_up.h"
#include "process_fixture.h"

extern char** environ;

namespace fixture {

namespace {

void Hook() noexcept {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "hook\n", 5);
}

}  // namespace

void PrintHandles(int /*count*/, char** /*numbers*/) {
    for (int fd = 3; fd < 256; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) std::printf("%d\n", fd);
    }
}

void PrintSignals() {
    sigset_t blocked;
    ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
    for (int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction action {};
        ::sigaction(number, nullptr, &action);
        if (sigismember(&blocked, number) == 1 || action.sa_handler == SIG_IGN) std::printf("%d\n", number);
    }
}

void PrintEnvironment() {
    for (char** entry = environ; *entry != nullptr; ++entry) std::printf("%s\n", *entry);
}

void IgnoreEndRequests() {
    ::signal(SIGTERM, SIG_IGN);
}

void Hang() {
    ::sleep(1000);
}

int LeaveGrandchild(const std::string& file) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::sleep(1000);
        ::_exit(0);
    }
    std::FILE* out = std::fopen(file.c_str(), "w");
    std::fprintf(out, "%d\n", static_cast<int>(pid));
    std::fclose(out);
    return 0;
}

bool IsApart() {
    return ::getsid(0) == ::getpid();
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

}  // namespace fixture

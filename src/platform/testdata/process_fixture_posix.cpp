#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/crash.h"
#include "platform/crash_text.h"
#include "platform/environment.h"
#include "process_fixture.h"

extern char** environ;

namespace fixture {

namespace {

const bool g_beganInItsTree = ::getpgrp() == ::getpid();

void Hook() noexcept {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "hook\n", 5);
}

void HangingHook() noexcept {
    Hook();
    for (;;) ::pause();
}

void LogHook(std::string_view line, std::uint32_t thread) noexcept {
    rq::platform::CrashText text;
    text << "log: ";
    text.Decimal(thread) << " " << line << "\n";
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text.Terminated(), text.View().size());
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

[[gnu::noinline]] int Overflow(volatile int* depth) {  // NOLINT(misc-no-recursion)
    volatile int room[1024] = {};
    room[0] = *depth + 1;
    if (room[0] == 0) return 0;  // after more rounds than any stack has room for
    return room[0] + Overflow(room);
}

bool BeganInItsTree() {
    return g_beganInItsTree;
}

[[gnu::noinline]] void Crash(const std::string& how) {
    using rq::platform::GetEnvironment;
    if (const auto folder = GetEnvironment("RQ_CRASH_FOLDER")) rq::platform::SetCrashFolder(*folder);
    if (const auto program = GetEnvironment("RQ_CRASH_REPORTER"))
        rq::platform::SetCrashReporter(*program, std::chrono::seconds(2));
    if (how == "hook-hangs") rq::platform::SetCrashReporter({}, std::chrono::seconds(0));
    rq::platform::InstallCrashHandler();
    rq::platform::SetCrashHook(how == "hook-hangs" ? &HangingHook : &Hook);
    rq::platform::SetCrashLog(&LogHook);
    if (how == "segv") {
        volatile int* nowhere = nullptr;
        *nowhere = 1;
    } else if (how == "throw") {
        throw std::runtime_error("nobody catches this");
    } else if (how == "abort") {
        std::abort();
    } else if (how == "silent") {
        rq::platform::SilenceAbort();
        rq::platform::LeaveNoCore();
        std::abort();
    } else if (how == "stack") {
        volatile int depth = 1;
        std::exit(Overflow(&depth));
    } else if (how == "stack-on-thread") {
        std::thread([] {
            rq::platform::GiveThreadCrashRoom();
            volatile int depth = 1;
            Overflow(&depth);
        }).join();
    } else if (how == "no-descriptors") {
        while (::dup(0) >= 0) {
        }
        ::raise(SIGSEGV);
    } else if (how == "many-threads") {
        std::vector<std::thread> threads;
        for (int i = 0; i < 20; ++i) threads.emplace_back([] { ::raise(SIGSEGV); });
        for (std::thread& thread : threads) thread.join();
    } else if (how == "hook-hangs") {
        ::raise(SIGSEGV);
    } else if (how == "child") {
        if (::fork() == 0) ::raise(SIGSEGV);
        ::wait(nullptr);
    } else {
        ::raise(std::atoi(how.c_str()));
    }
}

}  // namespace fixture

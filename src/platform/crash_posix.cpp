// What a crash leaves behind: one line and the frames of the crashing thread on standard error, then the
// signal's default action, so that the parent sees the signal (and a core dump is written where the system is
// set up for it).
#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <initializer_list>

#include "platform/start_up.h"

namespace rq::platform {

namespace {

constexpr int kMostFrames = 64;
constexpr std::size_t kStackSize = 65536;

std::atomic<std::uint32_t> g_flags{0};
std::atomic<void (*)() noexcept> g_hook{nullptr};
static_assert(decltype(g_hook)::is_always_lock_free);  // read in a signal handler

const char* NameOf(int number) {
    switch (number) {
        case SIGSEGV:
            return "SIGSEGV";
        case SIGBUS:
            return "SIGBUS";
        case SIGFPE:
            return "SIGFPE";
        case SIGILL:
            return "SIGILL";
        case SIGABRT:
            return "SIGABRT";
        default:
            return "a signal";
    }
}

void Put(const char* text) {
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text, std::strlen(text));
}

// Async-signal-safe calls only; backtrace was called once before, so that it allocates nothing here.
extern "C" void OnCrashSignal(int number) {
    Put("RQWorkerU: crashed with ");
    Put(NameOf(number));
    Put("\n");
    void* frames[kMostFrames];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, kMostFrames), STDERR_FILENO);
    if (const auto hook = g_hook.load()) hook();
    // SA_RESETHAND has put the default action back; the signal takes effect when this handler returns.
    ::raise(number);
}

}  // namespace

void InstallCrashHandler() {
    void* frames[1];
    ::backtrace(frames, 1);
    // A stack of its own for the main thread, so that an overflow of the ordinary one can be told.
    static char stack[kStackSize];
    stack_t alternative{};
    alternative.ss_sp = stack;
    alternative.ss_size = sizeof stack;
    ::sigaltstack(&alternative, nullptr);

    struct sigaction action {};
    action.sa_handler = &OnCrashSignal;
    action.sa_flags = SA_ONSTACK | static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) ::sigaction(number, &action, nullptr);
}

void SetCrashHook(void (*hook)() noexcept) {
    g_hook.store(hook);
}

void SetCrashFlags(std::uint32_t flags) {
    g_flags.store(flags);
}

void SetCrashFolder(const std::string& /*folder*/) {}

// A wanted abort is no crash: nothing is written for it. The C library's own abort says nothing.
void SilenceAbort() {
    ::signal(SIGABRT, SIG_DFL);
}

}  // namespace rq::platform

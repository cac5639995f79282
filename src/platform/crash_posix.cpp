// The signals of a crash: who handles them, in what order, and how the process ends (crash.h). The report is
// crash_report_posix.cpp's. Everything that runs after a signal makes async-signal-safe calls only.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "platform/crash.h"
#include "platform/crash_report_posix.h"

namespace rq::platform {

namespace {

constexpr unsigned kSpareTime_s = 5;  // beside the reporter's: for all else that is done in the handler

std::atomic<std::uint32_t> g_flags{0};
std::atomic<void (*)() noexcept> g_flush{nullptr};
std::atomic<void (*)(std::string_view, std::uint32_t) noexcept> g_log{nullptr};
static_assert(decltype(g_flush)::is_always_lock_free && decltype(g_log)::is_always_lock_free);
pid_t g_process = 0;                // the one that the handler was installed in
std::atomic<pid_t> g_crashed{0};    // the thread that crashed first
std::atomic<int> g_crashSignal{0};  // its signal

// Of the one thread that reports: large for a stack that a library gave its own thread for signals.
constinit CrashText g_line;
constinit CrashText g_place;
constinit CrashText g_report;

constexpr std::initializer_list<int> kCrashSignals = {SIGSEGV, SIGBUS,  SIGFPE, SIGILL,
                                                      SIGABRT, SIGTRAP, SIGSYS};

std::string_view NameOf(int number) {
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
        case SIGTRAP:
            return "SIGTRAP";
        case SIGSYS:
            return "SIGSYS";
        default:
            return "a signal";
    }
}

void Unblock(int number) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void Default(int number) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    ::sigaction(number, &action, nullptr);
}

// The signal is blocked while its handler runs: it takes effect when that returns, on the crashed thread.
void EndBy(int number) {
    Default(number);
    ::raise(number);
}

// The handler has not come to an end in its time (a lock of the loader, a disk that does not answer). Any
// thread.
extern "C" void OnStuckHandler(int) {
    const int number = g_crashSignal.load();
    Default(number);
    Unblock(number);
    ::raise(number);
}

void LimitTheHandler() {
    struct sigaction action {};
    action.sa_handler = &OnStuckHandler;
    action.sa_flags = SA_ONSTACK;
    ::sigaction(SIGALRM, &action, nullptr);
    Unblock(SIGALRM);
    ::alarm(static_cast<unsigned>(ReportLimit().count()) + kSpareTime_s);
}

void Tell(const CrashFacts& facts) {
    g_line << "RQWorkerU: crashed with " << facts.signalName << "\n";
    WriteAll(STDERR_FILENO, g_line.View());
    g_line.Clear();
}

void TellWhere(const CrashFacts& facts, const CrashText& report) {
    CrashText& line = g_line;
    line << "crashed with " << facts.signalName << " in thread ";
    line.Decimal(facts.thread);
    if (report.View().empty()) {
        line << ", no report could be written";
    } else {
        line << ", report: " << report.View();
        g_place << "RQWorkerU: a report is in " << report.View() << "\n";
        WriteAll(STDERR_FILENO, g_place.View());
    }
    if (const auto log = g_log.load()) log(line.View(), facts.thread);
}

extern "C" void OnCrashSignal(int number, siginfo_t* info, void* context) {
    // A child that a library forked is no worker: it just dies of its signal.
    if (::getpid() != g_process) return EndBy(number);
    const pid_t thread = ::gettid();
    pid_t first = 0;
    if (!g_crashed.compare_exchange_strong(first, thread)) {
        if (first == thread) return EndBy(number);  // the handler itself has crashed
        for (;;) ::pause();                         // another thread's report has this one's stack too
    }
    g_crashSignal.store(number);
    LimitTheHandler();
    const CrashFacts facts{number, NameOf(number), static_cast<std::uint32_t>(thread), *info, context};
    Tell(facts);
    if (const auto flush = g_flush.load()) flush();
    WriteCrashReport(facts, g_report);
    if (const auto flush = g_flush.load()) flush();  // what other threads have logged meanwhile
    TellWhere(facts, g_report);
    EndBy(number);
}

}  // namespace

void InstallCrashHandler() {
    g_process = ::getpid();
    PrepareCrashReport();
    GiveThreadCrashRoom();
    struct sigaction action {};
    action.sa_sigaction = &OnCrashSignal;
    action.sa_flags = SA_ONSTACK | SA_SIGINFO;
    sigfillset(&action.sa_mask);
    for (int number : kCrashSignals) ::sigaction(number, &action, nullptr);
}

void SetCrashHook(void (*flush)() noexcept) {
    g_flush.store(flush);
}

void SetCrashLog(void (*log)(std::string_view, std::uint32_t) noexcept) {
    g_log.store(log);
}

void SetCrashFlags(std::uint32_t flags) {
    g_flags.store(flags);
}

// The C library's own abort says nothing.
void SilenceAbort() {
    Default(SIGABRT);
}

// A limit of 0 stops core files, but not a program that the system hands cores to; that one gets none of a
// process that is marked as not to be dumped.
void LeaveNoCore() {
    ::prctl(PR_SET_DUMPABLE, 0);
    rlimit limit{};
    ::getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = 0;
    ::setrlimit(RLIMIT_CORE, &limit);
}

}  // namespace rq::platform

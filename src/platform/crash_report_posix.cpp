#include "platform/crash_report_posix.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/crash.h"
#include "platform/files.h"
#include "platform/process.h"

namespace rq::platform {

namespace {

constexpr int kMostFrames = 64;
constexpr std::size_t kReporterStack_bytes = 16384;  // until it is another program
constexpr int kNotStarted = 127;

// Written before the handler is installed. "/folder/RQWorkerU_" comes before the time in a report's path.
CrashText g_pathHead;
CrashText g_folder;
CrashText g_reporter;
CrashText g_process;
std::chrono::seconds g_limit = kCrashReportLimit;
std::int64_t g_utcOffset_s = 0;
// Written in the handler, by the one thread that reports: its stack may be small.
constinit CrashText g_head;
constinit CrashText g_thread;
constinit CrashText g_context;
alignas(16) char g_reporterStack[kReporterStack_bytes];

std::chrono::sys_seconds LocalNow() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::sys_seconds(std::chrono::seconds(now.tv_sec + g_utcOffset_s));
}

std::chrono::milliseconds Uptime() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::milliseconds(now.tv_sec * 1000LL + now.tv_nsec / 1000000);
}

int OpenNew(const char* path) {
    return ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
}

// A process that crashed because it has no descriptor left does without its standard input.
int MakeReportFile(CrashText& path) {
    if (g_pathHead.View().empty()) return -1;
    path << g_pathHead.View();
    path.CompactTime(LocalNow()) << "_" << g_process.View() << ".txt";
    int file = OpenNew(path.Terminated());
    if (file < 0 && errno == EMFILE && ::close(STDIN_FILENO) == 0) file = OpenNew(path.Terminated());
    if (file < 0 && errno == ENOENT && ::mkdir(g_folder.Terminated(), 0755) == 0)
        file = OpenNew(path.Terminated());
    return file;
}

void WriteHead(int file, const CrashFacts& facts) {
    CrashText& head = g_head;
    head << "Crashed with " << facts.signalName;
    if (facts.info.si_code <= 0) {  // sent by somebody; abort() sends it to itself
        (head << ", sent by process ").Decimal(static_cast<std::uint64_t>(facts.info.si_pid));
    } else {
        (head << ", address ").Hex(reinterpret_cast<std::uint64_t>(facts.info.si_addr));
    }
    (head << "\nTime     ").Time(LocalNow()) << "\nProcess  " << g_process.View() << "\nThread   ";
    head.Decimal(facts.thread) << "\n";
    WriteAll(file, head.View());
}

struct Reporter {
    int file;
    const char* arguments[5];
};

// In the reporter's process while it still shares this one's memory: system calls only.
int BecomeReporter(void* given) {
    const auto& reporter = *static_cast<const Reporter*>(given);
    for (int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS, SIGALRM})
        ::signal(number, SIG_DFL);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (reporter.file == STDOUT_FILENO) {
        ::fcntl(STDOUT_FILENO, F_SETFD, 0);  // to itself, dup2 would leave it to be closed by the new program
    } else {
        ::dup2(reporter.file, STDOUT_FILENO);
    }
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0u, 0);
    ::alarm(static_cast<unsigned>(g_limit.count()));  // while it holds our threads nobody else ends it
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // An empty environment: nothing is preloaded, and no debug information is fetched from a server.
    char* const environment[] = {nullptr};
    ::execve(reporter.arguments[0], const_cast<char* const*>(reporter.arguments), environment);
    ::_exit(kNotStarted);
}

off_t SizeOf(int file) {
    struct stat facts {};
    return ::fstat(file, &facts) == 0 ? facts.st_size : 0;
}

// True when the reporter said that all is written.
bool AwaitReporter(pid_t reporter, int file, off_t before) {
    // It ends itself at the limit; a second later it is helped.
    const auto deadline = Uptime() + g_limit + std::chrono::seconds(1);
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(reporter, &status, WNOHANG);
        if (ended == reporter) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        // Somebody who waits for just any child may have taken its result from us.
        if (ended < 0 && errno != EINTR) return SizeOf(file) > before;
        if (Uptime() > deadline) {
            ::kill(reporter, SIGKILL);
            return false;
        }
        const timespec pause{0, 5'000'000};
        ::nanosleep(&pause, nullptr);
    }
}

bool ReportFromOutside(int file, const CrashFacts& facts) {
    if (g_reporter.View().empty()) return false;
    g_thread.Decimal(facts.thread);
    g_context.Decimal(reinterpret_cast<std::uint64_t>(facts.context));
    Reporter reporter{file,
                      {g_reporter.Terminated(), g_process.Terminated(), g_thread.Terminated(),
                       g_context.Terminated(), nullptr}};
    const off_t before = SizeOf(file);
    ::signal(SIGCHLD, SIG_DFL);  // ignored, it would take the reporter's result away
    // No fork: that one runs other libraries' functions, takes the heap's lock and copies page tables.
    const pid_t child = ::clone(&BecomeReporter, g_reporterStack + sizeof g_reporterStack,
                                CLONE_VM | CLONE_VFORK | SIGCHLD, &reporter);
    if (child < 0) return false;
    ::prctl(PR_SET_PTRACER, static_cast<unsigned long>(child), 0, 0, 0);  // where only parents may look
    return AwaitReporter(child, file, before);
}

// backtrace was called once before, so that it allocates nothing here.
void WriteOwnFrames(int descriptor) {
    void* frames[kMostFrames];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, kMostFrames), descriptor);
}

}  // namespace

void WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void PrepareCrashReport() {
    void* frames[1];
    ::backtrace(frames, 1);
    const time_t now = ::time(nullptr);
    tm local{};
    ::localtime_r(&now, &local);
    g_utcOffset_s = local.tm_gmtoff;
    g_process = CrashText();
    g_process.Decimal(static_cast<std::uint64_t>(::getpid()));
}

void WriteCrashReport(const CrashFacts& facts, CrashText& path) {
    const int file = MakeReportFile(path);
    if (file < 0) {
        path.Clear();
        WriteOwnFrames(STDERR_FILENO);
        return;
    }
    WriteHead(file, facts);
    if (!ReportFromOutside(file, facts)) {
        WriteAll(file,
                 "\nNot every thread's stack could be read from outside. The crashed thread's own frames:\n");
        WriteOwnFrames(file);
    }
    ::close(file);
}

std::chrono::seconds ReportLimit() {
    return g_limit;
}

void SetCrashFolder(const std::string& folder) {
    g_folder = CrashText();
    g_pathHead = CrashText();
    if (folder.empty()) return;
    g_folder << folder;
    const std::string program = ModuleFileName();
    g_pathHead << folder << (folder.ends_with('/') ? "" : "/") << program.substr(program.rfind('/') + 1)
               << "_";
}

void SetCrashReporter(const std::string& program, std::chrono::seconds limit) {
    g_reporter = CrashText();
    g_reporter << program;
    g_limit = limit;
}

}  // namespace rq::platform

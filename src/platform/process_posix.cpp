#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <thread>

#include "platform/child_start_posix.h"
#include "platform/files.h"
#include "platform/posix_error.h"
#include "platform/process_tree_posix.h"

extern char** environ;

namespace rq::platform {

namespace {

using std::chrono::milliseconds;

// The number instead of the C library's function, whose header has no C linkage in glibc 2.36. -1 on an older
// kernel.
int OpenPidfd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

// Children that were still running when their object went away; taken off the process table when they end.
class Orphans {
  public:
    void Add(pid_t pid) {
        const std::scoped_lock lock(m_mutex);
        m_pids.push_back(pid);
    }
    void Sweep() {
        const std::scoped_lock lock(m_mutex);
        std::erase_if(m_pids, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
    }

  private:
    std::mutex m_mutex;  // this room lies below base/sync.h
    std::vector<pid_t> m_pids;
};

Orphans& TheOrphans() {
    static auto* orphans = new Orphans;
    return *orphans;
}

// The child stays on the process table (unreaped) as long as this object lives: its number, and so its
// group's, cannot go to somebody else, and KillTree never hits a stranger.
class PosixChild final : public ChildProcess {
  public:
    PosixChild(pid_t pid, FileDescriptor pidfd) : m_pid(pid), m_pidfd(std::move(pidfd)) {}
    ~PosixChild() override {
        if (::waitpid(m_pid, nullptr, WNOHANG) == 0) TheOrphans().Add(m_pid);
    }

    std::uint64_t Id() const override { return static_cast<std::uint64_t>(m_pid); }
    void KillTree() override { ::kill(-m_pid, SIGKILL); }
    void RequestEnd() override { ::kill(m_pid, SIGTERM); }

    std::optional<ExitStatus> Wait(milliseconds timeout) override {
        const auto end =
            std::chrono::steady_clock::now() + std::min(timeout, milliseconds(std::chrono::hours(24)));
        for (;;) {
            if (auto status = Look()) return status;
            const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
            if (left <= milliseconds::zero()) return std::nullopt;
            Pass(left);
        }
    }

  private:
    std::optional<ExitStatus> Look() const {
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
            // Somebody else has taken the status away; that it ended is all that is known.
            if (errno == ECHILD) return ExitStatus{false, -1};
            return std::nullopt;
        }
        if (info.si_pid == 0) return std::nullopt;
        return ExitStatus{info.si_code != CLD_EXITED, info.si_status};
    }

    // Waits for the child's end or `left`, or less.
    void Pass(milliseconds left) const {
        if (m_pidfd.Valid()) {
            pollfd ended{m_pidfd.Get(), POLLIN, 0};
            ::poll(&ended, 1, static_cast<int>(left.count()));
        } else {
            std::this_thread::sleep_for(std::min(left, milliseconds(5)));  // a kernel without pidfd_open
        }
    }

    pid_t m_pid;
    FileDescriptor m_pidfd;
};

std::vector<std::string> EnvironmentOf(const ProcessSpec& spec) {
    std::vector<std::string> all;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        const auto replaced = [&](const auto& pair) { return pair.first == name; };
        if (std::none_of(spec.environment.begin(), spec.environment.end(), replaced)) all.push_back(text);
    }
    for (const auto& [name, value] : spec.environment) all.push_back(name + "=" + value);
    if (!spec.tree.empty()) {
        std::erase_if(all, [](const std::string& entry) { return entry.starts_with(kTreeVariable); });
        all.push_back(kTreeVariable + spec.tree);
    }
    return all;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

bool OpenStream(ProcessSpec::Stream kind, const std::string& file, bool reading, FileDescriptor& to,
                OsError* error) {
    if (kind == ProcessSpec::Stream::Inherit) return true;
    const bool null = kind == ProcessSpec::Stream::Null;
    const std::string path = null ? "/dev/null" : file;
    const int flags = reading ? O_RDONLY : null ? O_WRONLY : O_WRONLY | O_CREAT | O_APPEND;
    to = FileDescriptor(OpenAboveStandard(path.c_str(), flags, 0666));
    if (to.Valid()) return true;
    SetOsError(error, errno, "open " + path);
    return false;
}

void TellFailure(const ChildFailure& failure, const ProcessSpec& spec, OsError* error) {
    switch (failure.step) {
        case ChildFailure::Step::Streams:
            SetOsError(error, failure.code, "redirect");
            return;
        case ChildFailure::Step::Directory:
            SetOsError(error, failure.code, "chdir " + spec.directory);
            return;
        case ChildFailure::Step::Exec:
            SetOsError(error, failure.code, "start " + spec.program);
            return;
    }
}

// True when the program runs; the report's other end is closed by exec.
bool Started(int report, ChildFailure& failure) {
    ssize_t n = 0;
    do {
        n = ::read(report, &failure, sizeof failure);
    } while (n < 0 && errno == EINTR);
    return n != static_cast<ssize_t>(sizeof failure);
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(const ProcessSpec& spec, OsError* error) {
    TheOrphans().Sweep();
    FileDescriptor input, output, errors;
    if (!OpenStream(spec.input, spec.inputFile, true, input, error)) return nullptr;
    if (!OpenStream(spec.output, spec.outputFile, false, output, error)) return nullptr;
    if (!OpenStream(spec.errors, spec.errorsFile, false, errors, error)) return nullptr;

    std::vector<std::string> arguments{spec.program};
    arguments.insert(arguments.end(), spec.arguments.begin(), spec.arguments.end());
    std::vector<std::string> environment = EnvironmentOf(spec);
    ChildSteps steps;
    steps.arguments = Pointers(arguments);
    steps.environment = Pointers(environment);
    steps.program = spec.program.c_str();
    steps.directory = spec.directory.empty() ? nullptr : spec.directory.c_str();
    steps.input = input.Get();
    steps.output = output.Get();
    steps.errors = errors.Get();

    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        SetOsError(error, errno, "pipe");
        return nullptr;
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t pid = ::fork();
    if (pid < 0) {
        SetOsError(error, errno, "fork");
        return nullptr;
    }
    if (pid == 0) RunChildSteps(steps, writing.Get());
    ::setpgid(pid, pid);  // here as well, so that KillTree works from now on
    writing.Close();
    ChildFailure failure;
    if (!Started(reading.Get(), failure)) {
        ::waitpid(pid, nullptr, 0);
        TellFailure(failure, spec, error);
        return nullptr;
    }
    return std::make_unique<PosixChild>(pid, FileDescriptor(OpenPidfd(pid)));
}

std::uint64_t CurrentProcessId() {
    return static_cast<std::uint64_t>(::getpid());
}

std::uint64_t CurrentThreadId() {
    return static_cast<std::uint64_t>(::gettid());
}

bool ProcessRuns(std::uint64_t id) {
    const auto status = ReadWholeFile("/proc/" + std::to_string(id) + "/status");
    return status && status->find("State:\tZ") == std::string::npos;
}

}  // namespace rq::platform

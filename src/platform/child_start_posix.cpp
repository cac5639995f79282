#include "platform/child_start_posix.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "platform/file_limit_posix.h"

namespace rq::platform {

namespace {

[[noreturn]] void Report(int report, ChildFailure::Step step) {
    const ChildFailure failure{step, errno};
    while (::write(report, &failure, sizeof failure) < 0 && errno == EINTR) {
    }
    ::_exit(127);
}

// The program starts with default signals: ignoring and blocking are the parent's business.
void ResetSignals() {
    for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGUSR1, SIGUSR2}) {
        ::signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Sockets and files that a library opened without O_CLOEXEC stay with the parent, too.
void KeepDescriptorsOut() {
    if (::close_range(3, ~0u, CLOSE_RANGE_CLOEXEC) == 0) return;
    const long most = ::sysconf(_SC_OPEN_MAX);
    const int end = most > 0 && most < 65536 ? static_cast<int>(most) : 65536;
    for (int fd = 3; fd < end; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

bool PutStream(int from, int to) {
    return from < 0 || ::dup2(from, to) >= 0;
}

}  // namespace

void RunChildSteps(const ChildSteps& steps, int report) {
    if (steps.group == ChildSteps::Group::OwnSession) {
        ::setsid();
    } else {
        ::setpgid(0, 0);
    }
    ResetSignals();
    if (!PutStream(steps.input, STDIN_FILENO) || !PutStream(steps.output, STDOUT_FILENO) ||
        !PutStream(steps.errors, STDERR_FILENO)) {
        Report(report, ChildFailure::Step::Streams);
    }
    if (steps.directory != nullptr && ::chdir(steps.directory) != 0)
        Report(report, ChildFailure::Step::Directory);
    KeepDescriptorsOut();
    RestoreFileLimit();
    ::execve(steps.program, steps.arguments.data(), steps.environment.data());
    Report(report, ChildFailure::Step::Exec);
}

int OpenAboveStandard(const char* path, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int higher = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int code = errno;
    ::close(fd);
    errno = code;
    return higher;
}

}  // namespace rq::platform

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/child_start_posix.h"
#include "platform/posix_error.h"
#include "platform/process.h"

extern char** environ;

namespace rq::platform {

namespace {

constexpr unsigned kStarted = 33;  // anything above 31

// The numbers that WinExec has for these.
unsigned FailureCode(int code) {
    switch (code) {
        case ENOENT:
            return 2;
        case ENOTDIR:
            return 3;
        case EACCES:
            return 5;
        case ENOMEM:
            return 8;
        case ENOEXEC:
            return 11;
        default:
            return 31;
    }
}

// A path may hold quotes of its own: the last one closes it.
std::string WithoutQuotes(const std::string& commandLine) {
    if (commandLine.size() < 2 || commandLine.front() != '"') return commandLine;
    return commandLine.substr(1, commandLine.rfind('"') - 1);
}

}  // namespace

// The new process has a session of its own, no standard input and this process's output; it is a child of
// init, since the process between the two ends at once.
unsigned StartDetached(const std::string& commandLine) {
    std::string program = WithoutQuotes(commandLine);
    const FileDescriptor input(OpenAboveStandard("/dev/null", O_RDONLY));
    int ends[2] = {-1, -1};
    if (!input.Valid() || ::pipe2(ends, O_CLOEXEC) != 0) return FailureCode(errno);
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);

    ChildSteps steps;
    steps.arguments = {program.data(), nullptr};
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
        steps.environment.push_back(*entry);
    steps.environment.push_back(nullptr);
    steps.program = program.c_str();
    steps.input = input.Get();
    steps.group = ChildSteps::Group::OwnSession;

    const pid_t between = ::fork();
    if (between < 0) return FailureCode(errno);
    if (between == 0) {
        const pid_t child = ::fork();
        if (child == 0) RunChildSteps(steps, writing.Get());
        if (child < 0) {
            const ChildFailure failure{ChildFailure::Step::Exec, errno};
            [[maybe_unused]] const auto written = ::write(writing.Get(), &failure, sizeof failure);
        }
        ::_exit(0);
    }
    writing.Close();
    ::waitpid(between, nullptr, 0);
    ChildFailure failure;
    ssize_t n = 0;
    do {
        n = ::read(reading.Get(), &failure, sizeof failure);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(sizeof failure) ? FailureCode(failure.code) : kStarted;
}

}  // namespace rq::platform

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "kit/os.h"

namespace rq::kit {

const SystemCodes& Codes() {
    static const SystemCodes codes{ENOENT,      ENOENT, ENOTDIR,      EEXIST,        EISDIR,
                                   EWOULDBLOCK, 5,      ENAMETOOLONG, 1000 + SIGABRT};
    return codes;
}

std::string Words(int code) {
    return std::strerror(code);
}

void TakeTimeZone() {
    ::tzset();
}

std::string_view LineEnd() {
    return "\n";
}

bool IsWine() {
    return false;
}

std::string NullDevice() {
    return "/dev/null";
}

std::string SystemLibraryName() {
    return "libc.so.6";
}

std::string RootName() {
    return {};
}

bool IsOwnersAlone(const std::filesystem::path& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 && (facts.st_mode & 0077) == 0 && (facts.st_mode & 0600) == 0600;
}

bool IsInheritable(std::FILE* file) {
    return (::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC) == 0;
}

void EndProcess(std::uint64_t id) {
    ::kill(static_cast<pid_t>(id), SIGKILL);
}

std::string KilledWords() {
    return "by signal 9";
}

CrashSigns CrashProcess(std::uint64_t id) {
    ::kill(static_cast<pid_t>(id), SIGSEGV);
    return {SIGSEGV, "SIGSEGV\n"};
}

std::string CrashReportEnding() {
    return ".txt";
}

bool EndedByFault(int status) {
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
}

}  // namespace rq::kit

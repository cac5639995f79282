#include "crashreport/held_threads.h"

#include <dirent.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

namespace rq::crashreport {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The crashed process allows us to look into it just after it has started us.
constexpr milliseconds kPermissionWait{1000};
// A thread that waits for a disk stops only when that answers.
constexpr milliseconds kStopWait{3000};
constexpr milliseconds kPause{2};

std::string TaskFolder(pid_t process) {
    return "/proc/" + std::to_string(process) + "/task";
}

std::vector<pid_t> ThreadsOf(pid_t process) {
    std::vector<pid_t> threads;
    DIR* folder = ::opendir(TaskFolder(process).c_str());
    if (folder == nullptr) return threads;
    while (const dirent* entry = ::readdir(folder)) {
        if (const auto id = static_cast<pid_t>(std::atoi(entry->d_name)); id > 0) threads.push_back(id);
    }
    ::closedir(folder);
    std::sort(threads.begin(), threads.end());
    return threads;
}

std::string NameOf(pid_t process, pid_t thread) {
    std::ifstream file(TaskFolder(process) + "/" + std::to_string(thread) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// 0, or errno. A thread that is there no more is no failure of ours.
int Seize(pid_t thread, milliseconds patience) {
    const auto deadline = steady_clock::now() + patience;
    while (::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) != 0) {
        if (errno != EPERM || steady_clock::now() > deadline) return errno;
        std::this_thread::sleep_for(kPause);
    }
    return ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == 0 ? 0 : errno;
}

bool WaitUntilStopped(pid_t thread, steady_clock::time_point deadline) {
    for (;;) {
        int status = 0;
        const pid_t told = ::waitpid(thread, &status, __WALL | WNOHANG);
        if (told == thread) return WIFSTOPPED(status);
        if ((told < 0 && errno != EINTR) || steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(kPause);
    }
}

bool Knows(const std::vector<HeldThread>& held, pid_t thread) {
    return std::any_of(held.begin(), held.end(), [&](const HeldThread& one) { return one.id == thread; });
}

// Those that are there now and not yet held. False when there were none.
bool HoldNew(pid_t process, std::vector<HeldThread>& held) {
    const std::size_t before = held.size();
    for (const pid_t thread : ThreadsOf(process)) {
        if (Knows(held, thread) || Seize(thread, milliseconds(0)) != 0) continue;
        held.push_back({thread, NameOf(process, thread), false});
    }
    const auto deadline = steady_clock::now() + kStopWait;
    for (std::size_t i = before; i < held.size(); ++i)
        held[i].isHeld = WaitUntilStopped(held[i].id, deadline);
    return held.size() != before;
}

}  // namespace

std::vector<HeldThread> HoldThreads(pid_t process, pid_t first, std::string& error) {
    std::vector<HeldThread> held;
    if (const int code = Seize(first, kPermissionWait); code != 0) {
        error = std::string("ptrace: ") + std::strerror(code);
        return held;
    }
    held.push_back({first, NameOf(process, first), WaitUntilStopped(first, steady_clock::now() + kStopWait)});
    while (HoldNew(process, held)) {  // a thread that was running may have made another
    }
    return held;
}

}  // namespace rq::crashreport

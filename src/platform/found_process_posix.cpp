#include "platform/found_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "platform/files.h"
#include "platform/posix_error.h"

namespace rq::platform {

namespace {

using std::chrono::milliseconds;

std::string StatOf(std::uint64_t id) {
    return ReadWholeFile("/proc/" + std::to_string(id) + "/stat").value_or("");
}

// The numbers behind the program's name, which may hold anything. The first is the state, field 3.
std::istringstream FieldsOf(const std::string& stat) {
    const auto end = stat.rfind(')');
    return std::istringstream(end == std::string::npos ? "" : stat.substr(end + 1));
}

class FoundProcess final : public ChildProcess {
  public:
    FoundProcess(pid_t pid, std::string mark, FileDescriptor pidfd)
        : m_pid(pid), m_mark(std::move(mark)), m_pidfd(std::move(pidfd)) {}

    std::uint64_t Id() const override { return static_cast<std::uint64_t>(m_pid); }
    void KillTree() override {
        const std::string now = ProcessMark(Id());
        // Without a process of this number the group, if any, is still the old one's: a number in use as a
        // group's is given to nobody.
        if (now.empty() || now == m_mark) ::kill(-m_pid, SIGKILL);
    }
    void RequestEnd() override {
        if (ProcessMark(Id()) == m_mark) ::kill(m_pid, SIGTERM);
    }

    std::optional<ExitStatus> Wait(milliseconds timeout) override {
        const auto end =
            std::chrono::steady_clock::now() + std::min(timeout, milliseconds(std::chrono::hours(24)));
        for (;;) {
            if (ProcessMark(Id()) != m_mark) return ExitStatus{false, 0, false};
            const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
            if (left <= milliseconds::zero()) return std::nullopt;
            Pass(left);
        }
    }

  private:
    void Pass(milliseconds left) const {
        if (m_pidfd.Valid()) {
            pollfd ended{m_pidfd.Get(), POLLIN, 0};
            ::poll(&ended, 1, static_cast<int>(left.count()));
        } else {
            std::this_thread::sleep_for(std::min(left, milliseconds(50)));  // a kernel without pidfd_open
        }
    }

    const pid_t m_pid;
    const std::string m_mark;
    const FileDescriptor m_pidfd;
};

}  // namespace

std::string ProcessMark(std::uint64_t id) {
    auto fields = FieldsOf(StatOf(id));
    std::string state, skipped, started;
    fields >> state;
    for (int field = 4; field < 22; ++field) fields >> skipped;
    if (!(fields >> started) || state == "Z" || state == "X") return {};
    std::string boot = ReadWholeFile("/proc/sys/kernel/random/boot_id").value_or("");
    while (!boot.empty() && boot.back() == '\n') boot.pop_back();
    return boot + "." + started;
}

std::unique_ptr<ChildProcess> FindProcess(std::uint64_t id, const std::string& mark, const std::string&) {
    const auto pid = static_cast<pid_t>(id);
    if (mark.empty() || pid <= 0 || static_cast<std::uint64_t>(pid) != id) return nullptr;
    // The number for a C library whose header lacks the call. Opened before the look, so that it is for the
    // process that is looked at.
    FileDescriptor pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (ProcessMark(id) != mark) return nullptr;
    return std::make_unique<FoundProcess>(pid, mark, std::move(pidfd));
}

}  // namespace rq::platform

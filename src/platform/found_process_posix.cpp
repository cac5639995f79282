#include "platform/found_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <sstream>
#include <thread>

#include "platform/files.h"
#include "platform/posix_error.h"

namespace rq::platform {

namespace {

using std::chrono::milliseconds;

// What a look at the process of this number shows.
struct Sight {
    enum class Kind { Nobody, Somebody, Unclear } kind = Kind::Unclear;
    std::string boot;     // empty: not readable
    std::string started;  // of Somebody
};

bool IsPid(std::uint64_t id) {
    const auto pid = static_cast<pid_t>(id);
    return pid > 0 && static_cast<std::uint64_t>(pid) == id;
}

// The numbers behind the program's name, which may hold anything. The first is the state, field 3.
std::istringstream FieldsOf(const std::string& stat) {
    const auto end = stat.rfind(')');
    return std::istringstream(end == std::string::npos ? "" : stat.substr(end + 1));
}

Sight LookAt(std::uint64_t id) {
    if (!IsPid(id)) return {};
    // That nobody has the number needs neither a descriptor nor /proc.
    if (::kill(static_cast<pid_t>(id), 0) != 0 && errno == ESRCH) return {Sight::Kind::Nobody, {}, {}};
    auto fields = FieldsOf(ReadWholeFile("/proc/" + std::to_string(id) + "/stat").value_or(""));
    std::string state, skipped, started;
    fields >> state;
    for (int field = 4; field < 22; ++field) fields >> skipped;
    if (!(fields >> started)) return {};
    if (state == "Z" || state == "X") return {Sight::Kind::Nobody, {}, {}};
    std::string boot = ReadWholeFile("/proc/sys/kernel/random/boot_id").value_or("");
    while (!boot.empty() && boot.back() == '\n') boot.pop_back();
    return {Sight::Kind::Somebody, boot, started};
}

std::string MarkOf(const Sight& sight) {
    return sight.kind == Sight::Kind::Somebody && !sight.boot.empty() ? sight.boot + "." + sight.started : "";
}

Presence PresenceOf(const Sight& sight, const std::string& mark) {
    if (sight.kind == Sight::Kind::Nobody) return Presence::Gone;
    if (sight.kind == Sight::Kind::Unclear || mark.empty()) return Presence::Unknown;
    if (MarkOf(sight) == mark) return Presence::There;
    // Without the boot only another time of the start tells.
    const bool isBootKnown = !sight.boot.empty() && mark.front() != '.';
    return !isBootKnown && mark.ends_with("." + sight.started) ? Presence::Unknown : Presence::Gone;
}

// The number for a C library whose header lacks the call.
FileDescriptor OpenPidfd(pid_t pid) {
    return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

class FoundProcess final : public ChildProcess {
  public:
    FoundProcess(pid_t pid, std::string mark, FileDescriptor pidfd, bool isSeen)
        : m_pid(pid), m_mark(std::move(mark)), m_isSeen(isSeen), m_pidfd(std::move(pidfd)) {}

    std::uint64_t Id() const override { return static_cast<std::uint64_t>(m_pid); }
    void KillTree() override {
        const Sight now = LookAt(Id());
        // Without a process of this number the group, if any, is still the old one's: a number in use as a
        // group's is given to nobody.
        if (PresenceOf(now, m_mark) == Presence::There || (m_isSeen && now.kind == Sight::Kind::Nobody))
            ::kill(-m_pid, SIGKILL);
    }
    void RequestEnd() override {
        if (LookForProcess(Id(), m_mark) == Presence::There) ::kill(m_pid, SIGTERM);
    }

    std::optional<ExitStatus> Wait(milliseconds timeout) override {
        const auto end =
            std::chrono::steady_clock::now() + std::min(timeout, milliseconds(std::chrono::hours(24)));
        for (bool isOver = false;;) {
            const Presence presence = isOver ? Presence::Gone : LookForProcess(Id(), m_mark);
            if (presence == Presence::Gone) return ExitStatus{false, 0, false};
            if (presence == Presence::There) m_isSeen = true;
            const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
            if (left <= milliseconds::zero()) return std::nullopt;
            isOver = Pass(left);
        }
    }

  private:
    // Waits for `left` or less. True when the process that the descriptor is for has ended: ours, or one that
    // has got its number since.
    bool Pass(milliseconds left) {
        if (!m_pidfd.Valid()) {  // a kernel without the call, or no descriptor was left
            std::this_thread::sleep_for(std::min(left, milliseconds(50)));
            m_pidfd = OpenPidfd(m_pid);
            return false;
        }
        pollfd ended{m_pidfd.Get(), POLLIN, 0};
        const int ready = ::poll(&ended, 1, static_cast<int>(left.count()));
        if (ready < 0) std::this_thread::sleep_for(std::min(left, milliseconds(50)));
        return ready == 1 && (ended.revents & POLLIN) != 0;
    }

    const pid_t m_pid;
    const std::string m_mark;
    std::atomic<bool> m_isSeen;
    FileDescriptor m_pidfd;  // of the thread that waits
};

}  // namespace

std::string ProcessMark(std::uint64_t id) {
    return MarkOf(LookAt(id));
}

Presence LookForProcess(std::uint64_t id, const std::string& mark) {
    return PresenceOf(LookAt(id), mark);
}

std::unique_ptr<ChildProcess> FindProcess(std::uint64_t id, const std::string& mark, const std::string&) {
    const auto pid = static_cast<pid_t>(id);
    if (!IsPid(id)) return nullptr;
    // Opened before the look, so that it is for the process that is looked at.
    FileDescriptor pidfd = OpenPidfd(pid);
    const Presence presence = LookForProcess(id, mark);
    if (presence == Presence::Gone) return nullptr;
    return std::make_unique<FoundProcess>(pid, mark, std::move(pidfd), presence == Presence::There);
}

}  // namespace rq::platform

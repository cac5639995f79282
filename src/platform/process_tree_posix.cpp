#include "platform/process_tree.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <string_view>

#include "platform/files.h"
#include "platform/found_process.h"
#include "platform/process_tree_posix.h"

namespace rq::platform {

namespace {

enum class Membership { No, Yes, Unknown };

// By the environment that it was started with.
Membership MembershipOf(pid_t pid, const std::string& entry) {
    const std::string folder = "/proc/" + std::to_string(pid);
    struct stat owner {};
    if (::stat(folder.c_str(), &owner) != 0) return errno == ENOENT ? Membership::No : Membership::Unknown;
    if (owner.st_uid != ::geteuid()) return Membership::No;
    OsError error;
    const auto environment = ReadWholeFile(folder + "/environ", &error);
    // One that has just ended, or does not let itself be looked at, which ours do.
    if (!environment)
        return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM ? Membership::Unknown
                                                                                    : Membership::No;
    for (std::string_view rest = *environment; !rest.empty();) {
        const auto end = rest.find('\0');
        if (rest.substr(0, end) == entry) return Membership::Yes;
        if (end == std::string_view::npos) break;
        rest.remove_prefix(end + 1);
    }
    return Membership::No;
}

// The members of the tree for which `isAsked` says so; nothing when not all could be looked at.
template <class IsAsked>
std::optional<std::vector<pid_t>> Members(const std::string& tree, IsAsked isAsked) {
    const std::string entry = kTreeVariable + tree;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
    if (!folder) return std::nullopt;
    std::vector<pid_t> found;
    bool isThere = false;  // a /proc that shows at least this process
    while (const dirent* one = ::readdir(folder.get())) {
        const std::string_view name = one->d_name;
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size())
            continue;
        if (pid == ::getpid()) isThere = true;
        if (pid <= 0 || pid == ::getpid() || !isAsked(pid)) continue;
        const Membership membership = MembershipOf(pid, entry);
        if (membership == Membership::Unknown) return std::nullopt;
        if (membership == Membership::Yes) found.push_back(pid);
    }
    if (!isThere) return std::nullopt;
    return found;
}

}  // namespace

std::optional<std::vector<std::uint64_t>> FindTree(const std::string& tree) {
    const auto members = Members(tree, [](pid_t pid) { return ::getpgid(pid) == pid; });
    if (!members) return std::nullopt;
    std::vector<std::uint64_t> found;
    for (const pid_t pid : *members) {
        if (!ProcessMark(static_cast<std::uint64_t>(pid)).empty())
            found.push_back(static_cast<std::uint64_t>(pid));
    }
    return found;
}

// The number of a group is given to nobody while the group has members.
void EndTree(const std::string& tree, std::uint64_t leader) {
    const auto group = static_cast<pid_t>(leader);
    if (group <= 1 || static_cast<std::uint64_t>(group) != leader || ::getpgid(0) == group) return;
    // Without /proc it cannot be told whose group it is.
    const auto members = Members(tree, [group](pid_t pid) { return ::getpgid(pid) == group; });
    if (members && !members->empty()) ::kill(-group, SIGKILL);
}

}  // namespace rq::platform

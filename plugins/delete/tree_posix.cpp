#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "tree.h"

namespace rq::del {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

std::uint32_t LastCode() {
    return static_cast<std::uint32_t>(errno);
}

class Fd {
  public:
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Fd() {
        if (m_fd >= 0) ::close(m_fd);
    }
    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }

  private:
    int m_fd;
};

// Whether a mount of any kind begins at this open folder, also one that shows another folder of the same file
// system. Linux before 5.8 does not tell; there only the file system's number is left to compare.
bool IsMount(int folder) {
    struct statx facts {};
    return ::statx(folder, "", AT_EMPTY_PATH, 0, &facts) == 0 &&
           (facts.stx_attributes & facts.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
}
constexpr const char* kMounted = "something is mounted there; allow that folder itself";

// The names in a folder, without "." and ".."; errno otherwise.
std::uint32_t NamesIn(int folder, std::vector<std::string>& names) {
    const int own = ::openat(folder, ".", kFolderFlags);
    if (own < 0) return LastCode();
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(own), &::closedir);
    if (!entries) {
        const std::uint32_t code = LastCode();
        ::close(own);
        return code;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(entries.get());
        if (entry == nullptr) return LastCode();
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
}

class Walker {
  public:
    Walker(dev_t device, TreeWalk walk, TreeEvents& events)
        : m_device(device), m_walk(walk), m_events(events) {}

    // False when the walk is to end.
    bool Entries(int folder, const std::string& path, const std::vector<std::string>& names,
                 std::size_t depth) {
        std::vector<std::string> files;
        for (const std::string& name : names) {
            if (!m_events.GoOn()) return false;
            struct stat facts {};
            if (::fstatat(folder, name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno != ENOENT) Left(path + "/" + name, task::kErrorNotDeleted, LastCode());
                continue;
            }
            if (!S_ISDIR(facts.st_mode)) {
                files.push_back(name);
                if (files.size() == kBatch && !Remove(folder, path, files, false)) return false;
                continue;
            }
            if (!Folder(folder, path, name, facts, depth)) return false;
        }
        return Remove(folder, path, files, false);
    }

    // A folder with all that is in it.
    bool Folder(int parent, const std::string& path, const std::string& name, const struct stat& facts,
                std::size_t depth) {
        const std::string own = path + "/" + name;
        if (facts.st_dev != m_device) {
            m_events.Left(own, task::kErrorThroughLink, 0, kMounted);
            return true;
        }
        if (depth == kDeepest) {
            m_events.Left(own, task::kErrorNotDeleted, 0,
                          "folders are nested more than " + std::to_string(kDeepest) + " deep");
            return true;
        }
        {
            const Fd folder(::openat(parent, name.c_str(), kFolderFlags));
            std::vector<std::string> names;
            struct stat opened {};
            std::uint32_t code = folder.Valid() && ::fstat(folder.Get(), &opened) == 0 ? 0 : LastCode();
            // What stands there now is what was looked at.
            if (code == 0 && (opened.st_dev != facts.st_dev || opened.st_ino != facts.st_ino)) code = EAGAIN;
            if (code == 0 && IsMount(folder.Get())) {
                m_events.Left(own, task::kErrorThroughLink, 0, kMounted);
                return true;
            }
            if (code == 0) code = NamesIn(folder.Get(), names);
            if (code != 0) {
                Left(own, task::kErrorNotDeleted, code);
                return true;
            }
            if (!Entries(folder.Get(), own, names, depth + 1)) return false;
        }
        std::vector<std::string> itself{name};
        return Remove(parent, path, itself, true);
    }

    bool Remove(int folder, const std::string& path, std::vector<std::string>& names, bool isFolder) {
        if (names.empty()) return true;
        std::vector<TreeEntry> batch;
        for (const std::string& name : names) batch.push_back({path + "/" + name, isFolder});
        if (!m_events.Announce(batch)) return false;
        for (std::size_t i = 0; m_walk == TreeWalk::kDelete && i < names.size(); ++i) {
            if (!m_events.GoOn()) return false;
            const int result = ::unlinkat(folder, names[i].c_str(), isFolder ? AT_REMOVEDIR : 0);
            // Another one may have been quicker.
            m_events.Done(batch[i], result == 0 || errno == ENOENT ? 0 : LastCode());
        }
        names.clear();
        return true;
    }

  private:
    void Left(const std::string& path, std::int32_t errorCode, std::uint32_t code) {
        m_events.Left(path, errorCode, code, task::SystemWords(code));
    }

    dev_t m_device;
    TreeWalk m_walk;
    TreeEvents& m_events;
};

}  // namespace

void WalkTree(const Place& place, bool recursive, TreeWalk walk, TreeEvents& events) {
    Fd folder(::open(place.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat facts {};
    if (!folder.Valid() || ::fstat(folder.Get(), &facts) != 0) {
        const std::uint32_t code = LastCode();
        return events.Left(place.folder, task::kErrorNotDeleted, code,
                           "the allowed folder cannot be opened: " + task::SystemWords(code));
    }
    const dev_t device = facts.st_dev;
    std::string path = place.folder;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    for (std::size_t i = 0; i + 1 < place.below.size(); ++i) {
        const std::string& name = place.below[i];
        const std::string own = path + "/" + name;
        if (::fstatat(folder.Get(), name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
            const std::uint32_t code = LastCode();
            if (code == ENOENT) return events.Absent(own);
            return events.Left(own, task::kErrorNotDeleted, code, task::SystemWords(code));
        }
        if (S_ISLNK(facts.st_mode))
            return events.Left(own, task::kErrorThroughLink, 0,
                               "the path leads through a link; give the path without it");
        if (S_ISDIR(facts.st_mode) && facts.st_dev != device)
            return events.Left(own, task::kErrorThroughLink, 0, kMounted);
        Fd next(::openat(folder.Get(), name.c_str(), kFolderFlags));
        if (!next.Valid()) {
            const std::uint32_t code = LastCode();
            return events.Left(own, task::kErrorNotDeleted, code, task::SystemWords(code));
        }
        if (IsMount(next.Get())) return events.Left(own, task::kErrorThroughLink, 0, kMounted);
        folder = std::move(next);
        path = own;
    }
    Walker walker(device, walk, events);
    const std::string& name = place.below.back();
    if (::fstatat(folder.Get(), name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        const std::uint32_t code = LastCode();
        if (code == ENOENT) return events.Absent(path + "/" + name);
        return events.Left(path + "/" + name, task::kErrorNotDeleted, code, task::SystemWords(code));
    }
    if (S_ISDIR(facts.st_mode) && recursive) {
        walker.Folder(folder.Get(), path, name, facts, 0);
        return;
    }
    if (S_ISDIR(facts.st_mode)) {
        const Fd itself(::openat(folder.Get(), name.c_str(), kFolderFlags));
        std::vector<std::string> inside;
        if (itself.Valid() && NamesIn(itself.Get(), inside) == 0 && !inside.empty())
            return events.Left(path + "/" + name, task::kErrorNotDeleted, ENOTEMPTY, kNotEmpty);
    }
    std::vector<std::string> names{name};
    walker.Remove(folder.Get(), path, names, S_ISDIR(facts.st_mode));
}

PathParts SplitPath(std::string_view path) {
    PathParts result;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (part == "." || part == "..")
            result.refusal = "has \"" + std::string(part) + "\" in it; give the path without it";
        if (!part.empty()) result.parts.emplace_back(part);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    }
    return result;
}

bool IsSameName(std::string_view first, std::string_view second) {
    return first == second;
}

}  // namespace rq::del

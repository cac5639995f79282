#include "places.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "plugin_common/node.h"

namespace rq::transfer {
namespace {

std::uint32_t LastCode() {
    return static_cast<std::uint32_t>(errno);
}

Seen SeenOf(const struct stat& facts) {
    Seen seen;
    seen.kind = S_ISREG(facts.st_mode)   ? Kind::kFile
                : S_ISDIR(facts.st_mode) ? Kind::kFolder
                : S_ISLNK(facts.st_mode) ? Kind::kLink
                                         : Kind::kOther;
    seen.size_bytes = seen.kind == Kind::kFile ? static_cast<std::uint64_t>(facts.st_size) : 0;
    seen.isReadOnly = (facts.st_mode & 0222) == 0;
    return seen;
}

}  // namespace

std::uint32_t LookAt(const std::string& path, bool follow, Seen& seen) {
    struct stat facts {};
    seen = {};
    if ((follow ? ::stat(path.c_str(), &facts) : ::lstat(path.c_str(), &facts)) != 0)
        return errno == ENOENT ? 0 : LastCode();
    seen = SeenOf(facts);
    return 0;
}

std::optional<Identity> IdentityOf(const std::string& path, bool follow) {
    struct stat facts {};
    if ((follow ? ::stat(path.c_str(), &facts) : ::lstat(path.c_str(), &facts)) != 0) return std::nullopt;
    return Identity{facts.st_dev, facts.st_ino};
}

std::uint32_t FolderReader::Open(const std::string& path) {
    Close();
    m_folder = ::opendir(path.c_str());
    return m_folder != nullptr ? 0 : LastCode();
}

std::uint32_t FolderReader::Next(std::vector<Seen>& entries, const std::function<bool()>& goOn) {
    entries.clear();
    auto* folder = static_cast<DIR*>(m_folder);
    std::uint32_t code = 0;
    while (folder != nullptr && entries.size() < kListed && goOn()) {
        errno = 0;
        const dirent* entry = ::readdir(folder);
        if (entry == nullptr) {
            code = LastCode();
            Close();
            break;
        }
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat facts {};
        const int result = ::fstatat(::dirfd(folder), entry->d_name, &facts, AT_SYMLINK_NOFOLLOW);
        if (result != 0 && errno == ENOENT) continue;  // removed meanwhile
        entries.push_back(result == 0 ? SeenOf(facts) : Seen{{}, Kind::kOther, 0, false, LastCode()});
        entries.back().name = name;
    }
    std::sort(entries.begin(), entries.end(), [](const Seen& a, const Seen& b) { return a.name < b.name; });
    return code;
}

void FolderReader::Close() {
    if (m_folder != nullptr) ::closedir(static_cast<DIR*>(m_folder));
    m_folder = nullptr;
}

std::string RealPath(const std::string& path) {
    std::string rest;
    for (std::string known = path; known != "/"; known = ParentOf(known)) {
        char real[PATH_MAX];
        if (::realpath(known.c_str(), real) != nullptr) return (real[1] == '\0' ? "" : real) + rest;
        rest = "/" + NameOf(known) + rest;
    }
    return rest.empty() ? "/" : rest;
}

std::string ParentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::uint32_t MakeFolder(const std::string& path, bool& made) {
    made = ::mkdir(path.c_str(), 0777) == 0;
    if (made) return 0;
    const std::uint32_t code = LastCode();
    struct stat facts {};
    return code == EEXIST && ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode) ? 0 : code;
}

void CopyFolderFacts(const std::string& from, const std::string& to) {
    struct stat facts {};
    if (::stat(from.c_str(), &facts) != 0) return;
    (void)::chmod(to.c_str(), facts.st_mode & 01777);  // not the set-ID bits: it has another owner
    const timespec times[2] = {{0, UTIME_OMIT}, facts.st_mtim};
    (void)::utimensat(AT_FDCWD, to.c_str(), times, 0);
}

std::uint32_t CopyLink(const std::string& from, const std::string& to, bool overwrite) {
    char text[PATH_MAX];
    const ssize_t length = ::readlink(from.c_str(), text, sizeof text - 1);
    if (length < 0) return LastCode();
    text[length] = '\0';
    if (::symlink(text, to.c_str()) == 0) return 0;
    if (errno != EEXIST || !overwrite) return LastCode();
    const std::string other = ParentOf(to) + "/." + NameOf(to) + "." + task::RandomDigits() + ".rqpart";
    if (::symlink(text, other.c_str()) != 0) return LastCode();
    if (::rename(other.c_str(), to.c_str()) == 0) return 0;
    const std::uint32_t code = LastCode();
    ::unlink(other.c_str());
    return code;
}

std::uint32_t RemoveFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0 ? 0 : LastCode();
}

std::uint32_t RemoveFolder(const std::string& path) {
    return ::rmdir(path.c_str()) == 0 ? 0 : LastCode();
}

bool OnSameFileSystem(const std::string& path, const std::string& other) {
    struct stat a {};
    struct stat b {};
    return ::stat(path.c_str(), &a) == 0 && ::stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev;
}

Renamed Rename(const std::string& from, const std::string& to, bool overwrite, std::uint32_t& code) {
    code = 0;
    int result = overwrite ? ::rename(from.c_str(), to.c_str())
                           : ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (result != 0 && !overwrite && (errno == EINVAL || errno == ENOSYS)) {
        // The file system has no such rename: a second name instead, and the first removed. Folders have
        // none.
        result = ::link(from.c_str(), to.c_str());
        if (result == 0)
            result = ::unlink(from.c_str());
        else if (errno != EEXIST)
            return Renamed::kOtherFileSystem;
    }
    if (result == 0) return Renamed::kDone;
    code = LastCode();
    if (code == EXDEV) return Renamed::kOtherFileSystem;
    return code == EEXIST || code == ENOTEMPTY ? Renamed::kTargetExists : Renamed::kFailed;
}

}  // namespace rq::transfer

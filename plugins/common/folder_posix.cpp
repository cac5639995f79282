#include "plugin_common/folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace rq::task {
namespace {

EntryKind KindOf(DIR* folder, const dirent& entry) {
    switch (entry.d_type) {
        case DT_REG:
            return EntryKind::kFile;
        case DT_DIR:
            return EntryKind::kFolder;
        case DT_LNK:
            return EntryKind::kLink;
        case DT_UNKNOWN:
            break;
        default:
            return EntryKind::kOther;
    }
    // The file system does not say it here.
    struct stat facts {};
    if (::fstatat(::dirfd(folder), entry.d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0) return EntryKind::kOther;
    if (S_ISREG(facts.st_mode)) return EntryKind::kFile;
    if (S_ISDIR(facts.st_mode)) return EntryKind::kFolder;
    return S_ISLNK(facts.st_mode) ? EntryKind::kLink : EntryKind::kOther;
}

}  // namespace

std::uint32_t ListFolder(const std::string& path, std::vector<FolderEntry>& entries,
                         const std::function<bool()>& goOn) {
    entries.clear();
    DIR* folder = ::opendir(path.c_str());
    if (folder == nullptr) return static_cast<std::uint32_t>(errno);
    std::uint32_t code = 0;
    while (!goOn || goOn()) {
        errno = 0;
        const dirent* entry = ::readdir(folder);
        if (entry == nullptr) {
            code = static_cast<std::uint32_t>(errno);
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") entries.push_back({std::string(name), KindOf(folder, *entry)});
    }
    ::closedir(folder);
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });
    return code;
}

bool IsFolder(const std::string& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

std::string PathBelow(const std::string& folder, std::string_view name) {
    std::string path = folder;
    if (path.empty() || path.back() != '/') path += '/';
    return path.append(name);
}

std::string_view FolderPart(std::string_view path) {
    return path.substr(0, path.rfind('/') + 1);
}

std::string WithSlashes(std::string_view path) {
    return std::string(path);
}

std::string WithSeparators(std::string_view path) {
    return std::string(path);
}

}  // namespace rq::task

#include "plugin_common/folder.h"
#include "plugin_common/win_text.h"

namespace rq::task {
namespace {

constexpr std::string_view kSeparators = "\\/";

EntryKind KindOf(const WIN32_FIND_DATAW& found) {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return EntryKind::kLink;
    return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? EntryKind::kFolder : EntryKind::kFile;
}

std::string Replaced(std::string_view path, char from, char to) {
    std::string replaced(path);
    std::replace(replaced.begin(), replaced.end(), from, to);
    return replaced;
}

}  // namespace

std::uint32_t ListFolder(const std::string& path, std::vector<FolderEntry>& entries,
                         const std::function<bool()>& goOn) {
    entries.clear();
    WIN32_FIND_DATAW found{};
    HANDLE search = ::FindFirstFileW(NativePath(PathBelow(path, "*")).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return ::GetLastError();
    DWORD code = ERROR_NO_MORE_FILES;
    while (!goOn || goOn()) {
        const std::string name = Utf8Of(found.cFileName);
        if (name != "." && name != "..") entries.push_back({name, KindOf(found)});
        if (!::FindNextFileW(search, &found)) {
            code = ::GetLastError();
            break;
        }
    }
    ::FindClose(search);
    std::sort(entries.begin(), entries.end(),
              [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}

bool IsFolder(const std::string& path) {
    const DWORD attributes = ::GetFileAttributesW(NativePath(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::string PathBelow(const std::string& folder, std::string_view name) {
    std::string path = folder;
    if (path.empty() || kSeparators.find(path.back()) == std::string_view::npos) path += '\\';
    return path.append(name);
}

std::string_view FolderPart(std::string_view path) {
    return path.substr(0, path.find_last_of(kSeparators) + 1);
}

std::string WithSlashes(std::string_view path) {
    return Replaced(path, '\\', '/');
}

std::string WithSeparators(std::string_view path) {
    return Replaced(path, '/', '\\');
}

}  // namespace rq::task

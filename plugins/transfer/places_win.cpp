#include "places.h"

#include "plugin_common/node.h"
#include "plugin_common/win_text.h"

namespace rq::transfer {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Handle {
  public:
    Handle(const std::string& path, DWORD access, DWORD flags = 0)
        : m_handle(::CreateFileW(task::NativePath(path).c_str(), access, kShareAll, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS | flags, nullptr)) {}
    ~Handle() {
        if (Valid()) ::CloseHandle(m_handle);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    bool Valid() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return m_handle; }

  private:
    HANDLE m_handle;
};

// `tag` is that of a reparse point: some stand for another name, others for content that is kept elsewhere.
Seen SeenOf(DWORD attributes, DWORD tag, DWORD sizeHigh, DWORD sizeLow) {
    Seen seen;
    const bool isLink = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && IsReparseTagNameSurrogate(tag);
    seen.kind = isLink                                         ? Kind::kLink
                : (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? Kind::kFolder
                : (attributes & FILE_ATTRIBUTE_DEVICE) != 0    ? Kind::kOther
                                                               : Kind::kFile;
    if (seen.kind == Kind::kFile) seen.size_bytes = (std::uint64_t{sizeHigh} << 32) | sizeLow;
    seen.isReadOnly = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    return seen;
}

Seen EntryOf(const WIN32_FIND_DATAW& entry) {
    Seen seen = SeenOf(entry.dwFileAttributes, entry.dwReserved0, entry.nFileSizeHigh, entry.nFileSizeLow);
    seen.name = task::Utf8Of(entry.cFileName);
    return seen;
}

}  // namespace

std::uint32_t LookAt(const std::string& path, bool follow, Seen& seen) {
    seen = {};
    WIN32_FILE_ATTRIBUTE_DATA facts{};
    if (!::GetFileAttributesExW(task::NativePath(path).c_str(), GetFileExInfoStandard, &facts)) {
        const DWORD code = ::GetLastError();
        return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ? 0 : code;
    }
    if (follow && (facts.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        const Handle file(path, FILE_READ_ATTRIBUTES);
        BY_HANDLE_FILE_INFORMATION end{};
        if (!file.Valid() || !::GetFileInformationByHandle(file.Get(), &end)) return ::GetLastError();
        seen = SeenOf(end.dwFileAttributes, 0, end.nFileSizeHigh, end.nFileSizeLow);
        return 0;
    }
    DWORD tag = 0;
    if ((facts.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        WIN32_FIND_DATAW entry{};
        const HANDLE found = ::FindFirstFileW(task::NativePath(path).c_str(), &entry);
        if (found == INVALID_HANDLE_VALUE) return ::GetLastError();
        ::FindClose(found);
        tag = entry.dwReserved0;
    }
    seen = SeenOf(facts.dwFileAttributes, tag, facts.nFileSizeHigh, facts.nFileSizeLow);
    return 0;
}

std::optional<Identity> IdentityOf(const std::string& path, bool follow) {
    const Handle file(path, FILE_READ_ATTRIBUTES, follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    BY_HANDLE_FILE_INFORMATION facts{};
    if (!file.Valid() || !::GetFileInformationByHandle(file.Get(), &facts)) return std::nullopt;
    return Identity{facts.dwVolumeSerialNumber,
                    (std::uint64_t{facts.nFileIndexHigh} << 32) | facts.nFileIndexLow};
}

std::uint32_t FolderReader::Open(const std::string& path) {
    Close();
    WIN32_FIND_DATAW entry{};
    const HANDLE found = ::FindFirstFileW(task::NativePath(task::PathIn(path, "*")).c_str(), &entry);
    if (found == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : ::GetLastError();
    m_folder = found;
    m_first = EntryOf(entry);
    return 0;
}

std::uint32_t FolderReader::Next(std::vector<Seen>& entries, const std::function<bool()>& goOn) {
    entries.clear();
    DWORD code = ERROR_NO_MORE_FILES;
    while (m_folder != nullptr && entries.size() < kListed && goOn()) {
        WIN32_FIND_DATAW entry{};
        Seen seen;
        if (m_first) {
            seen = *std::exchange(m_first, std::nullopt);
        } else if (::FindNextFileW(m_folder, &entry)) {
            seen = EntryOf(entry);
        } else {
            code = ::GetLastError();
            Close();
            break;
        }
        if (seen.name != "." && seen.name != "..") entries.push_back(std::move(seen));
    }
    std::sort(entries.begin(), entries.end(), [](const Seen& a, const Seen& b) { return a.name < b.name; });
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}

void FolderReader::Close() {
    if (m_folder != nullptr) ::FindClose(m_folder);
    m_folder = nullptr;
    m_first.reset();
}

std::string RealPath(const std::string& path) {
    return path;
}

std::string ParentOf(const std::string& path) {
    const std::size_t separator = path.find_last_of("\\/");
    // The root of a drive keeps its separator.
    return path.substr(0, separator == 2 && path[1] == ':' ? 3 : separator);
}

std::string NameOf(const std::string& path) {
    return path.substr(path.find_last_of("\\/") + 1);
}

std::uint32_t MakeFolder(const std::string& path, bool& made) {
    made = ::CreateDirectoryW(task::NativePath(path).c_str(), nullptr) != FALSE;
    if (made) return 0;
    const DWORD code = ::GetLastError();
    const DWORD attributes = ::GetFileAttributesW(task::NativePath(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? 0 : code;
}

void CopyFolderFacts(const std::string& from, const std::string& to) {
    const Handle source(from, FILE_READ_ATTRIBUTES);
    const Handle target(to, FILE_WRITE_ATTRIBUTES);
    BY_HANDLE_FILE_INFORMATION facts{};
    if (source.Valid() && target.Valid() && ::GetFileInformationByHandle(source.Get(), &facts))
        (void)::SetFileTime(target.Get(), nullptr, nullptr, &facts.ftLastWriteTime);
}

std::uint32_t CopyLink(const std::string&, const std::string&, bool) {
    return ERROR_NOT_SUPPORTED;
}

std::uint32_t RemoveFile(const std::string& path) {
    return ::DeleteFileW(task::NativePath(path).c_str()) ? 0 : ::GetLastError();
}

std::uint32_t RemoveFolder(const std::string& path) {
    return ::RemoveDirectoryW(task::NativePath(path).c_str()) ? 0 : ::GetLastError();
}

bool OnSameFileSystem(const std::string& path, const std::string& other) {
    const Handle first(path, 0);
    const Handle second(other, 0);
    BY_HANDLE_FILE_INFORMATION a{};
    BY_HANDLE_FILE_INFORMATION b{};
    return first.Valid() && second.Valid() && ::GetFileInformationByHandle(first.Get(), &a) &&
           ::GetFileInformationByHandle(second.Get(), &b) && a.dwVolumeSerialNumber == b.dwVolumeSerialNumber;
}

Renamed Rename(const std::string& from, const std::string& to, bool overwrite, std::uint32_t& code) {
    code = 0;
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (overwrite ? MOVEFILE_REPLACE_EXISTING : 0);
    if (::MoveFileExW(task::NativePath(from).c_str(), task::NativePath(to).c_str(), flags))
        return Renamed::kDone;
    code = ::GetLastError();
    if (code == ERROR_NOT_SAME_DEVICE) return Renamed::kOtherFileSystem;
    return code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS ? Renamed::kTargetExists
                                                                     : Renamed::kFailed;
}

}  // namespace rq::transfer

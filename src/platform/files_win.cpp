#include "platform/files.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/identity.h"
#include "platform/private_access.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

WinHandle Open(const std::string& path, DWORD access, DWORD disposition,
               SECURITY_ATTRIBUTES* security = nullptr) {
    return WinHandle(::CreateFileW(NativePath(path).c_str(), access, kShareAll, security, disposition,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool WriteAll(HANDLE file, std::string_view bytes) {
    constexpr std::size_t kMost_bytes = 1u << 30;
    while (!bytes.empty()) {
        const auto part = static_cast<DWORD>(bytes.size() < kMost_bytes ? bytes.size() : kMost_bytes);
        DWORD written = 0;
        if (!::WriteFile(file, bytes.data(), part, &written, nullptr)) return false;
        bytes.remove_prefix(written);
    }
    return true;
}

bool HasAttribute(const std::wstring& path, DWORD any) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & any) != 0;
}

bool IsFolder(const std::wstring& path) {
    return HasAttribute(path, FILE_ATTRIBUTE_DIRECTORY);
}

std::string FolderOf(const std::string& path) {
    const auto separator = path.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

// Ends at a drive ("C:"), at a share's root, and where nothing is left.
bool MakeFolders(const std::string& path, OsError* error) {
    if (path.empty() || path.back() == ':' || IsFolder(NativePath(path))) return true;
    const std::string above = FolderOf(path);
    if (above != path && !MakeFolders(above, error)) return false;
    PrivateAccess access;
    if (::CreateDirectoryW(NativePath(path).c_str(), access.Attributes())) return true;
    const DWORD code = ::GetLastError();
    if (code == ERROR_ALREADY_EXISTS && IsFolder(NativePath(path))) return true;
    SetOsError(error, code, "mkdir " + path);
    return false;
}

class LockHandle final : public FolderLock {
  public:
    explicit LockHandle(WinHandle file) : m_file(std::move(file)) {}

  private:
    WinHandle m_file;  // closing it lets the lock go
};

// Who may do what with `path` stays as it was; false when there is no such file.
bool CopyAccess(const std::wstring& path, HANDLE to) {
    DWORD room = 0;
    ::GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &room);
    if (room == 0) return false;
    const auto descriptor = std::make_unique<char[]>(room);
    return ::GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor.get(), room, &room) &&
           ::SetKernelObjectSecurity(to, DACL_SECURITY_INFORMATION, descriptor.get());
}

// Writes and syncs the temporary file; it is gone when this fails.
bool WriteTemporary(const std::string& name, std::string_view bytes, bool isPrivate,
                    const std::string& beside, OsError* error) {
    PrivateAccess access;
    WinHandle file =
        Open(name, GENERIC_WRITE | WRITE_DAC, CREATE_NEW, isPrivate ? access.Attributes() : nullptr);
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "create " + name);
        return false;
    }
    if (!isPrivate) CopyAccess(NativePath(beside), file.Get());
    if (WriteAll(file.Get(), bytes) && ::FlushFileBuffers(file.Get())) return true;
    SetOsError(error, ::GetLastError(), "write " + name);
    file.Close();
    ::DeleteFileW(NativePath(name).c_str());
    return false;
}

// A program that looks at the target without sharing it (a virus scanner) lets go of it soon. A read-only
// target stays as it is.
bool RenameOver(const std::wstring& from, const std::wstring& to) {
    constexpr int kTries = 40;
    constexpr DWORD kPause_ms = 25;
    for (int i = 0; i < kTries; ++i) {
        if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            return true;
        const DWORD code = ::GetLastError();
        if (code != ERROR_SHARING_VIOLATION && code != ERROR_ACCESS_DENIED) return false;
        const bool isFolder = HasAttribute(to, FILE_ATTRIBUTE_DIRECTORY);
        if (!isFolder) ::Sleep(kPause_ms);
        ::SetLastError(code);
        if (isFolder) return false;
    }
    return false;
}

// What fopen's mode means; the stream itself is opened in the same mode.
struct OpenMode {
    DWORD access = GENERIC_READ;
    DWORD disposition = OPEN_EXISTING;
    int flags = _O_RDONLY;
};

OpenMode ModeOf(const char* mode) {
    OpenMode result;
    const bool both = std::strchr(mode, '+') != nullptr;
    if (mode[0] == 'w') result = {GENERIC_WRITE, CREATE_ALWAYS, 0};
    if (mode[0] == 'a')
        result = {FILE_APPEND_DATA | SYNCHRONIZE | FILE_READ_ATTRIBUTES, OPEN_ALWAYS, _O_APPEND};
    if (std::strchr(mode, 'x') != nullptr) result.disposition = CREATE_NEW;
    if (both) result.access |= GENERIC_READ | GENERIC_WRITE;
    result.flags |= std::strchr(mode, 'b') != nullptr ? _O_BINARY : _O_TEXT;
    return result;
}

}  // namespace

std::string ModuleFileName() {
    wchar_t buffer[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
    return Utf8Of(
        std::wstring_view(buffer, length == MAX_PATH ? MAX_PATH - 1 : length));  // cut: with its NUL
}

std::string CurrentDirectory() {
    std::wstring path(::GetCurrentDirectoryW(0, nullptr), L'\0');
    path.resize(::GetCurrentDirectoryW(static_cast<DWORD>(path.size()), path.data()));
    return Utf8Of(path);
}

bool ChangeCurrentDirectory(const std::string& path, OsError* error) {
    if (::SetCurrentDirectoryW(NativeSeparators(path).c_str())) return true;
    SetOsError(error, ::GetLastError(), "chdir " + path);
    return false;
}

std::FILE* OpenFile(const std::string& path, const char* mode) {
    const OpenMode how = ModeOf(mode);
    const HANDLE handle = ::CreateFileW(NativePath(path).c_str(), how.access, kShareAll, nullptr,
                                        how.disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    const int descriptor = ::_open_osfhandle(reinterpret_cast<std::intptr_t>(handle), how.flags);
    if (descriptor < 0) {
        ::CloseHandle(handle);
        return nullptr;
    }
    std::string plain(mode);
    std::erase(plain, 'x');
    std::FILE* file = ::_fdopen(descriptor, plain.c_str());
    if (file == nullptr) ::_close(descriptor);
    return file;
}

std::optional<FileState> StateOfFile(const std::string& path) {
    const WinHandle file = Open(path, FILE_READ_ATTRIBUTES, OPEN_EXISTING);
    BY_HANDLE_FILE_INFORMATION info{};
    if (!file.Valid() || !::GetFileInformationByHandle(file.Get(), &info)) return std::nullopt;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return std::nullopt;
    const auto whole = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; };
    const std::uint64_t changed =
        whole(info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime);
    return FileState{static_cast<std::int64_t>(changed), whole(info.nFileSizeHigh, info.nFileSizeLow)};
}

std::optional<std::string> ReadWholeFile(const std::string& path, OsError* error, std::uint64_t limit_bytes) {
    const WinHandle file = Open(path, GENERIC_READ, OPEN_EXISTING);
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "open " + path);
        return std::nullopt;
    }
    std::string bytes;
    LARGE_INTEGER told{};
    const auto size = ::GetFileSizeEx(file.Get(), &told) ? static_cast<std::uint64_t>(told.QuadPart) : 0;
    if (size <= limit_bytes) bytes.reserve(static_cast<std::size_t>(size));
    char buffer[65536];
    for (;;) {
        if (std::max<std::uint64_t>(size, bytes.size()) > limit_bytes) {
            SetOsError(error, ERROR_FILE_TOO_LARGE, "read " + path);
            return std::nullopt;
        }
        DWORD got = 0;
        if (!::ReadFile(file.Get(), buffer, sizeof buffer, &got, nullptr)) {
            SetOsError(error, ::GetLastError(), "read " + path);
            return std::nullopt;
        }
        if (got == 0) return bytes;
        bytes.append(buffer, got);
    }
}

bool CreatePrivateFile(const std::string& path, std::string_view bytes, OsError* error) {
    PrivateAccess access;
    WinHandle file = Open(path, GENERIC_WRITE, CREATE_NEW, access.Attributes());
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "create " + path);
        return false;
    }
    if (WriteAll(file.Get(), bytes)) return true;
    SetOsError(error, ::GetLastError(), "write " + path);
    file.Close();
    ::DeleteFileW(NativePath(path).c_str());
    return false;
}

bool CreatePrivateFolder(const std::string& path, OsError* error) {
    std::string plain = path;
    while (plain.size() > 1 && (plain.back() == '/' || plain.back() == '\\')) plain.pop_back();
    return MakeFolders(plain, error);
}

bool ReplaceWholeFile(const std::string& path, std::string_view bytes, bool isPrivate, OsError* error,
                      std::string temporary) {
    if (HasAttribute(NativePath(path), FILE_ATTRIBUTE_READONLY)) {  // as the rename would say, later
        SetOsError(error, ERROR_ACCESS_DENIED, "replace " + path);
        return false;
    }
    if (temporary.empty())
        temporary = path + ".new-" + RandomHex(6);
    else
        ::DeleteFileW(NativePath(temporary).c_str());
    if (!WriteTemporary(temporary, bytes, isPrivate, path, error)) return false;
    if (RenameOver(NativePath(temporary), NativePath(path))) return true;
    SetOsError(error, ::GetLastError(), "rename " + temporary + " to " + path);
    ::DeleteFileW(NativePath(temporary).c_str());
    return false;
}

FolderLock* TryLockFile(const std::string& path, OsError* error) {
    PrivateAccess access;
    WinHandle file = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, access.Attributes());
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "open " + path);
        return nullptr;
    }
    // The lock belongs to the handle, so a second try of the same process is refused as well.
    OVERLAPPED whole{};
    if (!::LockFileEx(file.Get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, MAXDWORD, MAXDWORD,
                      &whole)) {
        SetOsError(error, ::GetLastError(), "lock " + path);
        return nullptr;
    }
    return new LockHandle(std::move(file));
}

}  // namespace rq::platform

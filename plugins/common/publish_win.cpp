#include "plugin_common/file.h"
#include "plugin_common/publish.h"
#include "plugin_common/win_text.h"

// After the system's own header.
#include <bcrypt.h>
#include <winioctl.h>

#include <chrono>
#include <cstdio>

namespace rq::task {
namespace {

constexpr std::size_t kLongestName = 255;  // UTF-16 units; the digits, the dots and the suffix take 25
constexpr std::size_t kMaxKeptName_bytes = 200;
// How often a new name is tried when a cleaner took the last one.
constexpr int kMaxAttempts = 16;
// Looking for temporaries of dead processes is a courtesy; a huge folder on a slow share ends it.
constexpr std::chrono::milliseconds kMaxCleaning{500};
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// A virus scanner that looks at a new file without sharing it lets go of it soon.
constexpr int kMaxRenames = 40;
constexpr DWORD kRenamePause_ms = 25;

HANDLE HandleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

class Handle {
  public:
    explicit Handle(HANDLE handle) : m_handle(handle) {}
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

std::string FolderOf(const std::string& path) {
    const std::size_t separator = path.find_last_of("\\/");
    // The root of a drive keeps its separator.
    return path.substr(0, separator == 2 && path[1] == ':' ? 3 : separator);
}

std::string_view NameOf(const std::string& path) {
    return std::string_view(path).substr(path.find_last_of("\\/") + 1);
}

std::string WhyNotCalled(std::string_view name) {
    if (name.empty()) return {};
    if (name.back() == '.' || name.back() == ' ')
        return "Windows drops the dot or blank at the end of the name";
    if (name.find(':') != std::string_view::npos) return "Windows allows no colon in a file name";
    std::string base(name.substr(0, name.find('.')));
    while (!base.empty() && base.back() == ' ') base.pop_back();
    for (char& c : base) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (base == device) return "Windows keeps the name " + base + " for a device";
    }
    const bool isPort = base.starts_with("COM") || base.starts_with("LPT");
    const std::string number = isPort ? base.substr(3) : "";
    const bool isNumber = number.size() == 1 && number[0] >= '0' && number[0] <= '9';
    // The superscripts count as digits.
    const bool isSmall = number == "\u00B9" || number == "\u00B2" || number == "\u00B3";
    return isNumber || isSmall ? "Windows keeps the name " + base + " for a device" : "";
}

std::string In(const std::string& folder, std::string_view name) {
    return folder + (folder.ends_with('\\') || folder.ends_with('/') ? "" : "\\") + std::string(name);
}

// Cuts between characters, not inside one.
std::string_view CutName(std::string_view name) {
    if (name.size() <= kMaxKeptName_bytes) return name;
    std::size_t end = kMaxKeptName_bytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0u) == 0x80u) --end;
    return name.substr(0, end);
}

bool RandomDigits(std::string& digits) {
    std::uint64_t value = 0;
    if (::BCryptGenRandom(nullptr, reinterpret_cast<unsigned char*>(&value), sizeof value,
                          BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0)
        return false;
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    digits = text;
    return true;
}

// Who may do what with `to` becomes as it is with `from`; the rights are no part of the output, so what
// cannot be set stays as it is for new files.
void CopyRights(const std::wstring& from, const std::wstring& to) {
    DWORD room = 0;
    ::GetFileSecurityW(from.c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &room);
    std::string descriptor(room, '\0');
    if (room != 0 &&
        ::GetFileSecurityW(from.c_str(), DACL_SECURITY_INFORMATION, descriptor.data(), room, &room))
        ::SetFileSecurityW(to.c_str(), DACL_SECURITY_INFORMATION, descriptor.data());
}

// The sign that a temporary has an owner: one byte far behind any content, since a lock here keeps others
// from what it covers. It goes with its process.
bool LockAsOwner(HANDLE file) {
    OVERLAPPED place{};
    place.OffsetHigh = 0x7FFFFFFF;
    return ::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &place) != FALSE;
}

bool IsBeingDeleted(HANDLE file) {
    FILE_STANDARD_INFO facts{};
    return !::GetFileInformationByHandleEx(file, FileStandardInfo, &facts, sizeof facts) ||
           facts.DeletePending || facts.NumberOfLinks == 0;
}

// A temporary whose lock is free has lost its owner. It is marked while the lock is held, so that it cannot
// be one just made by another process: that one looks for the mark after it has the lock.
void RemoveIfOwnerIsDead(const std::string& path) {
    const Handle file(::CreateFileW(NativePath(path).c_str(), GENERIC_READ | DELETE, kShareAll, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file.Valid() || !LockAsOwner(file.Get())) return;
    FILE_DISPOSITION_INFO remove{TRUE};
    ::SetFileInformationByHandle(file.Get(), FileDispositionInfo, &remove, sizeof remove);
}

bool Identify(const std::string& path, BY_HANDLE_FILE_INFORMATION& facts) {
    const Handle file(::CreateFileW(NativePath(path).c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    return file.Valid() && ::GetFileInformationByHandle(file.Get(), &facts);
}

}  // namespace

void RemoveLeftTemporaries(const std::string& folder) {
    WIN32_FIND_DATAW entry{};
    const HANDLE entries = ::FindFirstFileW(NativePath(In(folder, ".*.rqpart")).c_str(), &entry);
    if (entries == INVALID_HANDLE_VALUE) return;
    const auto end = std::chrono::steady_clock::now() + kMaxCleaning;
    do {
        const std::string name = Utf8Of(entry.cFileName);
        constexpr DWORD kOther = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
        if ((entry.dwFileAttributes & kOther) == 0 && IsTemporaryName(name))
            RemoveIfOwnerIsDead(In(folder, name));
    } while (std::chrono::steady_clock::now() < end && ::FindNextFileW(entries, &entry));
    ::FindClose(entries);
}

bool IsSameFile(const std::string& first, const std::string& second) {
    BY_HANDLE_FILE_INFORMATION a{};
    BY_HANDLE_FILE_INFORMATION b{};
    return Identify(first, a) && Identify(second, b) && a.dwVolumeSerialNumber == b.dwVolumeSerialNumber &&
           a.nFileIndexHigh == b.nFileIndexHigh && a.nFileIndexLow == b.nFileIndexLow;
}

std::string WhyNoName(const std::string& path) {
    return WhyNotCalled(NameOf(path));
}

void SyncFolders(const std::vector<std::string>&) {}

std::optional<PublishFailure> Publication::Fail(PublishProblem problem, std::uint32_t code,
                                                const std::string& what) {
    Discard();
    return PublishFailure{problem, code, what + (code == 0 ? "" : ": " + SystemWords(code))};
}

std::optional<PublishFailure> Publication::Begin(const std::string& target,
                                                 const std::vector<std::string>& sources, bool overwrite,
                                                 Cleaning cleaning) {
    Discard();
    m_target = target;
    m_overwrite = overwrite;
    m_mode = -1;
    m_facts.reset();
    m_isSynced = false;
    m_sizeBytes = 0;
    if (const std::string why = WhyNoName(target); !why.empty())
        return Fail(PublishProblem::kCreate, 0, target + ": " + why);
    const auto same = std::find_if(sources.begin(), sources.end(), [&](const std::string& source) {
        return source == target || IsSameFile(source, target);
    });
    if (same != sources.end())
        return Fail(PublishProblem::kTargetIsSource, 0, target + ": the target is the source " + *same);
    const DWORD attributes = ::GetFileAttributesW(NativePath(target).c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES) {
        if (!overwrite) return Fail(PublishProblem::kTargetExists, 0, target + ": the target exists already");
        if ((attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0)
            return Fail(PublishProblem::kTargetExists, 0,
                        target + ": the target exists and is no plain file; it is not overwritten");
        m_mode = 0;  // its rights are taken when the new file is complete
    } else if (WideOf(NameOf(target)).size() > kLongestName) {
        return Fail(PublishProblem::kCreate, ERROR_FILENAME_EXCED_RANGE, target);
    }
    const std::string folder = FolderOf(target);
    if (cleaning == Cleaning::kDo) RemoveLeftTemporaries(folder);
    return CreateTemporary(folder, CutName(NameOf(target)));
}

// Without the right to delete: whoever opens the temporary by name need not allow that.
std::optional<PublishFailure> Publication::CreateTemporary(const std::string& folder, std::string_view name) {
    const std::string begin = In(folder, "." + std::string(name) + ".");
    for (int i = 0; i < kMaxAttempts; ++i) {
        std::string digits;
        if (!RandomDigits(digits)) break;
        std::string path = begin;
        path.append(digits).append(".rqpart");
        const HANDLE file = ::CreateFileW(NativePath(path).c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll,
                                          nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            const DWORD code = ::GetLastError();
            if (code == ERROR_FILE_EXISTS || code == ERROR_ALREADY_EXISTS) continue;
            return Fail(PublishProblem::kCreate, code,
                        folder + ": no file can be made in the target's folder");
        }
        // A cleaner may have had the lock between these calls, and then removes the name.
        const bool isLocked = LockAsOwner(file) || ::GetLastError() != ERROR_LOCK_VIOLATION;
        if (isLocked && !IsBeingDeleted(file)) {
            m_handle = reinterpret_cast<std::intptr_t>(file);
            m_temporary = path;
            return std::nullopt;
        }
        ::CloseHandle(file);
    }
    return Fail(PublishProblem::kCreate, 0,
                folder + ": no temporary file could be kept in the target's folder");
}

std::uint32_t Publication::WriteAt(std::uint64_t offset_bytes, const void* bytes, std::size_t count) {
    constexpr std::size_t kMost_bytes = 1u << 30;
    const auto* from = static_cast<const char*>(bytes);
    while (count > 0) {
        OVERLAPPED at{};
        at.Offset = static_cast<DWORD>(offset_bytes);
        at.OffsetHigh = static_cast<DWORD>(offset_bytes >> 32);
        DWORD n = 0;
        const auto part = static_cast<DWORD>(std::min(count, kMost_bytes));
        if (!::WriteFile(HandleOf(m_handle), from, part, &n, &at)) return ::GetLastError();
        if (n == 0) return ERROR_WRITE_FAULT;
        from += n;
        offset_bytes += n;
        count -= n;
    }
    if (offset_bytes > m_sizeBytes) m_sizeBytes = offset_bytes;
    return 0;
}

// The system copies files by name only.
std::uint32_t Publication::CopyFrom(const InputFile&, std::uint64_t, std::uint64_t,
                                    std::uint64_t& copied_bytes) {
    copied_bytes = 0;
    return kNotOffloaded;
}

std::uint32_t Publication::MakeSparse() {
    DWORD size = 0;
    return ::DeviceIoControl(HandleOf(m_handle), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &size, nullptr)
               ? 0
               : ::GetLastError();
}

std::uint32_t Publication::SetSize(std::uint64_t size_bytes) {
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(size_bytes);
    if (!::SetFileInformationByHandle(HandleOf(m_handle), FileEndOfFileInfo, &end, sizeof end))
        return ::GetLastError();
    m_sizeBytes = size_bytes;
    return 0;
}

void Publication::KeepPrivate() {}  // its folder's access list holds

void Publication::TakeFactsOf(const InputFile& source) {
    m_facts = source.FactsToKeep();
}

std::uint32_t Publication::ApplyFacts() {
    constexpr std::int64_t kEpoch_100ns =
        116444736000000000;  // 1970 in the system's time, which begins in 1601
    const std::uint64_t time = static_cast<std::uint64_t>(m_facts->modified_ns / 100 + kEpoch_100ns);
    const FILETIME modified{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
    if (!::SetFileTime(HandleOf(m_handle), nullptr, nullptr, &modified)) return ::GetLastError();
    const DWORD attributes = m_facts->mode != 0 ? m_facts->mode : FILE_ATTRIBUTE_NORMAL;
    return ::SetFileAttributesW(NativePath(m_temporary).c_str(), attributes) ? 0 : ::GetLastError();
}

void Publication::StartWriting() {}

std::optional<PublishFailure> Publication::Sync() {
    if (m_temporary.empty()) return Fail(PublishProblem::kWrite, 0, m_target + ": nothing was begun");
    // Not every file system keeps them: the content is what counts.
    if (m_facts) (void)ApplyFacts();
    return Synced(::FlushFileBuffers(HandleOf(m_handle)) ? 0 : ::GetLastError());
}

std::optional<PublishFailure> Publication::Synced(std::uint32_t code) {
    if (code != 0)
        return Fail(PublishProblem::kWrite, code, m_target + ": the file cannot be written to the disk");
    m_isSynced = true;
    return std::nullopt;
}

void Publication::EndWriting() {}

std::vector<std::optional<PublishFailure>> Publication::SyncAll(const std::vector<Publication*>& files) {
    std::vector<std::optional<PublishFailure>> failures;
    for (Publication* file : files) failures.push_back(file->Sync());
    return failures;
}

// A rename here is on the disk when it returns.
std::optional<PublishFailure> Publication::Publish(const Check& check) {
    return GiveName(check);
}

std::optional<PublishFailure> Publication::GiveName(const Check& check) {
    if (!m_isSynced)
        if (auto failure = Sync()) return failure;
    if (m_mode >= 0) CopyRights(NativePath(m_target), NativePath(m_temporary));
    if (!check(m_temporary))
        return Fail(PublishProblem::kCheck, 0, m_target + ": the written file is not as it should be");
    if (auto failure = Rename()) return failure;
    m_temporary.clear();
    Discard();
    return std::nullopt;
}

std::optional<PublishFailure> Publication::Rename() {
    const std::wstring from = NativePath(m_temporary);
    const std::wstring to = NativePath(m_target);
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (m_overwrite ? MOVEFILE_REPLACE_EXISTING : 0);
    DWORD code = 0;
    for (int i = 0; i < kMaxRenames; ++i) {
        if (::MoveFileExW(from.c_str(), to.c_str(), flags)) return std::nullopt;
        code = ::GetLastError();
        if (code != ERROR_SHARING_VIOLATION && code != ERROR_ACCESS_DENIED) break;
        ::Sleep(kRenamePause_ms);
    }
    if (!m_overwrite && (code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS))
        return Fail(PublishProblem::kTargetExists, 0,
                    m_target + ": the target has come into being meanwhile");
    return Fail(PublishProblem::kRename, code, m_target + ": the finished file cannot be given its name");
}

void Publication::Discard() {
    // The name goes before the lock does.
    if (!m_temporary.empty()) {
        // One that took its source's read-only mark could not be removed.
        if (m_facts) ::SetFileAttributesW(NativePath(m_temporary).c_str(), FILE_ATTRIBUTE_NORMAL);
        ::DeleteFileW(NativePath(m_temporary).c_str());
    }
    m_temporary.clear();
    if (m_handle != -1) ::CloseHandle(HandleOf(m_handle));
    m_handle = -1;
}

}  // namespace rq::task

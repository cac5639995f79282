#include "plugin_common/file.h"
#include "plugin_common/win_text.h"

// After the system's own header.
#include <winioctl.h>

namespace rq::task {
namespace {

constexpr std::size_t kMostAtOnce_bytes = 1u << 30;
constexpr std::int64_t kEpoch_100ns = 116444736000000000;  // 1970 in the system's time, which begins in 1601

bool IsSeparator(char c) {
    return c == '\\' || c == '/';
}

HANDLE HandleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

std::wstring MessageIn(std::uint32_t code, DWORD language) {
    wchar_t buffer[1024];
    return {buffer, ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                     code, language, buffer, ARRAYSIZE(buffer), nullptr)};
}

// At the file's own position when `at` is null.
std::uint32_t ReadFully(HANDLE file, OVERLAPPED* at, void* buffer, std::size_t wanted, std::size_t& got) {
    got = 0;
    while (got < wanted) {
        const auto part = static_cast<DWORD>(std::min(wanted - got, kMostAtOnce_bytes));
        DWORD n = 0;
        if (!::ReadFile(file, static_cast<char*>(buffer) + got, part, &n, at)) {
            const DWORD code = ::GetLastError();
            return code == ERROR_HANDLE_EOF ? 0 : code;
        }
        if (n == 0) return 0;
        got += n;
        if (at == nullptr) continue;
        const std::uint64_t next = ((std::uint64_t{at->OffsetHigh} << 32) | at->Offset) + n;
        at->Offset = static_cast<DWORD>(next);
        at->OffsetHigh = static_cast<DWORD>(next >> 32);
    }
    return 0;
}

}  // namespace

// "C:\x", "C:/x", "\\server\share".
bool IsAbsolutePath(std::string_view path) {
    if (path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1])) return true;
    const char drive = path.empty() ? '\0' : static_cast<char>(path[0] | 0x20);
    return path.size() >= 3 && drive >= 'a' && drive <= 'z' && path[1] == ':' && IsSeparator(path[2]);
}

// In English where the system has it.
std::string SystemWords(std::uint32_t code) {
    std::wstring text = MessageIn(code, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));
    if (text.empty()) text = MessageIn(code, 0);
    while (!text.empty() && (text.back() <= L' ' || text.back() == L'.')) text.pop_back();
    return text.empty() ? "error " + std::to_string(code) : Utf8Of(text);
}

std::uint64_t PlainFileSize(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA facts{};
    if (!::GetFileAttributesExW(NativePath(path).c_str(), GetFileExInfoStandard, &facts)) return 0;
    if ((facts.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0) return 0;
    return (std::uint64_t{facts.nFileSizeHigh} << 32) | facts.nFileSizeLow;
}

std::uint32_t InputFile::Open(const std::string& path) {
    Close();
    const std::wstring native = NativePath(path);
    const DWORD attributes = ::GetFileAttributesW(native.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return ERROR_DIRECTORY;
    const HANDLE file =
        ::CreateFileW(native.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    m_handle = reinterpret_cast<std::intptr_t>(file);
    std::uint32_t code = ::GetFileType(file) == FILE_TYPE_DISK ? 0 : ERROR_INVALID_PARAMETER;
    if (code == 0 && !Look(m_before)) code = ::GetLastError();
    if (code != 0) Close();
    return code;
}

std::uint32_t InputFile::Read(void* buffer, std::size_t wanted, std::size_t& got) {
    return ReadFully(HandleOf(m_handle), nullptr, buffer, wanted, got);
}

// A read at a place moves the file's position as well: it is put back.
std::uint32_t InputFile::ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t wanted,
                                std::size_t& got) {
    LARGE_INTEGER before{};
    const LARGE_INTEGER here{};
    got = 0;
    if (!::SetFilePointerEx(HandleOf(m_handle), here, &before, FILE_CURRENT)) return ::GetLastError();
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(offset_bytes);
    at.OffsetHigh = static_cast<DWORD>(offset_bytes >> 32);
    const std::uint32_t code = ReadFully(HandleOf(m_handle), &at, buffer, wanted, got);
    if (!::SetFilePointerEx(HandleOf(m_handle), before, nullptr, FILE_BEGIN)) return ::GetLastError();
    return code;
}

bool InputFile::Look(Facts& facts) const {
    BY_HANDLE_FILE_INFORMATION now{};
    if (!::GetFileInformationByHandle(HandleOf(m_handle), &now)) return false;
    const std::uint64_t time =
        (std::uint64_t{now.ftLastWriteTime.dwHighDateTime} << 32) | now.ftLastWriteTime.dwLowDateTime;
    facts = {(std::uint64_t{now.nFileSizeHigh} << 32) | now.nFileSizeLow,
             (static_cast<std::int64_t>(time) - kEpoch_100ns) * 100};
    return true;
}

FileFacts InputFile::FactsToKeep() const {
    BY_HANDLE_FILE_INFORMATION now{};
    if (!::GetFileInformationByHandle(HandleOf(m_handle), &now)) return {m_before.modified_ns, 0};
    constexpr DWORD kKept =
        FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
    return {m_before.modified_ns, now.dwFileAttributes & kKept};
}

bool InputFile::MayHaveHoles() const {
    BY_HANDLE_FILE_INFORMATION now{};
    return ::GetFileInformationByHandle(HandleOf(m_handle), &now) &&
           (now.dwFileAttributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
}

std::uint32_t InputFile::NextData(std::uint64_t offset_bytes, std::uint64_t& begin_bytes,
                                  std::uint64_t& end_bytes) const {
    begin_bytes = offset_bytes;
    end_bytes = m_before.size_bytes;
    if (!MayHaveHoles()) return 0;
    struct Range {
        std::int64_t offset, length;
    };
    Range wanted{static_cast<std::int64_t>(offset_bytes),
                 static_cast<std::int64_t>(m_before.size_bytes - offset_bytes)};
    Range found[1]{};
    DWORD size = 0;
    if (!::DeviceIoControl(HandleOf(m_handle), FSCTL_QUERY_ALLOCATED_RANGES, &wanted, sizeof wanted, found,
                           sizeof found, &size, nullptr) &&
        ::GetLastError() != ERROR_MORE_DATA)
        return 0;  // it cannot tell: all of it is data
    if (size < sizeof(Range)) {
        begin_bytes = end_bytes;
    } else {
        begin_bytes = static_cast<std::uint64_t>(found[0].offset);
        end_bytes = begin_bytes + static_cast<std::uint64_t>(found[0].length);
    }
    return 0;
}

bool InputFile::IsAt(const std::string& path) const {
    const HANDLE named =
        ::CreateFileW(NativePath(path).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (named == INVALID_HANDLE_VALUE) return false;
    BY_HANDLE_FILE_INFORMATION a{};
    BY_HANDLE_FILE_INFORMATION b{};
    const bool isSame = ::GetFileInformationByHandle(named, &a) &&
                        ::GetFileInformationByHandle(HandleOf(m_handle), &b) &&
                        a.dwVolumeSerialNumber == b.dwVolumeSerialNumber &&
                        a.nFileIndexHigh == b.nFileIndexHigh && a.nFileIndexLow == b.nFileIndexLow;
    ::CloseHandle(named);
    return isSame;
}

void InputFile::ForgetCache() const {}

// ERROR_DISK_QUOTA_EXCEEDED, which not every header has.
constexpr std::uint32_t kDiskQuotaExceeded = 1295;

CodeClass ClassOf(std::uint32_t code) {
    switch (code) {
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
        case kDiskQuotaExceeded:
            return CodeClass::kNoRoom;
        case ERROR_WRITE_PROTECT:
        case ERROR_ACCESS_DENIED:
            return CodeClass::kReadOnly;
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return CodeClass::kAbsent;
        default:
            return CodeClass::kOther;
    }
}

bool InputFile::Changed() const {
    Facts now;
    return !Look(now) || !(now == m_before);
}

void InputFile::Close() {
    if (m_handle != -1) ::CloseHandle(HandleOf(m_handle));
    m_handle = -1;
}

}  // namespace rq::task

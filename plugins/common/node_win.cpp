#include "plugin_common/node.h"
#include "plugin_common/win_text.h"

// After the system's own header.
#include <bcrypt.h>

#include <cstdio>

namespace rq::task {
namespace {

HANDLE HandleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

std::string DataFolder() {
    return PathIn(EnvironmentText("LOCALAPPDATA").value_or("C:\\Windows\\Temp"), "RQWorker");
}

}  // namespace

std::optional<std::string> EnvironmentText(const char* name) {
    const std::wstring wide = WideOf(name);
    std::wstring value(::GetEnvironmentVariableW(wide.c_str(), nullptr, 0), L'\0');
    value.resize(::GetEnvironmentVariableW(wide.c_str(), value.data(), static_cast<DWORD>(value.size())));
    if (value.empty()) return std::nullopt;
    return Utf8Of(value);
}

std::string PathIn(const std::string& folder, const std::string& name) {
    return folder + (folder.ends_with('\\') || folder.ends_with('/') ? "" : "\\") + name;
}

std::string ConfigFolder() {
    if (auto folder = EnvironmentText("RQ_CONFIG_DIR")) return *folder;
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    const std::string program = Utf8Of(path);
    return program.substr(0, program.find_last_of("\\/"));
}

std::string ReportFolder() {
    if (auto folder = EnvironmentText("RQ_REPORT_DIR")) return *folder;
    return PathIn(EnvironmentText("RQ_LOG_DIR").value_or(DataFolder()), "reports");
}

bool IsAbsent(const std::string& path) {
    if (::GetFileAttributesW(NativePath(path).c_str()) != INVALID_FILE_ATTRIBUTES) return false;
    const DWORD code = ::GetLastError();
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

std::uint32_t MakeFolders(const std::string& path) {
    const auto isFolder = [](const std::string& candidate) {
        const DWORD attributes = ::GetFileAttributesW(NativePath(candidate).c_str());
        return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    };
    if (isFolder(path)) return 0;
    for (std::size_t at = 2; at != std::string::npos;) {
        at = path.find_first_of("\\/", at + 1);
        ::CreateDirectoryW(NativePath(path.substr(0, at)).c_str(), nullptr);
    }
    if (isFolder(path)) return 0;
    const DWORD code = ::GetLastError();
    return code != 0 ? code : ERROR_PATH_NOT_FOUND;
}

std::uint32_t AppendFile::Create(const std::string& path) {
    Close();
    const HANDLE file = ::CreateFileW(NativePath(path).c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                      FILE_SHARE_READ, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    m_handle = reinterpret_cast<std::intptr_t>(file);
    return 0;
}

std::uint32_t AppendFile::Append(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        DWORD n = 0;
        const auto part = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - at, 1u << 30));
        if (!::WriteFile(HandleOf(m_handle), bytes.data() + at, part, &n, nullptr)) return ::GetLastError();
        if (n == 0) return ERROR_WRITE_FAULT;
        at += n;
    }
    return 0;
}

std::uint32_t AppendFile::Sync() {
    return ::FlushFileBuffers(HandleOf(m_handle)) ? 0 : ::GetLastError();
}

void AppendFile::Close() {
    if (m_handle != -1) ::CloseHandle(HandleOf(m_handle));
    m_handle = -1;
}

std::string RandomDigits() {
    std::uint64_t value = 0;
    if (::BCryptGenRandom(nullptr, reinterpret_cast<unsigned char*>(&value), sizeof value,
                          BCRYPT_USE_SYSTEM_PREFERRED_RNG) < 0)
        return {};
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace rq::task

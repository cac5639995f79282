#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "plugin_common/node.h"

namespace rq::task {
namespace {

std::uint32_t LastCode() {
    return static_cast<std::uint32_t>(errno);
}

std::string DataFolder() {
    if (::geteuid() == 0) return "/var/lib/rqworker";
    if (const auto data = EnvironmentText("XDG_DATA_HOME"); data && data->front() == '/')
        return PathIn(*data, "rqworker");
    return PathIn(EnvironmentText("HOME").value_or("/var/tmp"), ".local/share/rqworker");
}

}  // namespace

std::optional<std::string> EnvironmentText(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
}

std::string PathIn(const std::string& folder, const std::string& name) {
    return folder + (folder.ends_with('/') ? "" : "/") + name;
}

std::string ConfigFolder() {
    if (auto folder = EnvironmentText("RQ_CONFIG_DIR")) return *folder;
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    const std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::size_t slash = program.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : program.substr(0, slash);
}

std::string ReportFolder() {
    if (auto folder = EnvironmentText("RQ_REPORT_DIR")) return *folder;
    return PathIn(EnvironmentText("RQ_LOG_DIR").value_or(DataFolder()), "reports");
}

bool IsAbsent(const std::string& path) {
    struct stat facts {};
    return ::lstat(path.c_str(), &facts) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

std::uint32_t MakeFolders(const std::string& path) {
    for (std::size_t at = 1; at != std::string::npos;) {
        at = path.find('/', at + 1);
        if (::mkdir(path.substr(0, at).c_str(), 0777) != 0 && errno != EEXIST) {
            const std::uint32_t code = LastCode();
            struct stat facts {};  // one that may not be made is no trouble when it is there
            if (::stat(path.substr(0, at).c_str(), &facts) != 0) return code;
        }
    }
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) return LastCode();
    return S_ISDIR(facts.st_mode) ? 0 : ENOTDIR;
}

std::uint32_t AppendFile::Create(const std::string& path) {
    Close();
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd < 0) return LastCode();
    m_handle = fd;
    // The name shall last as what is written under it. Not every file system can.
    const int folder =
        ::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return 0;
}

std::uint32_t AppendFile::Append(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n = ::write(static_cast<int>(m_handle), bytes.data() + at, bytes.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return LastCode();
        if (n == 0) return EIO;
        at += static_cast<std::size_t>(n);
    }
    return 0;
}

std::uint32_t AppendFile::Sync() {
    return ::fdatasync(static_cast<int>(m_handle)) == 0 ? 0 : LastCode();
}

void AppendFile::Close() {
    if (m_handle >= 0) ::close(static_cast<int>(m_handle));
    m_handle = -1;
}

std::string RandomDigits() {
    std::uint64_t value = 0;
    if (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) return {};
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace rq::task

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "plugin_common/file.h"

namespace rq::task {
namespace {

std::int64_t Nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::uint32_t LastCode() {
    return static_cast<std::uint32_t>(errno);
}

}  // namespace

bool IsAbsolutePath(std::string_view path) {
    return path.substr(0, 1) == "/";
}

std::string SystemWords(std::uint32_t code) {
    // Unlike strerror it touches no shared buffer.
    const char* words = strerrordesc_np(static_cast<int>(code));
    return words != nullptr ? words : "error " + std::to_string(code);
}

std::uint64_t PlainFileSize(const std::string& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode)
               ? static_cast<std::uint64_t>(facts.st_size)
               : 0;
}

std::uint32_t InputFile::Open(const std::string& path) {
    Close();
    // O_NONBLOCK lets the opening of a pipe return; it means nothing to a plain file.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return LastCode();
    m_handle = fd;
    struct stat facts {};
    std::uint32_t code = ::fstat(fd, &facts) == 0 ? 0 : LastCode();
    if (code == 0 && S_ISDIR(facts.st_mode)) code = EISDIR;
    if (code == 0 && !S_ISREG(facts.st_mode)) code = EINVAL;
    if (code == 0 && !Look(m_before)) code = LastCode();
    if (code != 0) {
        Close();
        return code;
    }
    // Advice only: reads ahead further than by default.
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return 0;
}

std::uint32_t InputFile::Read(void* buffer, std::size_t wanted, std::size_t& got) {
    got = 0;
    while (got < wanted) {
        const ssize_t n = ::read(static_cast<int>(m_handle), static_cast<char*>(buffer) + got, wanted - got);
        if (n == 0) return 0;
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (errno != EINTR) {
            return LastCode();
        }
    }
    return 0;
}

std::uint32_t InputFile::ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t wanted,
                                std::size_t& got) {
    got = 0;
    while (got < wanted) {
        const ssize_t n = ::pread(static_cast<int>(m_handle), static_cast<char*>(buffer) + got, wanted - got,
                                  static_cast<off_t>(offset_bytes + got));
        if (n == 0) return 0;
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (errno != EINTR) {
            return LastCode();
        }
    }
    return 0;
}

bool InputFile::Look(Facts& facts) const {
    struct stat now {};
    if (::fstat(static_cast<int>(m_handle), &now) != 0) return false;
    facts = {static_cast<std::uint64_t>(now.st_size), Nanoseconds(now.st_mtim)};
    return true;
}

FileFacts InputFile::FactsToKeep() const {
    struct stat now {};
    if (::fstat(static_cast<int>(m_handle), &now) != 0) return {m_before.modified_ns, 0644};
    // Not the set-ID bits: the copy has another owner.
    return {m_before.modified_ns, now.st_mode & 0777u};
}

bool InputFile::MayHaveHoles() const {
    struct stat now {};
    return ::fstat(static_cast<int>(m_handle), &now) == 0 && now.st_blocks * 512 < now.st_size;
}

std::uint32_t InputFile::NextData(std::uint64_t offset_bytes, std::uint64_t& begin_bytes,
                                  std::uint64_t& end_bytes) const {
    const int fd = static_cast<int>(m_handle);
    const off_t begin = ::lseek(fd, static_cast<off_t>(offset_bytes), SEEK_DATA);
    if (begin < 0 && errno == ENXIO) {
        begin_bytes = end_bytes = m_before.size_bytes;
        return 0;
    }
    // A file system that cannot tell: all of it is data.
    const off_t end = begin < 0 ? -1 : ::lseek(fd, begin, SEEK_HOLE);
    const bool isKnown = begin >= 0 && end > begin;
    begin_bytes = isKnown ? static_cast<std::uint64_t>(begin) : offset_bytes;
    end_bytes = isKnown ? static_cast<std::uint64_t>(end) : m_before.size_bytes;
    return 0;
}

bool InputFile::IsAt(const std::string& path) const {
    struct stat byName {};
    struct stat byHandle {};
    return ::stat(path.c_str(), &byName) == 0 && ::fstat(static_cast<int>(m_handle), &byHandle) == 0 &&
           byName.st_dev == byHandle.st_dev && byName.st_ino == byHandle.st_ino;
}

void InputFile::ForgetCache() const {
    (void)::posix_fadvise(static_cast<int>(m_handle), 0, 0, POSIX_FADV_DONTNEED);
}

CodeClass ClassOf(std::uint32_t code) {
    switch (code) {
        case ENOSPC:
        case EDQUOT:
            return CodeClass::kNoRoom;
        case EROFS:
        case EACCES:
        case EPERM:
            return CodeClass::kReadOnly;
        case ENOENT:
        case ENOTDIR:
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
    if (m_handle >= 0) ::close(static_cast<int>(m_handle));
    m_handle = -1;
}

}  // namespace rq::task

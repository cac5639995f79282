#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

#include "platform/identity.h"
#include "platform/posix_error.h"

namespace rq::platform {

namespace {

int OpenRetry(const std::string& path, int flags, mode_t mode = 0) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

bool WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string FolderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsFolder(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool MakeFolders(const std::string& path, OsError* error) {
    if (path.empty() || IsFolder(path)) return true;
    if (!MakeFolders(path == FolderOf(path) ? "" : FolderOf(path), error)) return false;
    if (::mkdir(path.c_str(), 0700) == 0) return true;
    const int code = errno;
    if (code == EEXIST && IsFolder(path)) return true;
    SetOsError(error, code, "mkdir " + path);
    return false;
}

class FlockHandle final : public FolderLock {
  public:
    explicit FlockHandle(FileDescriptor file) : m_file(std::move(file)) {}

  private:
    FileDescriptor m_file;  // closing it lets the lock go
};

// Writes and syncs the temporary file; it is gone when this fails.
bool WriteTemporary(const std::string& name, std::string_view bytes, bool isPrivate,
                    const std::string& beside, OsError* error) {
    FileDescriptor file(OpenRetry(name, O_WRONLY | O_CREAT | O_EXCL, isPrivate ? 0600 : 0666));
    if (!file.Valid()) {
        SetOsError(error, errno, "create " + name);
        return false;
    }
    struct stat before {};
    if (!isPrivate && ::stat(beside.c_str(), &before) == 0) ::fchmod(file.Get(), before.st_mode & 0777);
    if (WriteAll(file.Get(), bytes) && ::fsync(file.Get()) == 0) return true;
    SetOsError(error, errno, "write " + name);
    ::unlink(name.c_str());
    return false;
}

}  // namespace

std::string ModuleFileName() {
    std::string buffer(4096, '\0');
    const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (n <= 0 || static_cast<std::size_t>(n) == buffer.size()) return {};
    buffer.resize(static_cast<std::size_t>(n));
    return buffer;
}

std::string CurrentDirectory() {
    std::unique_ptr<char, void (*)(void*)> path(::getcwd(nullptr, 0), &::free);
    return path == nullptr ? std::string() : std::string(path.get());
}

bool ChangeCurrentDirectory(const std::string& path, OsError* error) {
    if (::chdir(path.c_str()) == 0) return true;
    SetOsError(error, errno, "chdir " + path);
    return false;
}

std::FILE* OpenFile(const std::string& path, const char* mode) {
    return std::fopen(path.c_str(), (std::string(mode) + "e").c_str());
}

std::optional<std::string> ReadWholeFile(const std::string& path, OsError* error, std::uint64_t limit_bytes) {
    const FileDescriptor file(OpenRetry(path, O_RDONLY));
    if (!file.Valid()) {
        SetOsError(error, errno, "open " + path);
        return std::nullopt;
    }
    std::string bytes;
    struct stat info {};
    const auto size = ::fstat(file.Get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
    if (size <= limit_bytes) bytes.reserve(static_cast<std::size_t>(size));
    char buffer[65536];
    for (;;) {
        if (std::max<std::uint64_t>(size, bytes.size()) > limit_bytes) {
            SetOsError(error, EFBIG, "read " + path);
            return std::nullopt;
        }
        const ssize_t n = ::read(file.Get(), buffer, sizeof buffer);
        if (n == 0) return bytes;
        if (n > 0) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        } else if (errno != EINTR) {
            SetOsError(error, errno, "read " + path);
            return std::nullopt;
        }
    }
}

std::optional<FileState> StateOfFile(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    const auto changed =
        std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec);
    return FileState{changed.count(), static_cast<std::uint64_t>(info.st_size)};
}

bool CreatePrivateFile(const std::string& path, std::string_view bytes, OsError* error) {
    const FileDescriptor file(OpenRetry(path, O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (!file.Valid()) {
        SetOsError(error, errno, "create " + path);
        return false;
    }
    if (WriteAll(file.Get(), bytes)) return true;
    SetOsError(error, errno, "write " + path);
    ::unlink(path.c_str());
    return false;
}

bool CreatePrivateFolder(const std::string& path, OsError* error) {
    std::string plain = path;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    return MakeFolders(plain, error);
}

bool ReplaceWholeFile(const std::string& path, std::string_view bytes, bool isPrivate, OsError* error,
                      std::string temporary) {
    if (temporary.empty())
        temporary = path + ".new-" + RandomHex(6);
    else
        ::unlink(temporary.c_str());
    if (!WriteTemporary(temporary, bytes, isPrivate, path, error)) return false;
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        SetOsError(error, errno, "rename " + temporary + " to " + path);
        ::unlink(temporary.c_str());
        return false;
    }
    const FileDescriptor folder(OpenRetry(FolderOf(path), O_RDONLY | O_DIRECTORY));
    if (folder.Valid()) ::fsync(folder.Get());  // a file system without this still has the renamed file
    return true;
}

FolderLock* TryLockFile(const std::string& path, OsError* error) {
    FileDescriptor file(OpenRetry(path, O_RDWR | O_CREAT, 0600));
    if (!file.Valid()) {
        SetOsError(error, errno, "open " + path);
        return nullptr;
    }
    // flock belongs to the open file, so a second try of the same process is refused as well.
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        SetOsError(error, errno, "lock " + path);
        return nullptr;
    }
    return new FlockHandle(std::move(file));
}

}  // namespace rq::platform

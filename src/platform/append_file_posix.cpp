#include "platform/append_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace rq::platform {
namespace {

class PosixAppendFile final : public AppendFile {
  public:
    explicit PosixAppendFile(int descriptor) : m_descriptor(descriptor) {}
    ~PosixAppendFile() override { ::close(m_descriptor); }
    PosixAppendFile(const PosixAppendFile&) = delete;
    PosixAppendFile& operator=(const PosixAppendFile&) = delete;

    bool Append(std::string_view bytes) noexcept override {
        while (!bytes.empty()) {
            const ssize_t written = ::write(m_descriptor, bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        return true;
    }

    std::uint64_t Size() noexcept override {
        struct stat state {};
        return ::fstat(m_descriptor, &state) == 0 ? static_cast<std::uint64_t>(state.st_size) : 0;
    }

  private:
    const int m_descriptor;
};

}  // namespace

std::unique_ptr<AppendFile> AppendFile::Open(const std::string& path, OsError* error) {
    int descriptor;
    do {
        descriptor = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        const int code = errno;
        if (error != nullptr) *error = OsError{code, "open " + path + ": " + std::strerror(code)};
        return nullptr;
    }
    return std::make_unique<PosixAppendFile>(descriptor);
}

}  // namespace rq::platform

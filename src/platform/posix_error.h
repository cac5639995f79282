// Inside this room's Linux sources only: errno into an OsError, and a file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <string>
#include <system_error>
#include <utility>

#include "platform/os_error.h"

namespace rq::platform {

// `what` names the call and its object: "open /x/y".
inline void SetOsError(OsError* error, int code, const std::string& what) {
    if (error == nullptr) return;
    error->code = code;
    error->message = what + ": " + std::generic_category().message(code);
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    ~FileDescriptor() { Close(); }

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    void Close() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

  private:
    int m_fd;
};

}  // namespace rq::platform

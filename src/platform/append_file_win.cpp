#include "platform/append_file.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

// Writers take turns: where finding the end and writing there are two steps (files of another machine, Wine),
// they would write over each other. The lock is on a byte far behind any end, so that nobody's reading is
// refused, and whoever cannot have it soon writes without it: a line that may be lost is better than a
// process that waits for a stopped one.
class EndLock {
  public:
    explicit EndLock(HANDLE file) : m_file(file) {
        constexpr int kTries = 200;
        for (int i = 0; i < kTries && !m_isHeld; ++i) {
            if (i > 0) ::Sleep(i < 20 ? 0 : 1);
            OVERLAPPED at = FarBehind();
            m_isHeld = ::LockFileEx(m_file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                                    &at) != FALSE;
            if (!m_isHeld && ::GetLastError() != ERROR_LOCK_VIOLATION) return;  // no locks there
        }
    }
    ~EndLock() {
        if (!m_isHeld) return;
        OVERLAPPED at = FarBehind();
        ::UnlockFileEx(m_file, 0, 1, 0, &at);
    }
    EndLock(const EndLock&) = delete;
    EndLock& operator=(const EndLock&) = delete;

  private:
    static OVERLAPPED FarBehind() {
        OVERLAPPED at{};
        at.OffsetHigh = 0x40000000;
        return at;
    }

    const HANDLE m_file;
    bool m_isHeld = false;
};

class WinAppendFile final : public AppendFile {
  public:
    explicit WinAppendFile(WinHandle file) : m_file(std::move(file)) {}

    // Without the right to write data, only to append, each write goes to the end of the file as it is then.
    bool Append(std::string_view bytes) noexcept override {
        const EndLock lock(m_file.Get());
        constexpr std::size_t kMost_bytes = 1u << 30;
        while (!bytes.empty()) {
            const auto part = static_cast<DWORD>(bytes.size() < kMost_bytes ? bytes.size() : kMost_bytes);
            DWORD written = 0;
            if (!::WriteFile(m_file.Get(), bytes.data(), part, &written, nullptr) || written == 0)
                return false;
            bytes.remove_prefix(written);
        }
        return true;
    }

    std::uint64_t Size() noexcept override {
        LARGE_INTEGER size{};
        return ::GetFileSizeEx(m_file.Get(), &size) ? static_cast<std::uint64_t>(size.QuadPart) : 0;
    }

  private:
    const WinHandle m_file;
};

}  // namespace

std::unique_ptr<AppendFile> AppendFile::Open(const std::string& path, OsError* error) {
    // A lock needs the right to read or to write; to append is not enough.
    WinHandle file(::CreateFileW(NativePath(path).c_str(),
                                 FILE_APPEND_DATA | FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "open " + path);
        return nullptr;
    }
    return std::make_unique<WinAppendFile>(std::move(file));
}

}  // namespace rq::platform

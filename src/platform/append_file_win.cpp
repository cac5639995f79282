#include "platform/append_file.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

class WinAppendFile final : public AppendFile {
  public:
    explicit WinAppendFile(WinHandle file) : m_file(std::move(file)) {}

    // Without the right to write data, only to append, each write goes to the end of the file as it is then.
    bool Append(std::string_view bytes) noexcept override {
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
    WinHandle file(::CreateFileW(NativePath(path).c_str(),
                                 FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.Valid()) {
        SetOsError(error, ::GetLastError(), "open " + path);
        return nullptr;
    }
    return std::make_unique<WinAppendFile>(std::move(file));
}

}  // namespace rq::platform

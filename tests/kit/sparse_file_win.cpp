#include "kit/sparse_file.h"
#include "platform/win_api.h"

// After the system's own header.
#include <winioctl.h>

namespace rq::kit {

// A file system that knows no sparse files takes the room.
void MakeSparseFile(const std::filesystem::path& path, std::uintmax_t size_bytes) {
    const platform::WinHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                 nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD unused = 0;
    ::DeviceIoControl(file.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &unused, nullptr);
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(size_bytes);
    if (!::SetFilePointerEx(file.Get(), end, nullptr, FILE_BEGIN) || !::SetEndOfFile(file.Get()))
        throw std::filesystem::filesystem_error(
            "resize", path, std::error_code(static_cast<int>(::GetLastError()), std::system_category()));
}

}  // namespace rq::kit

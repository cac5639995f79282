#include "platform/machine.h"
#include "platform/win_api.h"

namespace rq::platform {

std::uint64_t TotalMemory_bytes() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    return ::GlobalMemoryStatusEx(&status) != 0 ? status.ullTotalPhys : 0;
}

}  // namespace rq::platform

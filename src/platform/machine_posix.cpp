#include <unistd.h>

#include "platform/machine.h"

namespace rq::platform {

std::uint64_t TotalMemory_bytes() {
    const long pages = sysconf(_SC_PHYS_PAGES), size = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || size <= 0) return 0;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size);
}

}  // namespace rq::platform

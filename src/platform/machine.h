// What the machine has. Any thread.
#pragma once

#include <cstdint>

namespace rq::platform {

// Memory that the system can use; 0 when it does not tell.
std::uint64_t TotalMemory_bytes();

}  // namespace rq::platform

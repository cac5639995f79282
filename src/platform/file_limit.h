// How many files and connections this process may have open. Any thread, at the start.
#pragma once

#include <cstdint>

namespace rq::platform {

// Raises the limit as far as the user may; what it is then. UINT64_MAX where there is none. Processes that
// are started later have it as it was before.
std::uint64_t RaiseFileLimit();

}  // namespace rq::platform

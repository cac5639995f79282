#include "platform/file_limit.h"

namespace rq::platform {

// Sockets and handles are bounded by memory alone.
std::uint64_t RaiseFileLimit() {
    return UINT64_MAX;
}

}  // namespace rq::platform

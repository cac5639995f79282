#include "platform/file_limit.h"

#include <sys/resource.h>

namespace rq::platform {

std::uint64_t RaiseFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return UINT64_MAX;
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    return limit.rlim_cur == RLIM_INFINITY ? UINT64_MAX : limit.rlim_cur;
}

}  // namespace rq::platform

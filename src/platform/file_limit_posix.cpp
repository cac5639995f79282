#include "platform/file_limit.h"

#include "platform/file_limit_posix.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>

namespace rq::platform {

namespace {

std::atomic<rlim_t> s_before = RLIM_INFINITY;  // that: never raised

}  // namespace

void RestoreFileLimit() {
    rlimit limit{};
    if (s_before == RLIM_INFINITY || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = std::min(limit.rlim_max, s_before.load());
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::uint64_t RaiseFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return UINT64_MAX;
    if (limit.rlim_cur < limit.rlim_max) s_before = limit.rlim_cur;
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    return limit.rlim_cur == RLIM_INFINITY ? UINT64_MAX : limit.rlim_cur;
}

}  // namespace rq::platform

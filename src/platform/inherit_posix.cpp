#include <fcntl.h>

#include "platform/inherit.h"

namespace rq::platform {

bool KeepFromChildren(std::uintptr_t handle) {
    return ::fcntl(static_cast<int>(handle), F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace rq::platform

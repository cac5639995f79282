#include "platform/inherit.h"
#include "platform/win_api.h"

namespace rq::platform {

bool KeepFromChildren(std::uintptr_t handle) {
    return ::SetHandleInformation(reinterpret_cast<HANDLE>(handle), HANDLE_FLAG_INHERIT, 0) != FALSE;
}

}  // namespace rq::platform

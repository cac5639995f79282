#include "platform/start_up.h"
#include "platform/win_api.h"

namespace rq::platform {

void* ModuleHandle() {
    return ::GetModuleHandleW(nullptr);
}

}  // namespace rq::platform

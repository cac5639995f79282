// The worker on a system that has no module handle: linked with this in place of the platform room's
// function.
#include "platform/start_up.h"

namespace rq::platform {

void* ModuleHandle() {
    return nullptr;
}

}  // namespace rq::platform

// The worker on a system that cannot initialise MFC: linked with this in place of the platform room's
// function.
#include "platform/start_up.h"

namespace rq::platform {

bool InitialiseMfc(void* /*moduleHandle*/) {
    return false;
}

}  // namespace rq::platform

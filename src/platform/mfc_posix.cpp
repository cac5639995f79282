#include "platform/start_up.h"

namespace rq::platform {

// There is no MFC to initialise; the contract of the call is kept.
bool InitialiseMfc(void* moduleHandle) {
    return moduleHandle != nullptr;
}

}  // namespace rq::platform

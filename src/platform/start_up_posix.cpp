#include "platform/start_up.h"

namespace rq::platform {

// The program itself stands for its module.
void* ModuleHandle() {
    static char program = 0;
    return &program;
}

// There is no MFC to initialise; the contract of the call is kept.
bool InitialiseMfc(void* moduleHandle) {
    return moduleHandle != nullptr;
}

}  // namespace rq::platform

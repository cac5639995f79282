#include "platform/start_up.h"

namespace rq::platform {

// The program itself stands for its module.
void* ModuleHandle() {
    static char program = 0;
    return &program;
}

}  // namespace rq::platform

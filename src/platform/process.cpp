#include "platform/process.h"

namespace rq::platform {

std::optional<ExitStatus> ChildProcess::WaitForever() {
    for (;;) {
        if (auto status = Wait(std::chrono::hours(1))) return status;
    }
}

}  // namespace rq::platform

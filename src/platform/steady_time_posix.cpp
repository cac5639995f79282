// CLOCK_MONOTONIC, which Linux stops while the machine is suspended.
#include "platform/steady_time.h"

namespace rq::platform {

std::chrono::steady_clock::time_point SteadyNow() {
    return std::chrono::steady_clock::now();
}

}  // namespace rq::platform

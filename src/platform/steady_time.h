// The clock that only runs while the machine does. Any thread.
#pragma once

#include <chrono>

namespace rq::platform {

// Time that neither steps with the wall clock nor counts what the machine was suspended (on Windows before 10
// it counts that too); differences only.
std::chrono::steady_clock::time_point SteadyNow();

}  // namespace rq::platform

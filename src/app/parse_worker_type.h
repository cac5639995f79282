// The task type of the command line. Pure; any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace rq {

// A type code ("tc", "mc", ..., exactly so) or a decimal number as atoi reads it: leading blanks and a sign
// are accepted, what follows the digits is ignored, a text without a number gives 0; out of range is clamped.
std::int32_t ParseWorkerType(std::string_view type);

}  // namespace rq

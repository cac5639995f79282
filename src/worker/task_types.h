// Task types that the core treats apart.
#pragma once

#include <cstdint>

#include "records/engine_messages.h"

namespace rq {

// A package worker keeps taking tasks until it is stopped; all others run one.
inline bool IsPackageType(std::int32_t type) {
    return type == RQ_TASK_PACKAGE || type == RQ_TASK_PACKAGE_PARAMETER_FILE;
}

}  // namespace rq

// TaskProgress: what a plug-in has told of its task so far. Owned by the plug-in runner under its progress
// lock; all others read copies.
#pragma once

#include <cstdint>

#include "base/clock.h"

namespace rq {

struct TaskProgress {
    double percent = 0;  // 0 to 100
    std::int64_t reserved1 = 0;
    std::int64_t reserved2 = 0;
    LocalTime lastUpdate;          // not_a_date_time until there is one
    LocalTime expectedNextUpdate;  // the stamp that the progress patrol compares with the clock
    LocalTime start;               // when the perform call began
    std::int64_t remaining = 0;    // set to -1 (unknown) at every progress update
    std::uint8_t updated = 0;
    double speed = 0;  // megabytes (1,048,576 bytes) per second; transfers only
    std::int64_t reserved3 = 0;
    std::int64_t processed = 0;  // units done: bytes, frames, ...
};

}  // namespace rq

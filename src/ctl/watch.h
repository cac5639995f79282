// Following a task to its end, and telling how it ended. Blocking; one thread. Progress goes to standard
// error, results to standard output.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/engine_access.h"

namespace rq::ctl {

enum class Follow { Quietly, WithProgress };

// Waits until the task has ended; a terminal shows one redrawn line, anything else gets plain lines. Then
// prints its result and, if it failed or was cancelled, why. The value is what rqctl ends with. With the size
// of the whole work given, a speed is shown also for a task that reports none.
Outcome<int> WatchTask(EngineAccess& engine, const std::string& id, Follow follow,
                       std::uintmax_t work_bytes = 0);

}  // namespace rq::ctl

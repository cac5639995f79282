// The heartbeat thread: a small message (4000) to the engine at a fixed interval, between tasks as well as
// during them.
#pragma once

#include <cstdint>

#include "supervision/worker_core.h"

namespace rq {

// The thread's function. Runs until the stop flag is seen between two beats or the heartbeat signal is
// notified, which ends it whatever the flag says. The first beat goes out one interval after the start.
// Returns 0.
std::uint32_t HeartbeatThread(IWorkerCore& core);

}  // namespace rq

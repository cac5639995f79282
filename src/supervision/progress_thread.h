// The progress thread of one task: reads the task's progress at a fixed interval, works out how fast it goes,
// tells the engine (4008), and closes a task whose progress stands still.
#pragma once

#include <cstdint>

#include "supervision/worker_core.h"

namespace rq {

// The thread's function. Runs until the working flag is found clear between two rounds or a stall was
// handled; a notification of the progress signal only shortens the current wait. The signal is held during a
// whole measured round, sends included. Returns 0.
std::uint32_t ProgressThread(IWorkerCore& core);

// The patrol's question: `now` is later than `expected` and at least `timeout_s` seconds have passed between
// them. A stamp that holds no time is no sign of a stall, nor is one in the future. Pure.
bool IsOverdue(LocalTime now, LocalTime expected, std::uint32_t timeout_s);

}  // namespace rq

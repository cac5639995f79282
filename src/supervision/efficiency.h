// Efficiency of a task: how fast it goes, by task type, and the texts that say so. Pure functions; any
// thread.
#pragma once

#include <cstdint>
#include <string>

namespace rq {

struct Efficiency {
    // Types 1 and 8: times real time. Type 2: units per second. Types 13, 20 and 23: units per millisecond.
    // All others: the plug-in's own figure, which only transfers have (MiB/s).
    double speed = 0;
    // Types 1, 8 and 2: units per second since the start. 0 for all others.
    double averageSpeed = 0;
    // For the log; empty when nothing is logged.
    std::string logLine;
};

// Whether the speed is computed from the task's run time at all.
bool IsSpeedComputed(std::int32_t taskType);
// Whether the frame rate takes part.
bool IsSpeedPerFrame(std::int32_t taskType);

// `frameRate` is read for types 1, 2 and 8 only. An elapsed time of 0 gives an infinite speed, or none that
// is a number: nothing guards it, readers see what the division gave.
Efficiency ComputeEfficiency(std::int32_t taskType, double percent, std::int64_t processed,
                             double pluginSpeed, std::int64_t elapsed_ms, std::int32_t frameRate);

}  // namespace rq

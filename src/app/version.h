// What this worker calls itself. Any thread.
#pragma once

#include <string>

namespace rq {

// "RQWorkerU.exe Version:1.13.0.0 build20170531"; the name is the same on every platform.
std::string GetWorkerVersion();
// That text in the log.
void LogWorkerVersion();

}  // namespace rq

// Crash reporting for the run. Main thread, before the worker core exists.
#pragma once

namespace rq {

void InstallCrashFilter();

}  // namespace rq

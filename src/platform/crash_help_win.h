// Two threads that help one that crashed. Both are made at the start, since a crashed process should make
// none: a watcher, which does nothing but end the process when the time is up, and a helper that has the
// stack that the crashed thread may lack. (They are two, since the helper's own work is what may never end.)
#pragma once

#include <chrono>

#include "platform/win_api.h"

namespace rq::platform {

// Main thread, before anything crashes. Further calls do nothing.
void StartCrashHelp();

// The rest is for the thread that crashed first, with no lock and no allocation.
//
// `limit` from now the process is ended with the exit code, whatever anybody waits for; while other code
// suspends the process's threads (MiniDumpWriteDump does), only when it lets them go.
void WatchTheEnd(UINT exitCode, std::chrono::milliseconds limit);
// Runs `work` on the helper and waits; false when there is no helper or it crashed. Once in a process.
bool HaveHelperDo(void (*work)());

// For the crash handler on any thread: when that is the helper's, its work has failed, and it stops here.
void StopIfHelper();

}  // namespace rq::platform

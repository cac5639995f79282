// The crash-report library's interface. Main thread, at start-up.
#pragma once

#include <cstdint>

extern "C" {

// Takes unhandled crashes from now on: one line and the stack (on Windows a dump in the day's log folder
// instead) on standard error, the log's last lines, then the system's own end for that crash.
void BT_InstallSehFilter();
// 1 is what the worker sets; the bits have no meaning yet.
void BT_SetFlags(std::uint32_t flags);
}

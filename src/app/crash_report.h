// The crash-report library's interface. Main thread, at start-up.
#pragma once

#include <cstdint>

extern "C" {

// Takes unhandled crashes from now on, those of plug-ins included: a report in the day's log folder (on Linux
// a text with the stack of every thread, on Windows a minidump), a line of level 5 with its path in the
// worker's log after all that was logged before, then the system's own end for that crash
// (platform/crash.h).
void BT_InstallSehFilter();
// 1 is what the worker sets; the bits have no meaning yet.
void BT_SetFlags(std::uint32_t flags);
}

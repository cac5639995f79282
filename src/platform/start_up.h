// What a program does with its operating system before anything else, and at a forced end. Main thread only,
// except SilenceAbort.
#pragma once

#include <cstdint>

namespace rq::platform {

// Opens the null device for each standard stream that the parent left closed. First thing in main: a file
// opened later would otherwise get the stream's number, and console texts would land in it.
void OpenStandardStreams();

// The executable's module handle (GetModuleHandleW(NULL)); elsewhere any non-null value. Null on failure.
void* ModuleHandle();

// AfxWinInit(handle, NULL, GetCommandLineW(), 0): initialises MFC where it exists; elsewhere the same
// contract: false when the handle is null.
bool InitialiseMfc(void* moduleHandle);

// Switches off the run-time library's abort message and fault report where they exist.
void SilenceAbort();

// Installs a handler for unhandled crashes that lets the process end with a crash status; `flags` as given to
// BT_SetFlags. app/crash_report.h says what a crash leaves behind.
void InstallCrashHandler();
// `hook` runs in the crash handler before the process ends: it may take no lock and allocate nothing. Null:
// none.
void SetCrashHook(void (*hook)() noexcept);
void SetCrashFlags(std::uint32_t flags);

}  // namespace rq::platform

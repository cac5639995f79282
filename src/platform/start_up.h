// What a program does with its operating system before anything else, and at a forced end. Main thread only,
// except SilenceAbort.
#pragma once

#include <cstdint>
#include <string>

namespace rq::platform {

// Opens the null device for each standard stream that the parent left closed. First thing in main: a file
// opened later would otherwise get the stream's number, and console texts would land in it.
void OpenStandardStreams();

// The executable's module handle (GetModuleHandleW(NULL)); elsewhere any non-null value. Null on failure.
void* ModuleHandle();

// AfxWinInit(handle, NULL, GetCommandLineW(), 0): MFC's own where it exists; elsewhere a stand-in with the
// same contract: false when the handle is null; on Windows the system's message boxes for missing disks and
// broken libraries are switched off.
bool InitialiseMfc(void* moduleHandle);

// On Windows: whatever this process starts from now on ends with it, however it ends (StartDetached's
// programs excepted). On Linux nothing: who starts a worker there ends its process group. False when the
// system refuses.
bool ContainChildren();

// Switches off the run-time library's abort message and fault report where they exist.
void SilenceAbort();

// Installs a handler for unhandled crashes that lets the process end with a crash status; `flags` as given to
// BT_SetFlags. app/crash_report.h says what a crash leaves behind.
void InstallCrashHandler();
// `hook` runs in the crash handler before the process ends: it may take no lock and allocate nothing. Null:
// none.
void SetCrashHook(void (*hook)() noexcept);
void SetCrashFlags(std::uint32_t flags);
// Where a crash leaves a dump of the process, "<program>_<process number>.dmp" (UTF-8; made when missing;
// before InstallCrashHandler). Windows only: on Linux the system writes core dumps where it is set up to.
void SetCrashFolder(const std::string& folder);

}  // namespace rq::platform

// What a program does with its operating system before anything else. Main thread only, except
// LongModuleFileName. What a crash leaves behind is crash.h's.
#pragma once

#include <string>

namespace rq::platform {

// Opens the null device for each standard stream that the parent left closed. First thing in main: a file
// opened later would otherwise get the stream's number, and console texts would land in it.
void OpenStandardStreams();

// The executable's module handle (GetModuleHandleW(NULL)); elsewhere any non-null value. Null on failure.
void* ModuleHandle();

// The executable's full path as a restart needs it: up to 2047 characters on Windows, where the one of
// platform/files.h ends at 259. Empty on failure.
std::string LongModuleFileName();

// AfxWinInit(handle, NULL, GetCommandLineW(), 0): MFC's own where it exists; elsewhere a stand-in with the
// same contract: false when the handle is null; on Windows the system's message boxes for missing disks and
// broken libraries are switched off.
bool InitialiseMfc(void* moduleHandle);

// On Windows: whatever this process starts from now on ends with it, however it ends (StartDetached's
// programs excepted). On Linux nothing: who starts a worker there ends its process group. False when the
// system refuses.
bool ContainChildren();

}  // namespace rq::platform

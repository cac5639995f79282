#include "platform/child_start_win.h"
#include "platform/process.h"

namespace rq::platform {

namespace {

constexpr unsigned kStarted = 33;  // anything above 31

// The numbers that WinExec has for these.
unsigned FailureCode(DWORD code) {
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_ACCESS_DENIED:
        case ERROR_NOT_ENOUGH_MEMORY:
            return code;
        case ERROR_BAD_EXE_FORMAT:
            return ERROR_BAD_FORMAT;
        default:
            return 31;
    }
}

}  // namespace

// The new process leaves this one's jobs where they allow it (those of this project do), so that it outlives
// them; it has no standard input and this process's output.
unsigned StartDetached(const std::string& commandLine) {
    const WinHandle input = InheritableNull();
    const WinHandle output = InheritableStream(STD_OUTPUT_HANDLE);
    const WinHandle errors = InheritableStream(STD_ERROR_HANDLE);
    ProcessStart start;
    start.commandLine = WideOf(commandLine);
    start.input = input.Get();
    start.output = output.Get();
    start.errors = errors.Get();
    start.isShown = true;
    StartedProcess started;
    for (const DWORD leave : {static_cast<DWORD>(CREATE_BREAKAWAY_FROM_JOB), DWORD{0}}) {
        start.flags = leave;
        if (CreateWithStreams(start, started)) return kStarted;
        if (::GetLastError() != ERROR_ACCESS_DENIED) break;
    }
    return FailureCode(::GetLastError());
}

}  // namespace rq::platform

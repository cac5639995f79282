// Inside this room's Windows sources only: one way to create a process, for ChildProcess and StartDetached.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/process.h"
#include "platform/win_api.h"

namespace rq::platform {

// What CreateProcessW is to be told. Handles stay the caller's.
struct ProcessStart {
    std::wstring program;  // full path; empty: the command line's first word, looked for as the system does
    std::wstring commandLine;  // quoted
    std::wstring directory;    // empty: the parent's
    std::wstring environment;  // a whole block, empty: the parent's
    HANDLE input = nullptr;    // inheritable; null: none
    HANDLE output = nullptr;
    HANDLE errors = nullptr;
    HANDLE job = nullptr;  // the process is in it before its first instruction; null: none of its own
    DWORD flags = 0;       // further creation flags
    bool isShown = false;  // its first window is to be shown as usual; else that is left to the program
};

struct StartedProcess {
    WinHandle process;
    DWORD id = 0;
};

// Takes the handles over; without a job KillTree ends the process alone.
std::unique_ptr<ChildProcess> MakeProcess(WinHandle process, DWORD id, WinHandle job);

// Only the three streams are inherited. False with GetLastError() set.
bool CreateWithStreams(const ProcessStart& start, StartedProcess& started);

// The words as the C run-time library and CommandLineToArgvW take them apart again. The first is the program.
std::wstring QuoteCommandLine(const std::vector<std::string>& words);

// This process's environment with some variables added or replaced, as CreateProcessW takes it.
std::wstring EnvironmentBlock(const std::vector<std::pair<std::string, std::string>>& changes);

// A copy of this process's standard stream that a child can inherit; invalid when there is none.
WinHandle InheritableStream(DWORD standardHandle);
// The null device, inheritable.
WinHandle InheritableNull();

}  // namespace rq::platform

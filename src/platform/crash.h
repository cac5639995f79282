// What a crash leaves behind. An unhandled crash of the process, in our code or in a library that it loaded,
// on any thread: SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS and SIGABRT (so also an exception that
// nobody catches), on Windows any unhandled exception and abort(). In this order:
//
//   1. a line on standard error with the signal or exception;
//   2. the flush hook (SetCrashHook), so that no line of the log is missing whatever comes next;
//   3. a report in the crash folder, "<program>_<YYYYMMDD>.<HHMMSS>_<process>" in local time: on Linux a text
//      ".txt" with the stack of every thread, written by the reporter program; on Windows a minidump ".dmp";
//   4. where the report lies, on standard error and to the log hook (SetCrashLog);
//   5. the process ends as the system ends it for that crash: by the signal itself, with the exception's
//   code.
//
// All of it happens on the crashed thread, which may hold any lock (that of the heap, that of the loader) and
// whose stack may be used up: nothing here allocates or waits for a lock, and everything has a time limit (on
// Windows all but the dump itself).
// docs/adr/0013-crash-reports.md says how, and what cannot be had.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace rq::platform {

// How long writing a report may take; a crashed process is gone at the latest 5 s after that.
inline constexpr std::chrono::seconds kCrashReportLimit{20};

// The settings come before InstallCrashHandler, on the main thread. Paths are UTF-8.
//
// Where reports go; made when it is missing, but not the folders above it. Empty or never set: no reports,
// and on Linux the crashed thread's frames on standard error.
void SetCrashFolder(const std::string& folder);
// Linux: the program that is started for a report (src/crashreport). Where it cannot be started or may not
// look into this process, the report has the crashed thread's own frames alone. Windows needs none, but has
// the limit.
void SetCrashReporter(const std::string& program, std::chrono::seconds limit = kCrashReportLimit);
// Both run in the crash handler: no lock, no allocation. Null: none. `line` says what happened and where the
// report is; `thread` is the system's number of the crashed thread.
void SetCrashHook(void (*flush)() noexcept);
void SetCrashLog(void (*log)(std::string_view line, std::uint32_t thread) noexcept);
// As given to BT_SetFlags.
void SetCrashFlags(std::uint32_t flags);

// From now on. Gives the calling thread room for the handler when its stack is used up.
void InstallCrashHandler();
// The same room for the calling thread, until it ends. Any thread; false when there is no memory. (Every
// thread of a program that links rq_thread_start has it from its start.)
bool GiveThreadCrashRoom() noexcept;

// The abort that follows is wanted, and no crash: no message and fault report of the run-time library, no
// line and no report. Any thread.
void SilenceAbort();
// ... and no core file: the system keeps nothing of this process from now on (nor lets others look into it,
// so that this is for its very end). Windows keeps nothing anyway.
void LeaveNoCore();

}  // namespace rq::platform

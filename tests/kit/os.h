// What the operating system has its own words and numbers for, so that one test serves both platforms. Any
// thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

namespace rq::kit {

// Error numbers (errno, GetLastError).
struct SystemCodes {
    int notFound = 0;        // no such file in a folder that is there
    int folderNotFound = 0;  // a part of the path before the last is missing, or no folder
    int noFolder = 0;        // the path of a file where a folder is needed, for a file to be made in it
    int exists = 0;          // a new file that is there already
    int isFolder = 0;        // opening a folder as a file
    int locked = 0;          // somebody else has the lock
    int notAProgram = 0;     // what StartDetached says of a file that is no program
    int nameTooLong = 0;     // a file name longer than the file system takes
    int abortExit = 0;       // Child::ExitCode of a process that aborted
};
const SystemCodes& Codes();
// What the system says about an error number.
std::string Words(int code);

// Lets the C library look at the environment variable TZ again.
void TakeTimeZone();

// The end of a line that a program writes with stdio.
std::string_view LineEnd();
// Whether this is Wine, which lacks a few things of Windows (docs/testing.md names the tests).
bool IsWine();
// The device that swallows everything.
std::string NullDevice();
// A library of the system that a program finds by its bare name.
std::string SystemLibraryName();

// What an absolute path that begins with a slash needs before it: "", or a drive ("C:").
std::string RootName();
// Whether nobody but its owner may read, write or enter it.
bool IsOwnersAlone(const std::filesystem::path& path);
// Whether a child process would get the open file.
bool IsInheritable(std::FILE* file);
// Ends one process at once, and nothing that it started.
void EndProcess(std::uint64_t id);

// How the engine tells that a worker ended so: "by signal 9", "with exit code ...".
std::string KilledWords();

// Makes a process crash by a bad access; how it ends then.
struct CrashSigns {
    int code = 0;      // platform::ExitStatus::code
    std::string name;  // in the crash handler's line
};
CrashSigns CrashProcess(std::uint64_t id);
// How the name of a crash's report ends: ".txt", ".dmp".
std::string CrashReportEnding();
// Whether a death test's status is that of a bad access or a used-up stack.
bool EndedByFault(int status);

}  // namespace rq::kit

// Starting and ending process trees. Texts are UTF-8. A ChildProcess is used by one thread at a time, except
// KillTree, which any thread may call while another waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/os_error.h"

namespace rq::platform {

struct ProcessSpec {
    enum class Stream { Null, Inherit, File };

    std::string program;                                           // path of the executable
    std::vector<std::string> arguments;                            // without argument 0
    std::vector<std::pair<std::string, std::string>> environment;  // added to or replacing this process's own
    std::string directory;                                         // empty: this process's current directory
    Stream input = Stream::Null;
    Stream output = Stream::Null;
    Stream errors = Stream::Null;
    std::string inputFile;   // for Stream::File; opened for reading
    std::string outputFile;  // for Stream::File; created, appended to
    std::string errorsFile;  // may equal outputFile
    // A name by which later processes find the tree (process_tree.h), and nobody else uses; empty: none. The
    // job object's on Windows, where the child keeps a handle to it; RQ_PROCESS_TREE in the environment on
    // Linux.
    std::string tree;
};

struct ExitStatus {
    bool signalled = false;  // ended by a signal (Linux) or an unhandled exception code (Windows)
    int code = 0;            // exit code, or the signal number
    bool isKnown = true;     // false: it has ended, and nobody can say how
};

// What a process has that KillTree ended: SIGKILL; on Windows the code that a console's Ctrl-C leaves. In
// both cases ExitStatus::signalled is true.
#if defined(_WIN32)
inline constexpr std::uint32_t kKilledExitCode = 0xC000013A;
#else
inline constexpr std::uint32_t kKilledExitCode = 9;
#endif

// A child and whatever it starts: one process group on Linux, one job object (from creation) on Windows.
class ChildProcess {
  public:
    // Null on failure. The child keeps running when the object is destroyed.
    static std::unique_ptr<ChildProcess> Start(const ProcessSpec& spec, OsError* error = nullptr);
    virtual ~ChildProcess() = default;

    virtual std::uint64_t Id() const = 0;
    // Waits for the end of the child itself; nothing when the time ran out. Repeats give the same answer.
    virtual std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout) = 0;
    std::optional<ExitStatus> WaitForever();
    // Ends the child and its descendants at once (SIGKILL to the group, TerminateJobObject).
    virtual void KillTree() = 0;
    // Asks it to end (SIGTERM; on Windows platform/end_request.h, else CTRL_BREAK); the child may ignore it.
    virtual void RequestEnd() = 0;
};

std::uint64_t CurrentProcessId();
std::uint64_t CurrentThreadId();
// False when there is no such process, or it has ended and only waits to be taken off the table.
bool ProcessRuns(std::uint64_t id);

// Starts `commandLine` (a quoted program path, nothing else) detached, as WinExec does: above 31 on success,
// a failure code below 32 otherwise.
unsigned StartDetached(const std::string& commandLine);

}  // namespace rq::platform

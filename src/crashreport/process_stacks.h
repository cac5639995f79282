// The stacks of all threads of another process, with symbols, as text. The process is held still meanwhile:
// all its threads are stopped before the first is read, and run on when this program ends. One thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

namespace rq::crashreport {

struct CrashedProcess {
    pid_t id = 0;
    pid_t thread = 0;           // the one that crashed
    std::uint64_t context = 0;  // address of its ucontext_t at the crash; 0: its registers as they are
};

// Writes the stack of the crashed thread first, then those of the others. Each frame is written at once, so
// that a report that is cut off has what came before. False when not even the crashed thread could be read; a
// line then says why.
bool WriteStacks(const CrashedProcess& process, std::FILE* out);

}  // namespace rq::crashreport

// Processes that somebody else started, an earlier run of this program say: to tell one from another that has
// got its id since, and to take it over. Any thread; of what FindProcess returns the rules of ChildProcess.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/process.h"

namespace rq::platform {

// Tells the process that has this id now from every other that had it or gets it: when it was started (on
// Linux in which boot, too). Empty when there is none, or it cannot be looked at.
std::string ProcessMark(std::uint64_t id);

enum class Presence {
    Gone,  // there is no process with this id, or it is another one's now
    There,
    Unknown,  // somebody has the id, and who cannot be told: no mark, no descriptor left, no /proc, no right
};
Presence LookForProcess(std::uint64_t id, const std::string& mark);

// The process with this id and mark; null when it is gone, or the id is none. One that cannot be looked at is
// waited for until it is gone, and not ended before it is seen to be there. `tree` is that of its
// ProcessSpec. On Linux the exit status of what is not one's own child is unknown (ExitStatus::isKnown), and
// KillTree takes it to lead its process group; after the process has ended it does nothing once another one
// has its id.
std::unique_ptr<ChildProcess> FindProcess(std::uint64_t id, const std::string& mark,
                                          const std::string& tree = {});

}  // namespace rq::platform

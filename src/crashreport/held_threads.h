// Stops the threads of another process for as long as this one lives. One thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace rq::crashreport {

struct HeldThread {
    pid_t id = 0;
    std::string name;     // as the system shows it
    bool isHeld = false;  // false: it did not stop in time and cannot be read
};

// All threads that the process has once no more are found, `first` at the front. Empty, with the reason in
// `error`, when the system does not let us.
std::vector<HeldThread> HoldThreads(pid_t process, pid_t first, std::string& error);

}  // namespace rq::crashreport

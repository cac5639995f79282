// Inside this room's Linux sources only: the steps of a new process between fork and exec. Everything called
// there is async-signal-safe, since other threads of the parent may have held any lock at the fork.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace rq::platform {

// What the child does before exec; all texts live in the parent's memory, which fork copies.
struct ChildSteps {
    enum class Group { OwnGroup, OwnSession };

    std::vector<char*> arguments;    // null at the end
    std::vector<char*> environment;  // null at the end
    const char* program = nullptr;
    const char* directory = nullptr;  // null: the parent's
    int input = -1;                   // descriptors above 2; -1: the parent's
    int output = -1;
    int errors = -1;
    Group group = Group::OwnGroup;
};

// What stopped the child before its program ran.
struct ChildFailure {
    enum class Step : int { Streams, Directory, Exec };
    Step step = Step::Exec;
    int code = 0;  // errno
};

// In the child: does the steps and never returns; a failure is written to `report`.
[[noreturn]] void RunChildSteps(const ChildSteps& steps, int report);

// A descriptor for "/dev/null", above 2 and not inherited; -1 with errno on failure.
int OpenAboveStandard(const char* path, int flags, mode_t mode = 0);

}  // namespace rq::platform

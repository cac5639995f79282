// What the process fixture needs of its operating system.
#pragma once

#include <string>

namespace fixture {

// Handles above the standard streams that came from the parent, one a line: open descriptors on Linux; on
// Windows those of the given numbers that are valid here.
void PrintHandles(int count, char** numbers);
// Blocked or ignored signals among those that matter to a program; nothing on Windows.
void PrintSignals();
// "name=value" lines.
void PrintEnvironment();
void IgnoreEndRequests();
// Until it is ended; a request to end does that.
void Hang();
// Leaves a process that outlives this one, and its number in the file.
int LeaveGrandchild(const std::string& file);
// Whether the process is apart from whoever started it: it leads a session, it is in no job.
bool IsApart();
// Whether it was in a process tree of its own (its process group's leader; in a job) before main began.
bool BeganInItsTree();
void Crash(const std::string& how);

}  // namespace fixture

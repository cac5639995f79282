// Handles that a child process must not get: for those that a library opened without saying so. Any thread.
#pragma once

#include <cstdint>

namespace rq::platform {

// `handle` is a file descriptor, or on Windows a SOCKET or HANDLE. False when it is none.
bool KeepFromChildren(std::uintptr_t handle);

}  // namespace rq::platform

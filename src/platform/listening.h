// A listening socket before it is bound. Any thread.
#pragma once

#include <cstdint>

namespace rq::platform {

// So that a port can be listened on again at once after its last owner has ended, and by one process only. On
// Linux that takes SO_REUSEADDR; on Windows the same option would let another process listen beside this one,
// and SO_EXCLUSIVEADDRUSE is what keeps it out. `socket` is a file descriptor, or on Windows a SOCKET. False
// on failure.
bool PrepareListening(std::uintptr_t socket);

}  // namespace rq::platform

#include "platform/listening.h"

#include <sys/socket.h>

namespace rq::platform {

bool PrepareListening(std::uintptr_t socket) {
    const int on = 1;
    return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

}  // namespace rq::platform

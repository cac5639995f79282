#include "platform/listening.h"

#include <winsock2.h>

namespace rq::platform {

bool PrepareListening(std::uintptr_t socket) {
    const BOOL on = TRUE;
    return ::setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                        reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

}  // namespace rq::platform

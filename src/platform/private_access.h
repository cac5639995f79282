// Inside this room's Windows sources only: what new files and folders are made with that only their owner may
// use. The list names the user of this process and nobody else, and nothing comes from the folder above.
#pragma once

#include "platform/win_api.h"

namespace rq::platform {

// "S-1-5-21-..." of the user of this process; empty on failure.
std::wstring UserSid();

class PrivateAccess {
  public:
    PrivateAccess();
    ~PrivateAccess();
    PrivateAccess(const PrivateAccess&) = delete;
    PrivateAccess& operator=(const PrivateAccess&) = delete;

    // Null (what the folder above passes on) when the system cannot tell who the user is.
    SECURITY_ATTRIBUTES* Attributes();

  private:
    SECURITY_ATTRIBUTES m_attributes{};
};

}  // namespace rq::platform

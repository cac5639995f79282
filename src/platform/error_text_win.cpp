#include "platform/error_text.h"
#include "platform/win_api.h"

namespace rq::platform {

std::string SystemErrorText(int code) {
    return SystemMessage(static_cast<DWORD>(code));
}

}  // namespace rq::platform

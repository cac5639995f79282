#include "platform/error_text.h"

#include <system_error>

namespace rq::platform {

std::string SystemErrorText(int code) {
    return std::system_category().message(code);
}

}  // namespace rq::platform

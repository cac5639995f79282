#include "platform/file_name.h"

namespace rq::platform {

std::string WhyNoFileName(std::string_view /*name*/) {
    return {};
}

}  // namespace rq::platform

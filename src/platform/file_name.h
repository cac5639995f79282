// What a file may be called. Texts are UTF-8. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace rq::platform {

// Why a new file must not be called `name` (without its folder), although the system would open it: Windows
// has devices under such names, or gives the file another one. Empty: nothing against it.
std::string WhyNoFileName(std::string_view name);

}  // namespace rq::platform

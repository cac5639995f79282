// GBK (code page 936) to and from UTF-8. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace rq::platform {

// Characters that GBK does not have become "?".
std::string Utf8ToGbk(std::string_view utf8);
// Nothing when the bytes are not GBK.
std::optional<std::string> GbkToUtf8(std::string_view gbk);

}  // namespace rq::platform

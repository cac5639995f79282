// GBK (code page 936) to and from UTF-8, and UTF-8 to what terminals use. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace rq::platform {

// Characters that GBK does not have become "?".
std::string Utf8ToGbk(std::string_view utf8);
// Nothing when the bytes are not GBK.
std::optional<std::string> GbkToUtf8(std::string_view gbk);

// In the encoding that the system knows by this name; characters that it does not have become "?". An
// encoding that the system does not know leaves the text as it is, and so does Windows, where terminals take
// characters.
std::string Utf8ToEncoding(std::string_view utf8, const std::string& encoding);

}  // namespace rq::platform

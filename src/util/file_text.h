// Files handed to us as text, in whatever encoding they came. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace rq {

// UTF-8 of a file's bytes: by its byte order mark (UTF-8, UTF-16 little or big endian) when it has one, else
// the bytes as they are when they are valid UTF-8, else as GBK, else with U+FFFD for what is not UTF-8. The
// mark is dropped.
std::string DecodeFileText(std::string_view bytes);

}  // namespace rq

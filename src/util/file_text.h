// Files handed to us as text, in whatever encoding they came. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace rq {

struct DecodedText {
    std::string utf8;
    bool isWhole = true;  // false when something had to be replaced by U+FFFD
};

// UTF-8 of a file's bytes: by its byte order mark (UTF-8, UTF-16 little or big endian) when it has one, else
// the bytes as they are when they are valid UTF-8, else as GBK, else with U+FFFD for what is not UTF-8. The
// mark is dropped.
DecodedText DecodeFile(std::string_view bytes);
std::string DecodeFileText(std::string_view bytes);

// OVLReadFileToString reads no file beyond this. A text is held four times while it is handed on, in up to
// four bytes a character: above, a node would rather lose its memory than gain a task. (A task text that
// comes from an engine has 16 MiB at most.)
inline constexpr std::uint64_t kLargestTextFile_bytes = 256ull * 1024 * 1024;

}  // namespace rq

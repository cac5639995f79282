// UTF-8 in what others wrote. Pure; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rq::task {

// How many bytes the UTF-8 sequence at the beginning of `text` has; 0 when it is none.
inline std::size_t Utf8Length(std::string_view text) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : 0); };
    const auto next = [&](std::size_t i) { return (at(i) & 0xC0u) == 0x80u; };
    const unsigned char first = at(0);
    if (first < 0x80) return 1;
    if (first < 0xC2 || first > 0xF4 || !next(1)) return 0;
    if (first < 0xE0) return 2;
    if (!next(2) || (first == 0xE0 && at(1) < 0xA0) || (first == 0xED && at(1) > 0x9F)) return 0;
    if (first < 0xF0) return 3;
    if (!next(3) || (first == 0xF0 && at(1) < 0x90) || (first == 0xF4 && at(1) > 0x8F)) return 0;
    return 4;
}

// With U+FFFD for each byte that belongs to no sequence.
inline std::string WithoutBadBytes(std::string_view text) {
    std::string good;
    while (!text.empty()) {
        const std::size_t length = Utf8Length(text);
        good += length == 0 ? std::string_view("\xEF\xBF\xBD") : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return good;
}

}  // namespace rq::task

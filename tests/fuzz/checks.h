// What must hold of a refusal, whatever the text: one line of bounded length, in UTF-8, that names a line of
// the text. A check that fails ends the process, as libFuzzer wants it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace rq::fuzz {

inline void Require(bool isGood, const char* what, std::string_view seen) {
    if (isGood) return;
    std::fprintf(stderr, "not as it should be: %s: %.*s\n", what, static_cast<int>(seen.size()), seen.data());
    std::abort();
}

inline bool IsUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i]);
        const std::size_t length = first < 0x80   ? 1
                                   : first < 0xC2 ? 0
                                   : first < 0xE0 ? 2
                                   : first < 0xF0 ? 3
                                   : first < 0xF5 ? 4
                                                  : 0;
        if (length == 0 || i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0u) != 0x80u) return false;
        i += length;
    }
    return true;
}

constexpr std::size_t kMaxRefusal_bytes = 2200;

inline void RequireGoodRefusal(std::string_view refusal, std::string_view text) {
    Require(refusal.size() <= kMaxRefusal_bytes, "the refusal is too long", refusal);
    Require(IsUtf8(refusal), "the refusal is not UTF-8", refusal);
    for (const char c : refusal)
        Require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F, "the refusal is more than a line",
                refusal);
    constexpr std::string_view kLine = "line ";
    Require(refusal.substr(0, kLine.size()) == kLine, "the refusal names no line", refusal);
    const std::string rest(refusal.substr(kLine.size()));
    char* end = nullptr;
    const unsigned long line = std::strtoul(rest.c_str(), &end, 10);
    std::size_t lines = 1;
    for (const char c : text) lines += c == '\n' || c == '\r' ? 1 : 0;
    Require(line >= 1 && line <= lines, "the refusal's line is not one of the text's", refusal);
    Require(std::string_view(end).substr(0, 2) == ": " && std::string_view(end).size() > 2,
            "the refusal says nothing", refusal);
}

}  // namespace rq::fuzz

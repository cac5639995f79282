#include "ctl/display_width.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace rq::ctl {

namespace {

struct Range {
    std::uint32_t first, last;
};

// In order of their first characters.
constexpr Range kNoWidth[] = {{0x300, 0x36F},   {0x483, 0x489},   {0x591, 0x5BD},   {0x610, 0x61A},
                              {0x64B, 0x65F},   {0xE31, 0xE31},   {0xE34, 0xE3A},   {0xE47, 0xE4E},
                              {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x200B, 0x200F}, {0x202A, 0x202E},
                              {0x2060, 0x2064}, {0x20D0, 0x20FF}, {0x302A, 0x302D}, {0x3099, 0x309A},
                              {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF}};
constexpr Range kWide[] = {{0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},
                           {0x23F0, 0x23F0},   {0x23F3, 0x23F3},   {0x25FD, 0x25FE},   {0x2614, 0x2615},
                           {0x2648, 0x2653},   {0x26AA, 0x26AB},   {0x26BD, 0x26BE},   {0x2705, 0x2705},
                           {0x2728, 0x2728},   {0x274C, 0x274C},   {0x2753, 0x2755},   {0x2795, 0x2797},
                           {0x2B1B, 0x2B1C},   {0x2B50, 0x2B50},   {0x2E80, 0x303E},   {0x3041, 0x3098},
                           {0x309B, 0x33FF},   {0x3400, 0x4DBF},   {0x4E00, 0xA4CF},   {0xA960, 0xA97C},
                           {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},
                           {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},   {0x16FE0, 0x18CFF}, {0x1B000, 0x1B2FF},
                           {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};

template <std::size_t N>
bool IsIn(const Range (&ranges)[N], std::uint32_t character) {
    const auto after = std::upper_bound(std::begin(ranges), std::end(ranges), character,
                                        [](std::uint32_t c, const Range& range) { return c < range.first; });
    return after != std::begin(ranges) && character <= std::prev(after)->last;
}

// The next character and how many bytes it has; a byte that begins none counts by itself.
struct Character {
    std::uint32_t code = 0;
    std::size_t bytes = 1;
};

Character FirstOf(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    if (bytes == 1 || bytes > text.size()) return {lead, 1};
    std::uint32_t code = lead & (0x7Fu >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) return {lead, 1};
        code = code << 6 | (next & 0x3Fu);
    }
    return {code, bytes};
}

unsigned WidthOf(std::uint32_t character) {
    if (character < 0x300) return 1;
    return IsIn(kNoWidth, character) ? 0 : IsIn(kWide, character) ? 2 : 1;
}

}  // namespace

unsigned DisplayWidth(std::string_view utf8) {
    unsigned columns = 0;
    while (!utf8.empty()) {
        const Character next = FirstOf(utf8);
        columns += WidthOf(next.code);
        utf8.remove_prefix(next.bytes);
    }
    return columns;
}

std::string FitColumns(std::string_view utf8, unsigned columns) {
    std::string fitting;
    unsigned used = 0;
    while (!utf8.empty()) {
        const Character next = FirstOf(utf8);
        const unsigned width = WidthOf(next.code);
        if (used + width > columns) break;
        fitting += utf8.substr(0, next.bytes);
        used += width;
        utf8.remove_prefix(next.bytes);
    }
    return fitting + std::string(columns - used, ' ');
}

}  // namespace rq::ctl

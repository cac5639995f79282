#include "base/text.h"

#include <cstdint>

namespace rq {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

// One step through UTF-8: the character, or the longest damaged piece that begins one.
struct Step {
    std::uint32_t character = kReplacement;
    std::size_t length = 1;
    bool good = false;
};

// How many bytes follow a first byte, and what the first of them may be: overlong forms, surrogates and
// values above U+10FFFF are excluded there.
struct Lead {
    int following = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    std::uint32_t bits = 0;
};

bool LeadOf(unsigned char byte, Lead& lead) {
    if (byte >= 0xC2 && byte <= 0xDF) {
        lead = {1, 0x80, 0xBF, byte & 0x1Fu};
    } else if (byte >= 0xE0 && byte <= 0xEF) {
        const unsigned char low = byte == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = byte == 0xED ? 0x9F : 0xBF;
        lead = {2, low, high, byte & 0x0Fu};
    } else if (byte >= 0xF0 && byte <= 0xF4) {
        const unsigned char low = byte == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = byte == 0xF4 ? 0x8F : 0xBF;
        lead = {3, low, high, byte & 0x07u};
    } else {
        return false;
    }
    return true;
}

Step Next(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return {first, 1, true};
    Lead lead;
    if (!LeadOf(first, lead)) return {};
    Step step;
    std::uint32_t value = lead.bits;
    for (int i = 1; i <= lead.following; ++i) {
        if (step.length >= text.size()) return step;
        const auto byte = static_cast<unsigned char>(text[step.length]);
        if (byte < lead.low || byte > lead.high) return step;
        value = (value << 6) | (byte & 0x3Fu);
        lead.low = 0x80;
        lead.high = 0xBF;
        ++step.length;
    }
    step.character = value;
    step.good = true;
    return step;
}

void AppendUtf8(std::string& out, std::uint32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void AppendWide(WideText& out, std::uint32_t c) {
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
        out += static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10));
        out += static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
        out += static_cast<wchar_t>(c);
    }
}

bool IsHighSurrogate(std::uint32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(std::uint32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

std::uint32_t UnitAt(std::wstring_view wide, std::size_t i) {
    return sizeof(wchar_t) == 2 ? static_cast<std::uint16_t>(wide[i]) : static_cast<std::uint32_t>(wide[i]);
}

}  // namespace

bool IsValidUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const Step step = Next(bytes);
        if (!step.good) return false;
        bytes.remove_prefix(step.length);
    }
    return true;
}

WideText WidenUtf8(std::string_view utf8, bool* replaced) {
    if (replaced != nullptr) *replaced = false;
    WideText wide;
    wide.reserve(utf8.size());
    while (!utf8.empty()) {
        const Step step = Next(utf8);
        if (!step.good && replaced != nullptr) *replaced = true;
        AppendWide(wide, step.character);
        utf8.remove_prefix(step.length);
    }
    return wide;
}

std::string NarrowUtf8(std::wstring_view wide) {
    std::string utf8;
    utf8.reserve(wide.size());
    for (std::size_t i = 0; i < wide.size(); ++i) {
        std::uint32_t unit = UnitAt(wide, i);
        if (sizeof(wchar_t) == 2 && IsHighSurrogate(unit) && i + 1 < wide.size() &&
            IsLowSurrogate(UnitAt(wide, i + 1))) {
            unit = 0x10000 + ((unit - 0xD800) << 10) + (UnitAt(wide, ++i) - 0xDC00);
        }
        const bool isCharacter = unit <= 0x10FFFF && !IsHighSurrogate(unit) && !IsLowSurrogate(unit);
        AppendUtf8(utf8, isCharacter ? unit : kReplacement);
    }
    return utf8;
}

std::string RepairUtf8(std::string_view bytes, bool* replaced) {
    if (replaced != nullptr) *replaced = false;
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const Step step = Next(bytes);
        if (!step.good && replaced != nullptr) *replaced = true;
        AppendUtf8(text, step.character);
        bytes.remove_prefix(step.length);
    }
    return text;
}

std::string_view CutUtf8(std::string_view utf8, std::size_t maxBytes) {
    if (utf8.size() <= maxBytes) return utf8;
    std::size_t end = maxBytes;
    while (end > 0 && (static_cast<unsigned char>(utf8[end]) & 0xC0) == 0x80) --end;
    return utf8.substr(0, end);
}

}  // namespace rq

#include "util/file_text.h"

#include <cstdint>
#include <optional>

#include "base/text.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "util/utility.h"

namespace rq {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    const auto tail = [c](unsigned shift) { return static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += tail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += tail(6);
        out += tail(0);
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += tail(12);
        out += tail(6);
        out += tail(0);
    }
}

// Half a unit at the end and surrogates without a partner become U+FFFD.
std::string DecodeUtf16(std::string_view bytes, bool bigEndian) {
    const auto unitAt = [&](std::size_t i) -> char32_t {
        const auto first = static_cast<unsigned char>(bytes[i]);
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        return bigEndian ? first << 8 | second : second << 8 | first;
    };
    std::string out;
    std::size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2) {
        char32_t c = unitAt(i);
        if (c >= 0xD800 && c <= 0xDFFF) {
            const char32_t next = c < 0xDC00 && i + 3 < bytes.size() ? unitAt(i + 2) : 0;
            if (next >= 0xDC00 && next <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
                i += 2;
            } else {
                c = kReplacement;
            }
        }
        AppendUtf8(out, c);
    }
    if (i < bytes.size()) AppendUtf8(out, kReplacement);
    return out;
}

}  // namespace

std::string DecodeFileText(std::string_view bytes) {
    if (bytes.starts_with("\xEF\xBB\xBF")) return RepairUtf8(bytes.substr(3));
    if (bytes.starts_with("\xFF\xFE")) return DecodeUtf16(bytes.substr(2), false);
    if (bytes.starts_with("\xFE\xFF")) return DecodeUtf16(bytes.substr(2), true);
    if (IsValidUtf8(bytes)) return std::string(bytes);
    if (std::optional<std::string> text = platform::GbkToUtf8(bytes)) return *std::move(text);
    return RepairUtf8(bytes);
}

}  // namespace rq

namespace KWOVL_UTILITY {

void OVLReadFileToString(std::string path, std::wstring& text) {
    const std::optional<std::string> bytes = rq::platform::ReadWholeFile(path);
    if (bytes) text = rq::WidenUtf8(rq::DecodeFileText(*bytes));
}

}  // namespace KWOVL_UTILITY

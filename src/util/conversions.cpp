// The conversions of KWOVL_UTILITY and the formatting helpers of the worker. Numbers never follow the locale.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <limits>
#include <span>

#include "base/text.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {

std::string GuidToString(const platform::Guid* guid) {
    if (guid == nullptr) return {};
    const auto& d = guid->data4;
    return fmt::format("{:08x}-{:04x}-{:04x}-{:02x}{:02x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}", guid->data1,
                       guid->data2, guid->data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
}

char* WideToMultiByteAlloc(const wchar_t* text) {
    const std::size_t length = text == nullptr ? 0 : std::wcslen(text);
    const std::size_t room = 2 * length;  // of 2 x length + 1 bytes, the last is for the end
    const std::string narrow = length == 0 ? std::string() : NarrowUtf8({text, length});
    const std::string_view kept = CutUtf8(narrow, room);
    char* buffer = new char[room + 1]();
    std::memcpy(buffer, kept.data(), kept.size());
    return buffer;
}

}  // namespace rq

namespace KWOVL_UTILITY {
namespace {

std::string Hexadecimal(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
    return text;
}

bool IsBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

}  // namespace

std::wstring OVLStringToTString(std::string text) {
    return rq::WidenUtf8(text);
}
std::string OVLTStringToString(std::wstring text) {
    return rq::NarrowUtf8(text);
}
std::wstring OVLUTF8ToTString(std::string utf8) {
    return rq::WidenUtf8(utf8);
}
std::string OVLTStringToUTF8(std::wstring text) {
    return rq::NarrowUtf8(text);
}

std::string OVLIntegerToString(std::int32_t value) {
    return fmt::format("{}", value);
}

std::uint32_t OVLStringToUInteger(std::string text) {
    constexpr std::uint64_t kMaximum = std::numeric_limits<std::uint32_t>::max();
    std::size_t i = 0;
    while (i < text.size() && IsBlank(text[i])) ++i;
    const bool isNegative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;
    std::uint64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = std::min(value * 10 + static_cast<std::uint64_t>(text[i] - '0'), kMaximum);
    }
    return isNegative ? 0 : static_cast<std::uint32_t>(value);
}

std::string OVLLongLongToHexString(std::int64_t value) {
    return fmt::format("{:X}", static_cast<std::uint64_t>(value));
}

std::string OVLUuidToString(const std::uint8_t* uuid) {
    if (uuid == nullptr) return {};
    std::string text = Hexadecimal({uuid, 16});
    for (const std::size_t position : {8, 13, 18, 23}) text.insert(position, 1, '-');
    return text;
}

std::string OVLMD5SeedToString(const std::uint8_t* digest) {
    return digest == nullptr ? std::string() : Hexadecimal({digest, 16});
}

}  // namespace KWOVL_UTILITY

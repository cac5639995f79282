#include "plugin_common/digest.h"

namespace rq::task {
namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string HexOf(const std::uint8_t* bytes, std::size_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

std::string DigestLine(std::string_view hex, std::string_view name) {
    std::string escaped;
    for (const char c : name) {
        if (c == '\\')
            escaped += "\\\\";
        else if (c == '\n')
            escaped += "\\n";
        else if (c == '\r')
            escaped += "\\r";
        else
            escaped += c;
    }
    return (escaped.size() == name.size() ? "" : "\\") + std::string(hex) + "  " + escaped + "\n";
}

std::optional<Md5Digest> ParseMd5(std::string_view text) {
    Md5Digest digest{};
    if (text.size() != 2 * digest.size()) return std::nullopt;
    for (std::size_t i = 0; i < digest.size(); ++i) {
        const int high = HexValue(text[2 * i]);
        const int low = HexValue(text[2 * i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        digest[i] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return digest;
}

}  // namespace rq::task

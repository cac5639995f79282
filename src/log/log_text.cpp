#include "log/log_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/text.h"

namespace rq {
namespace {

// The second byte of U+0080 to U+009F, whose first is 0xC2.
bool IsHighControl(unsigned char second) {
    return second >= 0x80 && second <= 0x9F;
}

// Appends one character of valid UTF-8 (or one byte of a longer one) and returns how many bytes it took.
std::size_t AppendReadable(std::string& out, std::string_view rest) {
    const auto c = static_cast<unsigned char>(rest[0]);
    if (c == '\n') {
        out += "\\n";
    } else if (c == '\r') {
        out += "\\r";
    } else if ((c < ' ' && c != '\t') || c == 0x7F) {
        out += fmt::format("\\x{:02X}", c);
    } else if (c == 0xC2 && rest.size() > 1 && IsHighControl(static_cast<unsigned char>(rest[1]))) {
        out += fmt::format("\\u{:04X}", static_cast<unsigned char>(rest[1]));
        return 2;
    } else {
        out += rest[0];
    }
    return 1;
}

}  // namespace

// Without a branch for each character: every line passes here.
bool IsPlainLogText(std::string_view text) {
    if (text.size() > kLogTextLimit) return false;
    unsigned odd = 0;
    for (const char c : text) {
        const unsigned offset = static_cast<unsigned char>(c) - unsigned{' '};
        odd |= static_cast<unsigned>(offset > unsigned{'~' - ' '}) & static_cast<unsigned>(c != '\t');
    }
    return odd == 0;
}

std::string MakeLogText(std::string_view text) {
    const std::string repaired = RepairUtf8(text.substr(0, std::min(text.size(), kLogTextLimit + 4)));
    const std::string_view kept = text.size() > kLogTextLimit ? CutUtf8(repaired, kLogTextLimit) : repaired;
    std::string out;
    out.reserve(kept.size() + kept.size() / 16);
    for (std::size_t i = 0; i < kept.size();) i += AppendReadable(out, kept.substr(i));
    if (text.size() > kLogTextLimit) {
        out += fmt::format("...[{} bytes cut]", text.size() - std::min(text.size(), kept.size()));
    }
    return out;
}

}  // namespace rq

#include "checksum_line.h"

#include <algorithm>

namespace rq::md5 {
namespace {

constexpr std::size_t kDigits = 32;

// False for an escape that is none.
bool Unescape(std::string_view escaped, std::string& name) {
    name.clear();
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] != '\\') {
            name += escaped[i];
            continue;
        }
        const char next = ++i < escaped.size() ? escaped[i] : '\0';
        if (next != '\\' && next != 'n' && next != 'r') return false;
        name += next == 'n' ? '\n' : next == 'r' ? '\r' : '\\';
    }
    return true;
}

// Where digits and name stand in the line.
bool Split(std::string_view line, std::string_view& digits, std::string_view& name) {
    constexpr std::string_view kTag = "MD5 (";
    constexpr std::string_view kBehind = ") = ";
    if (line.substr(0, kTag.size()) == kTag && line.size() > kTag.size() + kBehind.size() + kDigits) {
        digits = line.substr(line.size() - kDigits);
        name = line.substr(kTag.size(), line.size() - kTag.size() - kBehind.size() - kDigits);
        return line.substr(line.size() - kDigits - kBehind.size(), kBehind.size()) == kBehind;
    }
    if (line.size() < kDigits + 3 || line[kDigits] != ' ') return false;
    if (line[kDigits + 1] != ' ' && line[kDigits + 1] != '*') return false;
    digits = line.substr(0, kDigits);
    name = line.substr(kDigits + 2);
    return true;
}

}  // namespace

bool ParseChecksum(std::string_view line, Checksum& checksum) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const bool isEscaped = line.substr(0, 1) == "\\";
    if (isEscaped) line.remove_prefix(1);
    std::string_view digits;
    std::string_view name;
    if (!Split(line, digits, name) || name.find('\0') != std::string_view::npos) return false;
    const auto digest = task::ParseMd5(digits);
    if (!digest) return false;
    checksum.digest = *digest;
    if (isEscaped) return Unescape(name, checksum.name) && !checksum.name.empty();
    checksum.name = name;
    return true;
}

std::string ChecksumLine(std::string_view name, const task::Md5Digest& digest) {
    return task::DigestLine(HexOf(digest), name);
}

std::string HexOf(const task::Md5Digest& digest) {
    return task::HexOf(digest.data(), digest.size());
}

}  // namespace rq::md5

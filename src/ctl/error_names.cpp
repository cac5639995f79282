#include "ctl/error_names.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <vector>

#include "base/text.h"
#include "errors/error_text.h"

namespace rq::ctl {

namespace {

constexpr std::uint32_t kFamilies[] = {kFamilyCodec, kFamilyNetwork, kFamilyInspection, kFamilyTask};

const char* Describe(std::uint32_t family) {
    switch (family) {
        case kFamilyNetwork:
            return "network and transfer";
        case kFamilyInspection:
            return "inspection";
        case kFamilyTask:
            return "task";
        default:
            return "codec";
    }
}

std::string Hex(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    return text;
}

bool Knows(std::uint32_t family, std::uint32_t code) {
    const auto& names = AllErrorNames();
    return std::any_of(names.begin(), names.end(),
                       [&](const ErrorName& name) { return name.family == family && name.code == code; });
}

std::string TextOf(std::uint32_t code, std::uint32_t family) {
    std::wstring text;
    GetErrorText(code, family, text);
    return NarrowUtf8(text);
}

std::string Block(std::uint32_t code, std::uint32_t family) {
    return "code:    " + Hex(code) + "\nfamily:  " + std::to_string(family) + " (" + Describe(family) +
           ")\nname:    " + GetErrorName(code, family) + "\ntext:    " + TextOf(code, family) + "\n";
}

}  // namespace

Result<std::uint32_t> ParseErrorCode(std::string_view text) {
    const bool isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string_view digits = isHex ? text.substr(2) : text;
    std::int64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, isHex ? 16 : 10);
    const bool isWhole = error == std::errc() && end == digits.data() + digits.size();
    const std::int64_t least = isHex ? 0 : std::numeric_limits<std::int32_t>::min();
    if (!isWhole || value < least || value > std::numeric_limits<std::uint32_t>::max())
        return Fail("\"" + std::string(text) +
                    "\" is no result code; give 32 bits as 0x84100014, 2215641108 or -5");
    return static_cast<std::uint32_t>(value);
}

std::string ErrorNameText(std::uint32_t code, std::optional<std::uint32_t> family) {
    if (family) return Block(code, *family);
    std::vector<std::uint32_t> families;
    for (const std::uint32_t each : kFamilies)
        if (Knows(each, code) || TextOf(code, each) != GetErrorName(code, each)) families.push_back(each);
    if (families.empty()) families.assign(std::begin(kFamilies), std::end(kFamilies));
    std::string all;
    for (const std::uint32_t each : families) all += (all.empty() ? "" : "\n") + Block(code, each);
    return all;
}

std::string AllErrorNamesCsv() {
    std::string csv = "family,code,name\n";
    for (const ErrorName& name : AllErrorNames())
        csv += std::to_string(name.family) + "," + Hex(name.code) + "," + name.name + "\n";
    return csv;
}

}  // namespace rq::ctl

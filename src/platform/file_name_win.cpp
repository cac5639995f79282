#include "platform/file_name.h"

namespace rq::platform {

std::string WhyNoFileName(std::string_view name) {
    if (name.empty()) return {};
    if (name.back() == '.' || name.back() == ' ')
        return "Windows drops the dot or blank at the end of the name";
    if (name.find(':') != std::string_view::npos) return "Windows allows no colon in a file name";
    std::string base(name.substr(0, name.find('.')));
    while (!base.empty() && base.back() == ' ') base.pop_back();
    for (char& c : base) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    for (const std::string_view device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
        if (base == device) return "Windows keeps the name " + base + " for a device";
    }
    const bool isPort = base.starts_with("COM") || base.starts_with("LPT");
    const std::string number = isPort ? base.substr(3) : "";
    const bool isNumber = number.size() == 1 && number[0] >= '0' && number[0] <= '9';
    // The superscripts count as digits.
    const bool isSmall = number == "\u00B9" || number == "\u00B2" || number == "\u00B3";
    return isNumber || isSmall ? "Windows keeps the name " + base + " for a device" : "";
}

}  // namespace rq::platform

// "rqctl error-name": what a result code is called, and what operators read for it. Needs no engine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"

namespace rq::ctl {

// "0x84100014", "2215641108", or a negative decimal number that 32 bits hold ("-5").
Result<std::uint32_t> ParseErrorCode(std::string_view text);

// A block of lines for the family, or, without one, for each family that knows the code or has a text
// for it; for all of them when none does. The readable text is that of the installed KWROVLApparitor.ini.
std::string ErrorNameText(std::uint32_t code, std::optional<std::uint32_t> family);

// Every known code as CSV with a head line: "family,code,name", code as 0x%08X; families 0, 1, 3, 4.
std::string AllErrorNamesCsv();

}  // namespace rq::ctl

// The name tables of the result codes, one function each: the name of the code, or the table's fallback with
// the code in upper-case hexadecimal. Exact matches on the whole code, no masks or ranges. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>

namespace rq {

std::string CodecErrorName(std::uint32_t code);       // else "KWR_DMC_ERROR_<code>"
std::string NetworkErrorName(std::uint32_t code);     // else "KWR_TRANSFER_ERROR_<code>"
std::string InspectionErrorName(std::uint32_t code);  // else "KWR_VACHECK_SDK_ERROR_<code>"
std::string TaskErrorName(std::uint32_t code);        // else "KWR_OVL_ERROR_<code>"

}  // namespace rq

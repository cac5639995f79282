#include "errors/error_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "errors/error_text.h"

namespace rq {
namespace {

// By family and code, as the list stands.
constexpr ErrorName kNames[] = {
#define RQ_ERROR_NAME(family, code, name) {family, code, name},
#include "errors/error_names.inc"
#undef RQ_ERROR_NAME
};

constexpr bool IsBefore(const ErrorName& a, const ErrorName& b) {
    return a.family != b.family ? a.family < b.family : a.code < b.code;
}
constexpr bool IsNotBefore(const ErrorName& a, const ErrorName& b) {
    return !IsBefore(a, b);
}
// The search below is by halves, and no code may stand twice.
static_assert(std::adjacent_find(std::begin(kNames), std::end(kNames), IsNotBefore) == std::end(kNames));

// Null when the family does not know the code.
const char* FindName(std::uint32_t family, std::uint32_t code) {
    const ErrorName wanted{family, code, nullptr};
    const auto* found = std::lower_bound(std::begin(kNames), std::end(kNames), wanted, IsBefore);
    return found != std::end(kNames) && !IsBefore(wanted, *found) ? found->name : nullptr;
}

std::string NameOr(std::uint32_t family, std::uint32_t code, const char* fallback) {
    const char* name = FindName(family, code);
    return name != nullptr ? name : fmt::format("{}_{:X}", fallback, code);
}

}  // namespace

std::string CodecErrorName(std::uint32_t code) {
    return NameOr(kFamilyCodec, code, "KWR_DMC_ERROR");
}
std::string NetworkErrorName(std::uint32_t code) {
    return NameOr(kFamilyNetwork, code, "KWR_TRANSFER_ERROR");
}
std::string InspectionErrorName(std::uint32_t code) {
    return NameOr(kFamilyInspection, code, "KWR_VACHECK_SDK_ERROR");
}
std::string TaskErrorName(std::uint32_t code) {
    return NameOr(kFamilyTask, code, "KWR_OVL_ERROR");
}

const std::vector<ErrorName>& AllErrorNames() {
    static const auto* names = new std::vector<ErrorName>(std::begin(kNames), std::end(kNames));
    return *names;
}

}  // namespace rq

#include "app/parse_worker_type.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "records/task_codes.h"

namespace rq {

namespace {

// atoi with the behaviour that it leaves open: the nearest number that fits.
std::int32_t ToNumber(std::string_view text) {
    const long long value = std::strtoll(std::string(text).c_str(), nullptr, 10);
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}

}  // namespace

std::int32_t ParseWorkerType(std::string_view type) {
    // "mix", "pd" and "fc" of the usage text have no code: they become 0, which the run driver rejects.
    return TypeOfTaskCode(type).value_or(ToNumber(type));
}

}  // namespace rq

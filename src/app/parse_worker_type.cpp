#include "app/parse_worker_type.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "records/engine_messages.h"

namespace rq {

namespace {

struct TypeCode {
    std::string_view code;
    std::int32_t number;
};

// "mix", "pd" and "fc" of the usage text are absent: they become 0, which the run driver rejects.
constexpr TypeCode kTypeCodes[] = {
    {"tc", RQ_TASK_TRANSCODE},     {"tf", RQ_TASK_TRANSFER},   {"vac", RQ_TASK_REVIEW},
    {"mc", RQ_TASK_MD5_COMPUTE},   {"mv", RQ_TASK_MD5_VERIFY}, {"gfs", RQ_TASK_SOURCE_SIZE},
    {"df", RQ_TASK_DELETE},        {"rp", RQ_TASK_REPAIR},     {"itc", RQ_TASK_REALTIME_MERGE},
    {"irc", RQ_TASK_REVIEW_MERGE}, {"afd", RQ_TASK_AFD},       {"lc", RQ_TASK_LOUDNESS},
    {"kf", RQ_TASK_FRAMES},
};

// atoi with the behaviour that it leaves open: the nearest number that fits.
std::int32_t ToNumber(std::string_view text) {
    const long long value = std::strtoll(std::string(text).c_str(), nullptr, 10);
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}

}  // namespace

std::int32_t ParseWorkerType(std::string_view type) {
    for (const TypeCode& entry : kTypeCodes) {
        if (type == entry.code) return entry.number;
    }
    return ToNumber(type);
}

}  // namespace rq

#include "failure.h"

#include <cstdio>

namespace rq::transcode {

std::string SecondsWords(std::int64_t time_us) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", static_cast<double>(time_us) * 1e-6);
    return text;
}

}  // namespace rq::transcode

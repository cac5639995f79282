#include <clocale>

#include "base/result.h"
#include "util/utility.h"

namespace KWOVL_UTILITY {

std::string OVLSetDefaultLocale() {
    const char* now = std::setlocale(LC_ALL, nullptr);
    const std::string saved = now == nullptr ? "C" : now;
    std::setlocale(LC_ALL, "");  // a locale that is not installed leaves things as they are
    std::setlocale(LC_NUMERIC, "C");
    return saved;
}

std::int32_t OVLRestoreLocale(std::string saved) {
    return std::setlocale(LC_ALL, saved.c_str()) != nullptr ? rq::kStatusOk : rq::kStatusMissing;
}

}  // namespace KWOVL_UTILITY

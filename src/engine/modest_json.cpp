#include "engine/modest_json.h"

#include <cstddef>

namespace rq::engine {

bool IsModestJson(std::string_view text) {
    constexpr std::size_t kMostValues = 100'000, kDeepest = 32;
    std::size_t values = 0, depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            ++values;
            if (++depth > kDeepest) return false;
        } else if (c == ',') {
            ++values;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
        if (values > kMostValues) return false;
    }
    return true;
}

}  // namespace rq::engine

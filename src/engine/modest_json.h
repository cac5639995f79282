// Whether reading a JSON text takes memory in proportion to it. Pure; any thread.
#pragma once

#include <string_view>

namespace rq::engine {

// At most 100000 values, nested 32 deep. The answer about what is no JSON is of no use.
bool IsModestJson(std::string_view text);

}  // namespace rq::engine

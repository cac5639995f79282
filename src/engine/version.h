// The version of this build, as the API and "--version" show it.
#pragma once

namespace rq::engine {

inline constexpr const char* kVersion = RQ_VERSION;

}  // namespace rq::engine

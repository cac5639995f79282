// A look into the cache of INI files, for tests and benchmarks. Any thread.
#pragma once

#include <cstdint>

namespace rq {

// How many times a file was parsed since the process started; loads served from the cache do not count.
std::uint64_t IniParses();

}  // namespace rq

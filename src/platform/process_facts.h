// What this process holds at the moment: threads, handles, memory. For programs that watch what a library
// leaves behind. Any thread; a figure may be old as soon as it is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace rq::platform {

// 0 when the system does not tell.
std::size_t ThreadCount();
// Open file descriptors, or handles on Windows; the one that is needed to look is not counted. 0 when the
// system does not tell.
std::size_t HandleCount();

// What the program has allocated and not freed, in bytes; 0 when the system does not tell.
std::uint64_t AllocatedBytes();

// Environment variables under which a program's run-time library overwrites memory that was freed, so that a
// text in it does not read as before. Empty where there is no such thing.
std::vector<std::pair<std::string, std::string>> MarkFreedMemory();

}  // namespace rq::platform

// Inside this room and its tests only: which libraries a shared library asks for.
#pragma once

#include <string>
#include <vector>

namespace rq::platform {

// The names that the file asks for (DT_NEEDED entries of an ELF file, import descriptors of a PE file); empty
// when it is no 64-bit library of this platform's format, or is cut off. `path` is UTF-8. Any thread.
std::vector<std::string> NeededLibraries(const std::string& path);

}  // namespace rq::platform

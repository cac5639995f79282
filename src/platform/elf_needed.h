// Inside this room's Linux sources only: which libraries a shared library asks for.
#pragma once

#include <string>
#include <vector>

namespace rq::platform {

// The names in the file's DT_NEEDED entries; empty when it is no 64-bit ELF file of this machine's byte
// order.
std::vector<std::string> NeededLibraries(const std::string& path);

}  // namespace rq::platform

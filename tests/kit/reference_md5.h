// The MD5 of a file as somebody else computes it: the md5sum command, Windows' older cryptographic interface.
// Neither is what the programs use.
#pragma once

#include <filesystem>
#include <string>

namespace rq::kit {

// Lower-case hexadecimal digits; empty when it cannot be had.
std::string ReferenceMd5(const std::filesystem::path& file);

}  // namespace rq::kit

// Large files that take no room on the disk.
#pragma once

#include <cstdint>
#include <filesystem>

namespace rq::kit {

// Makes the file, or gives it another size. New bytes are zeros. Throws std::filesystem::filesystem_error.
void MakeSparseFile(const std::filesystem::path& path, std::uintmax_t size_bytes);

}  // namespace rq::kit

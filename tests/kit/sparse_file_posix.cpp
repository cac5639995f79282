#include <fstream>

#include "kit/sparse_file.h"

namespace rq::kit {

void MakeSparseFile(const std::filesystem::path& path, std::uintmax_t size_bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app).flush();
    std::filesystem::resize_file(path, size_bytes);
}

}  // namespace rq::kit

#include <cstdio>

#include "kit/reference_md5.h"

namespace rq::kit {

std::string ReferenceMd5(const std::filesystem::path& file) {
    std::string quoted = "'";
    for (const char c : file.native()) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    std::FILE* pipe = ::popen(("md5sum < " + quoted + "'").c_str(), "r");
    if (pipe == nullptr) return {};
    char text[33] = {};
    const std::size_t got = std::fread(text, 1, 32, pipe);
    return ::pclose(pipe) == 0 && got == 32 ? text : std::string();
}

}  // namespace rq::kit

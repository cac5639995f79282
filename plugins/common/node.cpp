#include "plugin_common/node.h"

#include <charconv>
#include <vector>

#include "plugin_common/file.h"

namespace rq::task {

int TaskCores() {
    const std::string text = EnvironmentText("RQ_TASK_CORES").value_or("1");
    int cores = 1;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), cores);
    return end.ec == std::errc() && end.ptr == text.data() + text.size() && cores > 0 ? cores : 1;
}

std::uint32_t ReadSmallFile(const std::string& path, std::size_t most_bytes, std::string& text,
                            bool& isTooLong) {
    text.clear();
    isTooLong = false;
    InputFile file;
    if (const std::uint32_t code = file.Open(path); code != 0) return code;
    std::vector<char> buffer(most_bytes + 1);
    std::size_t got = 0;
    if (const std::uint32_t code = file.Read(buffer.data(), buffer.size(), got); code != 0) return code;
    isTooLong = got > most_bytes;
    if (!isTooLong) text.assign(buffer.data(), got);
    return 0;
}

}  // namespace rq::task

#include "kit/files.h"

#include <algorithm>
#include <thread>

#include "base/paths.h"
#include "platform/files.h"

namespace rq::kit {

std::string ReadBytes(const std::filesystem::path& path) {
    return platform::ReadWholeFile(Utf8FromPath(path)).value_or(std::string());
}

std::string ReadText(const std::filesystem::path& path) {
    const std::string bytes = ReadBytes(path);
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] != '\r' || i + 1 == bytes.size() || bytes[i + 1] != '\n') text += bytes[i];
    }
    return text;
}

std::vector<std::string> ReadLines(const std::filesystem::path& path) {
    const std::string bytes = ReadBytes(path);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < bytes.size();) {
        const auto end = std::min(bytes.find('\n', at), bytes.size());
        std::string line = bytes.substr(at, end - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        at = end + 1;
    }
    return lines;
}

bool WaitUntil(const std::function<bool()>& holds, std::chrono::milliseconds bound) {
    const auto end = std::chrono::steady_clock::now() + bound;
    for (;;) {
        if (holds()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool WaitForFile(const std::filesystem::path& path,
                 const std::function<bool(const std::string& bytes)>& holds,
                 std::chrono::milliseconds bound) {
    return WaitUntil([&] { return holds(ReadBytes(path)); }, bound);
}

bool WaitForText(const std::filesystem::path& path, std::string_view text, std::chrono::milliseconds bound) {
    return WaitUntil([&] { return ReadText(path).find(text) != std::string::npos; }, bound);
}

std::vector<std::filesystem::path> FindFiles(const std::filesystem::path& root, std::string_view ending) {
    std::vector<std::filesystem::path> found;
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator at(root, error), end; !error && at != end;
         at.increment(error)) {
        std::error_code ignored;
        if (at->is_regular_file(ignored) && Utf8FromPath(at->path().filename()).ends_with(ending)) {
            found.push_back(at->path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool ReplaceElementText(const std::filesystem::path& path, const std::string& element,
                        std::string_view text) {
    std::string bytes = ReadBytes(path);
    const std::string opening = "<" + element + ">";
    const auto begin = bytes.find(opening);
    if (begin == std::string::npos) return false;
    const auto end = bytes.find("</" + element + ">", begin);
    if (end == std::string::npos) return false;
    bytes.replace(begin + opening.size(), end - begin - opening.size(), text);
    return platform::ReplaceWholeFile(Utf8FromPath(path), bytes, false);
}

}  // namespace rq::kit

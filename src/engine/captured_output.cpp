#include "engine/captured_output.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "base/paths.h"
#include "base/text.h"
#include "platform/codepage.h"
#include "platform/files.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

std::optional<std::uint64_t> SizeOf(const std::string& file) {
    std::error_code unknown;
    const auto size = fs::file_size(PathFromUtf8(file), unknown);
    return unknown ? std::nullopt : std::optional<std::uint64_t>(size);
}

std::string LeftOut(std::uint64_t bytes) {
    return "\n[" + std::to_string(bytes) + " bytes are left out here]\n";
}

std::string Decoded(const std::string& bytes) {
    if (IsValidUtf8(bytes)) return bytes;
    std::string text;
    for (std::string_view rest = bytes; !rest.empty();) {
        const auto end = std::min(rest.find('\n'), rest.size() - 1) + 1;
        const std::string line(rest.substr(0, end));
        text += IsValidUtf8(line) ? line : platform::GbkToUtf8(line).value_or(RepairUtf8(line));
        rest.remove_prefix(end);
    }
    return text;
}

// `size` bytes from `begin`, fewer at the file's end.
std::string Part(const std::string& file, std::uint64_t begin, std::uint64_t size) {
    std::FILE* opened = platform::OpenFile(file, "rb");
    if (opened == nullptr) return {};
    std::string bytes(static_cast<std::size_t>(size), '\0');
    std::fseek(opened, static_cast<long>(begin), SEEK_SET);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), opened));
    std::fclose(opened);
    return bytes;
}

}  // namespace

void BoundOutput(const std::string& file, std::uint64_t limit_bytes) {
    const auto size = SizeOf(file);
    if (!size || *size <= 2 * limit_bytes) return;
    std::error_code failed;
    fs::resize_file(PathFromUtf8(file), limit_bytes / 2, failed);
    if (failed) return;
    if (std::FILE* opened = platform::OpenFile(file, "ab")) {
        std::fputs(LeftOut(*size - limit_bytes / 2).c_str(), opened);
        std::fclose(opened);
    }
}

void ConcludeOutput(const std::string& file, std::uint64_t limit_bytes) {
    const auto size = SizeOf(file);
    if (!size || *size == 0) return;
    const std::uint64_t half = limit_bytes / 2;
    const bool isLarge = *size > limit_bytes;
    const std::string bytes =
        isLarge ? Part(file, 0, half) + LeftOut(*size - 2 * half) + Part(file, *size - half, half)
                : Part(file, 0, *size);
    const std::string text = Decoded(bytes);
    if (isLarge || text != bytes) platform::ReplaceWholeFile(file, text, true);
}

}  // namespace rq::engine

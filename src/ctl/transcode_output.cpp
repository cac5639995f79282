#include "ctl/transcode_output.h"

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace rq::ctl {

namespace {

using nlohmann::json;

std::string OneDigit(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::uint64_t Number(const json& output, const char* name) {
    const auto found = output.find(name);
    return found != output.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

// docs/tasks/transcode.md: frames, milliseconds of sound, bytes.
std::string Line(const json& output) {
    const std::uint64_t frames = Number(output, "value1");
    const std::uint64_t sound_ms = Number(output, "value2");
    std::string line = output.value("first", "") + ": " + output.value("second", "");
    if (frames > 0) line += ", " + std::to_string(frames) + " frames";
    if (sound_ms > 0) line += ", " + OneDigit(static_cast<double>(sound_ms) / 1000) + " s of sound";
    return line + ", " + OneDigit(static_cast<double>(Number(output, "value64")) / (1 << 20)) + " MiB\n";
}

}  // namespace

std::string ReportTranscode(const json& result) {
    std::string text;
    if (!result.is_object() || result.value("kind", "") != "transcode" || !result.contains("outputs"))
        return text;
    for (const auto& output : result["outputs"])
        if (output.is_object()) text += Line(output);
    return text;
}

}  // namespace rq::ctl

#include "engine/config_limits.h"

#include <algorithm>
#include <sstream>

#include "base/paths.h"
#include "engine/config_retry.h"

namespace rq::engine {

namespace {

constexpr std::int64_t kMostWorkers = 1000;
constexpr std::int64_t kMostFree_MiB = std::int64_t{1} << 40;
constexpr std::size_t kLongestName_bytes = 64;

std::string Quoted(const std::string& text) {
    return (std::ostringstream() << toml::value<std::string>(text)).str();
}

// In the store names stand with blanks between them, and in URLs of metrics as they are.
bool IsVolumeName(std::string_view name) {
    return !name.empty() && name.size() <= kLongestName_bytes &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-';
           });
}

std::optional<KeyFault> ReadType(const toml::key& name, const toml::table& content, NodeLimits& limits) {
    const auto type = TypeOfPolicy(name.str());
    if (!type)
        return KeyFault{name, "\"" + std::string(name.str()) + "\" is neither a type's code nor its number"};
    for (const auto& [key, node] : content) {
        if (key.str() != "max_workers")
            return KeyFault{
                key, "\"" + std::string(key.str()) + "\" is not a key of a type; there is max_workers"};
        const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
        if (!value || *value < 1 || *value > kMostWorkers)
            return KeyFault{key, "max_workers must be a whole number from 1 to " +
                                     std::to_string(kMostWorkers) +
                                     "; to start none of a type there is \"rqctl drain --type\""};
        limits.typeWorkers[*type] = static_cast<unsigned>(*value);
    }
    return std::nullopt;
}

std::optional<KeyFault> ReadVolume(const toml::key& name, const toml::table& content, NodeLimits& limits) {
    if (!IsVolumeName(name.str()))
        return KeyFault{name, "\"" + std::string(name.str()) +
                                  "\" is no name of a volume: 1 to 64 letters, digits, _ and -"};
    VolumeSettings volume;
    for (const auto& [key, node] : content) {
        if (key.str() == "path" || key.str() == "marker") {
            const auto text = node.is_string() ? *node.value<std::string>() : "";
            if (text.empty())
                return KeyFault{key, std::string(key.str()) + " must be a text in quotes, not empty"};
            const auto path = PathFromUtf8(text);
            const bool climbs =
                std::any_of(path.begin(), path.end(), [](const auto& part) { return part == ".."; });
            if (key.str() == "path") {
                if (!path.is_absolute() || climbs)
                    return KeyFault{key, "path must be an absolute path without \"..\""};
                volume.path = text;
            } else {
                if (path.has_root_path() || climbs)
                    return KeyFault{key, "marker must be a path on the volume, without \"..\""};
                volume.marker = text;
            }
        } else if (key.str() == "free_mib") {
            const auto value = node.is_integer() ? node.value<std::int64_t>() : std::nullopt;
            if (!value || *value < 0 || *value > kMostFree_MiB)
                return KeyFault{key,
                                "free_mib must be a whole number from 0 to " + std::to_string(kMostFree_MiB)};
            volume.free_MiB = static_cast<std::uint64_t>(*value);
        } else {
            return KeyFault{key, "\"" + std::string(key.str()) +
                                     "\" is not a key of a volume; there are path, free_mib, marker"};
        }
    }
    if (volume.path.empty()) return KeyFault{name, "volume " + std::string(name.str()) + " has no path"};
    limits.volumes[std::string(name.str())] = volume;
    return std::nullopt;
}

}  // namespace

bool IsLimitsTable(std::string_view name) {
    return name == "types" || name == "volumes";
}

std::optional<KeyFault> ReadLimitsTable(std::string_view name, const toml::table& content,
                                        NodeLimits& limits) {
    for (const auto& [key, node] : content) {
        if (!node.is_table())
            return KeyFault{key, "[" + std::string(name) + "] holds tables alone: [" + std::string(name) +
                                     "." + (name == "types" ? "tc" : "NAME") + "]"};
        auto fault = name == "types" ? ReadType(key, *node.as_table(), limits)
                                     : ReadVolume(key, *node.as_table(), limits);
        if (fault) return fault;
    }
    return std::nullopt;
}

std::string LimitsTables(const NodeLimits& limits) {
    std::string text;
    for (const auto& [type, most] : limits.typeWorkers)
        text += "\n[types." + PolicyName(type) +
                "]\n# Workers of this type at a time.\nmax_workers = " + std::to_string(most) + "\n";
    for (const auto& [name, volume] : limits.volumes) {
        text += "\n[volumes." + name +
                "]\n# What tasks declare that read or write below this path.\npath = " + Quoted(volume.path) +
                "\n# With less free space than this, in MiB, they wait.\nfree_mib = " +
                std::to_string(volume.free_MiB) + "\n";
        if (!volume.marker.empty())
            text += "# A file on the volume; while it is missing, so is the volume.\nmarker = " +
                    Quoted(volume.marker) + "\n";
    }
    return text;
}

}  // namespace rq::engine

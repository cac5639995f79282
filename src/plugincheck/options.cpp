#include "plugincheck/options.h"

#include <nlohmann/json.hpp>

namespace rq::plugincheck {

std::string ToJson(const CheckOptions& options) {
    nlohmann::json json = {{"library", options.library},       {"seed", options.seed},
                           {"tasks", options.tasks},           {"time_s", options.time_s},
                           {"patience_s", options.patience_s}, {"patrol_s", options.patrol_s}};
    if (options.type) json["type"] = *options.type;
    // As numbers: a task text may be any bytes.
    if (options.task) json["task"] = std::vector<std::uint8_t>(options.task->begin(), options.task->end());
    return json.dump();
}

Result<CheckOptions> OptionsFromJson(const std::string& text) {
    try {
        const auto json = nlohmann::json::parse(text);
        CheckOptions options;
        options.library = json.at("library").get<std::string>();
        options.seed = json.at("seed").get<std::uint64_t>();
        options.tasks = json.at("tasks").get<std::uint32_t>();
        options.time_s = json.at("time_s").get<std::uint32_t>();
        options.patience_s = json.at("patience_s").get<std::uint32_t>();
        options.patrol_s = json.at("patrol_s").get<std::int32_t>();
        if (json.contains("type")) options.type = json.at("type").get<std::int32_t>();
        if (json.contains("task")) {
            const auto bytes = json.at("task").get<std::vector<std::uint8_t>>();
            options.task = std::string(bytes.begin(), bytes.end());
        }
        return options;
    } catch (const nlohmann::json::exception& problem) {
        return Fail(std::string("the options of the check: ") + problem.what());
    }
}

}  // namespace rq::plugincheck

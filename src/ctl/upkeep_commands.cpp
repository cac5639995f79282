// Commands for those who look after a node.
#include <filesystem>

#include "base/paths.h"
#include "ctl/commands.h"
#include "ctl/output.h"

namespace rq::ctl {

using nlohmann::json;

Outcome<int> Backup(EngineAccess& engine, const std::string& file) {
    if (file.empty()) return Failure(kExitUsage, "backup: the file name is empty; is a variable not set?");
    std::error_code ignored;
    const auto path = std::filesystem::absolute(PathFromUtf8(file), ignored).lexically_normal();
    const auto answer = engine.Post("/api/v1/backup", json({{"file", Utf8FromPath(path)}}).dump());
    if (!answer) return answer.error();
    Print(answer->value("file", "") + " " + std::to_string(answer->value("bytes", std::uint64_t{0})) +
          " bytes\n");
    return kExitFinished;
}

Outcome<int> CollectGarbage(EngineAccess& engine, bool asJson) {
    const auto answer = engine.Post("/api/v1/gc");
    if (!answer) return answer.error();
    if (asJson) {
        Print(answer->dump(2) + "\n");
        return kExitFinished;
    }
    std::string text;
    const json kinds = answer->value("removed", json::object());
    for (const auto& [kind, removed] : kinds.items())
        text += kind + ": " + std::to_string(removed.value("files", 0)) + " files, " +
                std::to_string(removed.value("bytes", std::uint64_t{0})) + " bytes removed\n";
    Print(text + "events: " + std::to_string(answer->value("events", std::int64_t{0})) + " removed\n");
    return kExitFinished;
}

}  // namespace rq::ctl

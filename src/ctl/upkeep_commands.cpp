// Commands for those who look after a node.
#include <filesystem>

#include "base/paths.h"
#include "ctl/commands.h"
#include "ctl/output.h"

namespace rq::ctl {

using nlohmann::json;

Outcome<int> Backup(EngineAccess& engine, const std::string& file, bool asJson) {
    if (file.empty()) return Failure(kExitUsage, "backup: the file name is empty; is a variable not set?");
    std::error_code ignored;
    const auto path = std::filesystem::absolute(PathFromUtf8(file), ignored).lexically_normal();
    const auto answer = engine.Post("/api/v1/backup", json({{"file", Utf8FromPath(path)}}).dump());
    if (!answer) return answer.error();
    if (asJson) {
        Print(answer->dump(2) + "\n");
        return kExitFinished;
    }
    Print(answer->value("file", "") + " " + std::to_string(answer->value("bytes", std::uint64_t{0})) +
          " bytes\n");
    return kExitFinished;
}

Outcome<int> TestPath(EngineAccess& engine, const std::string& path, bool asJson) {
    if (path.empty()) return Failure(kExitUsage, "path test: the path is empty; is a variable not set?");
    const auto answer = engine.Get("/api/v1/path?path=" + EncodeSegment(path));
    if (!answer) return answer.error();
    const bool isReached = answer->value("reached", false) && answer->value("readable", false);
    if (asJson) {
        Print(answer->dump(2) + "\n");
        return isReached ? kExitFinished : kExitFailed;
    }
    const json& rule = (*answer)["rule"];
    std::string text = answer->value("path", "") + "\n";
    text += rule.is_object() ? "  rule:   " + rule.value("given", "") + " = " + rule.value("local", "") + "\n"
                             : std::string("  rule:   none; the path stays as it is\n");
    text += "  local:  " + answer->value("local", "") + "\n";
    const json& size = (*answer)["size_bytes"];
    if (isReached)
        text += "  found:  " + answer->value("kind", "") +
                (size.is_number() ? ", " + std::to_string(size.get<std::uint64_t>()) + " bytes" : "") +
                ", can be read\n";
    else
        text += "  PROBLEM: " + answer->value("problem", "") + "\n";
    Print(text);
    return isReached ? kExitFinished : kExitFailed;
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

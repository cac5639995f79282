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

namespace {

// What the path lies in, as it is written itself; empty for a root.
std::string FolderOf(std::string path) {
    const char* const separators = path.starts_with('/') ? "/" : "\\/";
    while (path.size() > 1 && path.find_last_of(separators) == path.size() - 1) path.pop_back();
    const std::size_t end = path.find_last_of(separators);
    if (end == std::string::npos || end + 1 == path.size()) return {};
    return path.substr(0, end == 0 || path[end - 1] == ':' ? end + 1 : end);
}

bool CanBeRead(const json& answer) {
    return answer.value("reached", false) && answer.value("readable", false);
}

}  // namespace

Outcome<int> TestPath(EngineAccess& engine, const std::string& path, bool asJson) {
    if (path.empty()) return Failure(kExitUsage, "path test: the path is empty; is a variable not set?");
    auto answer = engine.Get("/api/v1/path?path=" + EncodeSegment(path));
    if (!answer) return answer.error();
    const bool isReached = CanBeRead(*answer);
    // A target need not be there, but what it is to lie in.
    const std::string above = isReached ? "" : FolderOf(path);
    if (!above.empty()) {
        auto folder = engine.Get("/api/v1/path?path=" + EncodeSegment(above));
        if (!folder) return folder.error();
        (*answer)["folder"] = std::move(*folder);
    }
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
    if (answer->contains("folder")) {
        const json& folder = (*answer)["folder"];
        text += "  its folder: " + folder.value("local", "") + ": " +
                (CanBeRead(folder) ? "is there (" + folder.value("kind", "") + ")"
                                   : folder.value("problem", "")) +
                "\n";
    }
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

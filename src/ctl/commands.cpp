#include "ctl/commands.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <thread>

#include "base/paths.h"
#include "base/text.h"
#include "ctl/md5_task.h"
#include "ctl/output.h"
#include "platform/files.h"
#include "platform/identity.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

constexpr std::size_t kNameLimit_bytes = 200;
constexpr std::chrono::seconds kShutdownLimit(60);

std::string Dump(const json& document, int indent) {
    return document.dump(indent, ' ', false, json::error_handler_t::replace) + "\n";
}

// What the API takes as a name.
std::string NameFrom(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    return std::string(CutUtf8(text, kNameLimit_bytes));
}

std::string FileName(const std::string& path) {
    return Utf8FromPath(PathFromUtf8(path).filename());
}

std::string NameOf(const std::vector<Md5Job>& jobs) {
    const std::string more = jobs.size() > 1 ? " and " + std::to_string(jobs.size() - 1) + " more" : "";
    const std::string first = FileName(jobs.front().path);
    return NameFrom(std::string(CutUtf8(first, kNameLimit_bytes - more.size())) + more);
}

std::uintmax_t TotalSize(const std::vector<Md5Job>& jobs) {
    std::uintmax_t total_bytes = 0;
    for (const auto& job : jobs) {
        std::error_code unknown;
        const auto size = std::filesystem::file_size(PathFromUtf8(job.path), unknown);
        if (!unknown) total_bytes += size;
    }
    return total_bytes;
}

// What the engine takes.
constexpr std::size_t kBodyLimit_bytes = 16u * 1024u * 1024u;

Outcome<int> Submit(const std::string& dataFolder, const std::string& type, const std::string& text,
                    const std::string& name, const std::optional<Follow>& follow,
                    std::uintmax_t work_bytes = 0) {
    auto engine = EngineAccess::Open(dataFolder);
    if (!engine) return engine.error();
    const json body = {{"type", type}, {"text", text}, {"name", name}};
    const std::string sent = body.dump();
    if (sent.size() > kBodyLimit_bytes)
        return Failure(
            kExitUsage,
            "the task's text is too large: a task may have 16 MiB with its name, as JSON, and this one has " +
                std::to_string(sent.size()) + " bytes");
    const auto answer = (*engine)->Post("/api/v1/tasks", sent);
    if (!answer) return answer.error();
    const std::string id = answer->value("id", "");
    if (follow) return WatchTask(**engine, id, *follow, work_bytes);
    Print(id + "\n");
    return kExitFinished;
}

Outcome<std::string> ReadText(const std::string& file) {
    std::string text;
    if (file == "-") {
        text.resize(kBodyLimit_bytes + 1);
        std::cin.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(std::cin.gcount()));
        if (text.size() > kBodyLimit_bytes)
            return Failure(kExitUsage,
                           "--text: standard input has more than 16 MiB, the most that a task may have");
    } else {
        platform::OsError error;
        auto whole = platform::ReadWholeFile(file, &error, kBodyLimit_bytes);
        if (!whole) return Failure(kExitUsage, "--text: " + error.message + " (a task may have 16 MiB)");
        text = std::move(*whole);
    }
    const std::string name = file == "-" ? "standard input" : file;
    if (text.empty()) return Failure(kExitUsage, "--text: " + name + " is empty");
    if (!IsValidUtf8(text)) return Failure(kExitUsage, "--text: " + name + " is not UTF-8; convert it first");
    return text;
}

}  // namespace

Outcome<int> SubmitMd5(const std::string& dataFolder, const std::vector<std::string>& files,
                       const std::vector<std::string>& expected, const SubmitOptions& options) {
    const auto jobs = PrepareMd5Jobs(files, expected);
    if (!jobs) return Failure(kExitUsage, jobs.error().message);
    const std::string xml = BuildMd5TaskXml("md5-" + platform::RandomHex(8), *jobs);
    const std::string name = options.name.empty() ? NameOf(*jobs) : options.name;
    return Submit(dataFolder, expected.empty() ? "mc" : "mv", xml, name, options.follow, TotalSize(*jobs));
}

Outcome<int> SubmitTranscode(const std::string& dataFolder, const TranscodeOptions& transcode,
                             const SubmitOptions& options) {
    const auto prepared = PrepareTranscode(transcode);
    if (!prepared) return Failure(kExitUsage, prepared.error().message);
    const std::string xml = BuildTranscodeTaskXml("transcode-" + platform::RandomHex(8), *prepared);
    const std::string name = options.name.empty()
                                 ? NameFrom(FileName(prepared->source) + " to " + FileName(prepared->target))
                                 : options.name;
    return Submit(dataFolder, "tc", xml, name, options.follow);
}

Outcome<int> SubmitText(const std::string& dataFolder, const std::string& type, const std::string& textFile,
                        const SubmitOptions& options) {
    const auto text = ReadText(textFile);
    if (!text) return text.error();
    return Submit(dataFolder, type, *text, options.name, options.follow);
}

Outcome<int> List(EngineAccess& engine, const ListOptions& options) {
    json tasks = json::array();
    std::string after;
    while (static_cast<int>(tasks.size()) < options.limit) {
        const int page = std::min(1000, options.limit - static_cast<int>(tasks.size()));
        std::string target = "/api/v1/tasks?limit=" + std::to_string(page);
        if (!options.states.empty()) target += "&state=" + EncodeSegment(options.states);
        if (!after.empty()) target += "&after=" + EncodeSegment(after);
        const auto answer = engine.Get(target);
        if (!answer) return answer.error();
        for (const auto& task : answer->value("tasks", json::array())) tasks.push_back(task);
        const json next = answer->value("next", json());
        if (!next.is_string()) break;
        after = next.get<std::string>();
    }
    Print(options.json ? Dump(tasks, 2) : ListTable(tasks));
    return kExitFinished;
}

Outcome<int> Show(EngineAccess& engine, const std::string& id, const ShowOptions& options) {
    const std::string path = "/api/v1/tasks/" + EncodeSegment(id);
    auto task = engine.Get(path);
    if (!task) return task.error();
    json events = json::array();
    for (std::int64_t last = 0; options.events;) {
        const auto answer = engine.Get(path + "/events?after=" + std::to_string(last));
        if (!answer) return answer.error();
        const json page = answer->value("events", json::array());
        if (page.empty()) break;
        for (const auto& event : page) events.push_back(event);
        last = answer->value("last", last);
    }
    if (options.json && options.events) (*task)["events"] = events;
    Print(options.json ? Dump(*task, 2) : ShowText(*task, events));
    return kExitFinished;
}

namespace {

Outcome<int> Tell(const Outcome<json>& answer, bool asJson) {
    if (!answer) return answer.error();
    Print(asJson ? Dump(*answer, 2) : answer->value("message", "") + "\n");
    return kExitFinished;
}

}  // namespace

Outcome<int> GiveOrder(EngineAccess& engine, const std::string& order, const std::string& id, bool json) {
    const std::string path = "/api/v1/tasks/" + EncodeSegment(id);
    return Tell(order == "delete" ? engine.Delete(path) : engine.Post(path + "/" + order), json);
}

Outcome<int> Update(EngineAccess& engine, const std::string& id, const std::string& textFile, bool asJson) {
    const auto text = ReadText(textFile);
    if (!text) return text.error();
    const std::string body = json{{"text", *text}}.dump();
    return Tell(engine.Post("/api/v1/tasks/" + EncodeSegment(id) + "/update", body), asJson);
}

Outcome<int> DrainOrUndrain(EngineAccess& engine, const std::string& order, const std::string& type,
                            bool asJson) {
    const std::string body = type.empty() ? "" : json{{"type", type}}.dump();
    return Tell(engine.Post("/api/v1/" + order, body), asJson);
}

Outcome<int> Shutdown(EngineAccess& engine, bool cancel) {
    const auto answer = engine.Post("/api/v1/shutdown", cancel ? R"({"cancel":true})" : "");
    if (!answer) return answer.error();
    const auto file = PathFromUtf8(engine.DataFolder()) / "engine.json";
    const auto end = std::chrono::steady_clock::now() + kShutdownLimit;
    std::error_code ignored;
    while (std::filesystem::exists(file, ignored)) {
        if (std::chrono::steady_clock::now() >= end)
            return Failure(kExitFailed, "the engine has not ended within " +
                                            std::to_string(kShutdownLimit.count()) + " s; it still tries");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Print("the engine has ended\n");
    return kExitFinished;
}

}  // namespace rq::ctl

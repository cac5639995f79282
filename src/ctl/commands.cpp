#include "ctl/commands.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <thread>

#include "base/paths.h"
#include "base/text.h"
#include "ctl/file_argument.h"
#include "ctl/md5_task.h"
#include "ctl/output.h"
#include "ctl/watch_table.h"
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
        if (job.element != "File") return 0;  // not known here
        std::error_code unknown;
        const auto size = std::filesystem::file_size(PathFromUtf8(job.path), unknown);
        if (!unknown) total_bytes += size;
    }
    return total_bytes;
}

// What the engine takes.
constexpr std::size_t kBodyLimit_bytes = 16u * 1024u * 1024u;

// The fields of the API.
json RunJson(const RunFields& run) {
    json fields = json::object();
    if (run.priority) fields["priority"] = *run.priority;
    if (!run.notBefore.empty()) fields["not_before"] = run.notBefore;
    if (!run.deadline.empty()) fields["deadline"] = run.deadline;
    if (!run.deadlineAction.empty()) fields["deadline_action"] = run.deadlineAction;
    if (run.memory_MiB) fields["memory_mib"] = *run.memory_MiB;
    if (run.cores) fields["cores"] = *run.cores;
    if (!run.volumes.empty()) fields["volumes"] = run.volumes;
    if (!run.key.empty()) fields["key"] = run.key;
    return fields;
}

// The ID inside the task's text. With a key it is the key's, so that the same submission has the same text.
std::string TaskId(const std::string& lead, const RunFields& run) {
    if (run.key.empty()) return lead + platform::RandomHex(8);
    std::uint64_t sum = 0xCBF29CE484222325u;  // FNV-1a
    for (const char c : run.key) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001B3u;
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
    return lead + text;
}

Outcome<int> Submit(const std::string& dataFolder, const std::string& type, const std::string& text,
                    const std::string& name, const SubmitOptions& options, std::uintmax_t work_bytes = 0) {
    auto engine = EngineAccess::Open(dataFolder);
    if (!engine) return engine.error();
    json body = RunJson(options.run);
    body.update({{"type", type}, {"text", text}, {"name", name}});
    const std::string sent = body.dump();
    if (sent.size() > kBodyLimit_bytes)
        return Failure(
            kExitUsage,
            "the task's text is too large: a task may have 16 MiB with its name, as JSON, and this one has " +
                std::to_string(sent.size()) + " bytes");
    const auto answer = (*engine)->Post("/api/v1/tasks", sent);
    if (!answer) return answer.error();
    const std::string id = answer->value("id", "");
    if (options.json) {
        Print(Dump(*answer, options.follow ? -1 : 2));
        return options.follow ? WatchTasks(**engine, {id}, true) : Outcome<int>(kExitFinished);
    }
    if (answer->value("repeated", false))
        std::fprintf(stderr, "rqctl: %s has this key already; no task was made\n", id.c_str());
    if (options.follow) return WatchTask(**engine, id, *options.follow, work_bytes);
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

// A task that declares cores uses them, when it can.
int ThreadsFor(const RunFields& run) {
    return static_cast<int>(std::clamp<std::int64_t>(run.cores.value_or(1), 1, kMaxMd5Threads));
}

}  // namespace

Outcome<int> SubmitMd5(const std::string& dataFolder, const Md5Options& md5, const SubmitOptions& options) {
    const bool isCheck = !md5.checks.empty();
    if (isCheck && !(md5.files.empty() && md5.expected.empty()))
        return Failure(kExitUsage, "--check goes without files; give them a task of their own");
    const bool verifies = isCheck || !md5.expected.empty();
    if (verifies && !md5.checksumFile.empty())
        return Failure(kExitUsage, "--write goes with a computation, not with --check or --expect");
    if (md5.overwrite && md5.checksumFile.empty())
        return Failure(kExitUsage, "--overwrite goes with --write");
    const auto jobs = isCheck ? PrepareMd5Checks(md5.checks) : PrepareMd5Jobs(md5.files, md5.expected);
    if (!jobs) return Failure(kExitUsage, jobs.error().message);
    Md5Settings settings{md5.threads.value_or(ThreadsFor(options.run)), {}, md5.overwrite};
    if (!md5.checksumFile.empty()) {
        const auto target = NewFile(md5.checksumFile, md5.overwrite);
        if (!target) return Failure(kExitUsage, target.error().message);
        settings.checksumFile = *target;
    }
    const std::string xml = BuildMd5TaskXml(TaskId("md5-", options.run), *jobs, settings);
    const std::string name = options.name.empty() ? NameOf(*jobs) : options.name;
    return Submit(dataFolder, verifies ? "mv" : "mc", xml, name, options, TotalSize(*jobs));
}

Outcome<int> SubmitTranscode(const std::string& dataFolder, const TranscodeOptions& transcode,
                             const SubmitOptions& options) {
    const auto prepared = PrepareTranscode(transcode);
    if (!prepared) return Failure(kExitUsage, prepared.error().message);
    const std::string xml = BuildTranscodeTaskXml(TaskId("transcode-", options.run), *prepared);
    const std::string name = options.name.empty()
                                 ? NameFrom(FileName(prepared->source) + " to " + FileName(prepared->target))
                                 : options.name;
    return Submit(dataFolder, "tc", xml, name, options);
}

Outcome<int> SubmitTransfer(const std::string& dataFolder, const TransferOptions& transfer,
                            const SubmitOptions& options) {
    const auto prepared = PrepareTransfer(transfer);
    if (!prepared) return Failure(kExitUsage, prepared.error().message);
    const std::string xml = BuildTransferTaskXml(TaskId("transfer-", options.run), *prepared);
    const std::string name = options.name.empty()
                                 ? NameFrom(FileName(prepared->source) + " to " + FileName(prepared->target))
                                 : options.name;
    return Submit(dataFolder, "tf", xml, name, options);
}

Outcome<int> SubmitText(const std::string& dataFolder, const std::string& type, const std::string& textFile,
                        const SubmitOptions& options) {
    const auto text = ReadText(textFile);
    if (!text) return text.error();
    return Submit(dataFolder, type, *text, options.name, options);
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

Outcome<int> SetPriority(EngineAccess& engine, const std::string& id, int priority, bool asJson) {
    const std::string body = json{{"priority", priority}}.dump();
    return Tell(engine.Post("/api/v1/tasks/" + EncodeSegment(id) + "/priority", body), asJson);
}

Outcome<int> Explain(EngineAccess& engine, const std::string& id, bool asJson) {
    const auto answer = engine.Get("/api/v1/tasks/" + EncodeSegment(id) + "/explain");
    if (!answer) return answer.error();
    Print(asJson ? Dump(*answer, 2) : ExplainText(*answer));
    return kExitFinished;
}

Outcome<int> DrainOrUndrain(EngineAccess& engine, const std::string& order, const std::string& type,
                            bool asJson) {
    const std::string body = type.empty() ? "" : json{{"type", type}}.dump();
    return Tell(engine.Post("/api/v1/" + order, body), asJson);
}

Outcome<int> Shutdown(EngineAccess& engine, bool cancel, bool asJson) {
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
    Print(asJson ? Dump(*answer, 2) : "the engine has ended\n");
    return kExitFinished;
}

}  // namespace rq::ctl

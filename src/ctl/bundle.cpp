#include "ctl/bundle.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <vector>

#include "base/paths.h"
#include "ctl/archive.h"
#include "ctl/output.h"
#include "ctl/redact.h"
#include "platform/files.h"

namespace rq::ctl {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::int64_t kFileEnd_bytes = 16 * 1024 * 1024;

std::string Readable(const json& document) {
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string TextOf(const json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

// The end of the file; nothing when it cannot be read.
std::optional<std::string> EndOf(const fs::path& path) {
    std::FILE* file = platform::OpenFile(Utf8FromPath(path), "rb");
    if (file == nullptr) return std::nullopt;
    std::error_code unknown;
    const auto size = static_cast<std::int64_t>(fs::file_size(path, unknown));
    std::string bytes(static_cast<std::size_t>(kFileEnd_bytes), '\0');
    if (!unknown && size > kFileEnd_bytes) std::fseek(file, -static_cast<long>(kFileEnd_bytes), SEEK_END);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    return bytes;
}

// Names in an archive are ASCII.
std::string PlainName(const fs::path& path) {
    std::string name = Utf8FromPath(path.filename());
    for (char& c : name) {
        if (static_cast<unsigned char>(c) >= 0x80 || c == '/' || c == '\\') c = '_';
    }
    return name.substr(0, 80);
}

class Collector {
  public:
    explicit Collector(std::vector<std::string> secrets)
        : m_archive(std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count()),
          m_secrets(std::move(secrets)) {}

    void AddText(const std::string& name, const std::string& text) {
        m_archive.Add(name, Redact(text, m_secrets));
        m_list += "  " + name + "\n";
    }
    void AddFile(const std::string& folder, const fs::path& path) {
        const auto bytes = EndOf(path);
        if (!bytes) {
            m_list += "  (" + Utf8FromPath(path) + " cannot be read)\n";
            return;
        }
        const std::string name = folder + PlainName(path);
        if (path.extension() != ".dmp") return AddText(name, *bytes);
        m_archive.Add(name, *bytes);
        m_list += "  " + name + "  (memory of the process: may hold secrets)\n";
    }
    Result<std::string> Finish() {
        m_archive.Add("README.txt",
                      "Everything that the engine has about one task. Secrets in texts are replaced by ***; "
                      "of long files "
                      "the end is here.\n\n" +
                          m_list);
        return m_archive.Finish();
    }

  private:
    Archive m_archive;
    const std::vector<std::string> m_secrets;
    std::string m_list;
};

// The worker's log with its continuations, and what else has the attempt's name beside it.
void AddLogs(Collector& collector, const std::string& folder, const std::string& log) {
    const fs::path path = PathFromUtf8(log);
    const std::string name = Utf8FromPath(path.filename());
    const std::string begin = name.substr(0, name.rfind("_W.log"));
    std::vector<fs::path> found;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(path.parent_path(), none)) {
        if (Utf8FromPath(entry.path().filename()).starts_with(begin)) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    for (const auto& file : found) collector.AddFile(folder, file);
}

void AddAttempt(Collector& collector, const json& attempt) {
    const std::string folder = "attempt-" + std::to_string(attempt.value("number", 0)) + "/";
    if (const auto log = TextOf(attempt, "log"); !log.empty()) AddLogs(collector, folder, log);
    for (const char* name : {"output", "crash_report"}) {
        if (const auto path = TextOf(attempt, name); !path.empty())
            collector.AddFile(folder, PathFromUtf8(path));
    }
}

Outcome<json> AllEvents(EngineAccess& engine, const std::string& path) {
    json events = json::array();
    for (std::int64_t last = 0;;) {
        const auto answer = engine.Get(path + "/events?after=" + std::to_string(last));
        if (!answer) return answer.error();
        const json page = answer->value("events", json::array());
        if (page.empty()) return events;
        for (const auto& event : page) events.push_back(event);
        last = answer->value("last", last);
    }
}

std::string TokenOf(const std::string& dataFolder) {
    std::string token =
        platform::ReadWholeFile(Utf8FromPath(PathFromUtf8(dataFolder) / "engine.token")).value_or("");
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) token.pop_back();
    return token;
}

}  // namespace

Outcome<int> Bundle(EngineAccess& engine, const std::string& id, const std::string& file, bool asJson) {
    const std::string path = "/api/v1/tasks/" + EncodeSegment(id);
    const auto task = engine.Get(path);
    if (!task) return task.error();
    const auto events = AllEvents(engine, path);
    if (!events) return events.error();
    const auto health = engine.Get("/api/v1/health");
    if (!health) return health.error();
    Collector collector({TokenOf(engine.DataFolder())});
    json facts = *task;
    facts.erase("text");
    collector.AddText("task.json", Readable(facts));
    collector.AddText("parameters.xml", TextOf(*task, "text"));
    collector.AddText("events.json", Readable(*events));
    collector.AddText("engine.json", Readable(*health));
    collector.AddText("versions.txt", "rqctl " RQ_VERSION "\nrqengine " + TextOf(*health, "version") + "\n");
    for (const auto& attempt : task->value("attempt_list", json::array())) AddAttempt(collector, attempt);
    if (const auto log = TextOf(*health, "log"); !log.empty()) collector.AddFile("", PathFromUtf8(log));
    const auto archive = collector.Finish();
    if (!archive) return Failure(kExitFailed, archive.error().message);
    const std::string target = file.empty() ? PlainName(PathFromUtf8(id)) + "-bundle.tar.gz" : file;
    platform::OsError error;
    if (!platform::CreatePrivateFile(target, *archive, &error))
        return Failure(kExitFailed, "the bundle cannot be written: " + error.message);
    Print(asJson ? json{{"file", target}, {"bytes", archive->size()}}.dump(2) + "\n" : target + "\n");
    return kExitFinished;
}

}  // namespace rq::ctl

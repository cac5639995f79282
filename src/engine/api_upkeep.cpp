// The API's answers to those who look after the node: probes, metrics, removal, backup (docs/api.md).
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "engine/api.h"
#include "engine/json.h"
#include "engine/metrics.h"

namespace rq::engine {

using nlohmann::json;

ApiResponse Api::Healthz() {
    const auto facts = m_host.GetFacts();
    json problems = json::array();
    if (facts.ending) problems.push_back("the engine is ending");
    if (const auto trouble = m_host.SubmitTrouble()) problems.push_back(*trouble);
    if (const auto counts = m_store.CountByState(); !counts) problems.push_back(counts.error().message);
    for (const auto& [type, reason] : facts.held)
        problems.push_back("tasks of type " + std::to_string(type) + " wait: " + reason);
    return MakeResponse(problems.empty() ? 200 : 503,
                        {{"status", problems.empty() ? "ok" : "trouble"}, {"problems", problems}});
}

ApiResponse Api::Metrics() {
    auto census = m_store.Census();
    if (!census) return MakeError(500, "store", census.error().message);
    MetricsFacts facts = m_host.GetMetricsFacts();
    facts.census = std::move(*census);
    ApiResponse response;
    response.body = MetricsText(facts);
    response.headers.emplace_back("Content-Type", "text/plain; version=0.0.4; charset=utf-8");
    return response;
}

void Api::CollectGarbage(const Reply& reply) {
    m_host.CollectGarbage([reply](const Result<GarbageReport>& report) {
        if (!report) {
            reply(MakeError(500, "store", report.error().message));
            return;
        }
        json files = json::object();
        for (const auto& [kind, removed] : report->files)
            files[kind] = {{"files", removed.files}, {"bytes", removed.bytes}};
        reply(MakeResponse(200, {{"removed", files}, {"events", report->events}}));
    });
}

void Api::Backup(const ApiRequest& request, const Reply& reply) {
    const auto refuse = [&](const std::string& why) {
        reply(MakeError(400, "bad-field", "file: " + why, "file"));
    };
    const json document = json::parse(request.body, nullptr, false);
    if (!document.is_object()) {
        reply(MakeError(400, "bad-json", "the body is not a JSON object"));
        return;
    }
    const auto file = document.find("file");
    if (document.size() != 1 || file == document.end() || !file->is_string())
        return refuse("the body must hold it, a text, and nothing else");
    const std::string path = file->get<std::string>();
    if (path.find('\0') != std::string::npos || !PathFromUtf8(path).is_absolute())
        return refuse("must be an absolute path on the engine's machine");
    std::error_code unknown;
    if (std::filesystem::exists(PathFromUtf8(path), unknown)) return refuse(path + " is there already");
    m_host.Backup(path, [reply, path](const Result<std::uint64_t>& bytes) {
        reply(bytes ? MakeResponse(201, {{"file", path}, {"bytes", *bytes}})
                    : MakeError(500, "backup", "no backup was made: " + bytes.error().message));
    });
}

}  // namespace rq::engine

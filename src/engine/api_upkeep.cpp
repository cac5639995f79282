// The API's answers to those who look after the node: probes, metrics, removal, backup (docs/api.md).
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "engine/api.h"
#include "engine/json.h"
#include "engine/metrics.h"
#include "engine/path_probe.h"

namespace rq::engine {

using nlohmann::json;

namespace {

json PathFactsJson(const PathFacts& facts) {
    return {{"reached", facts.isReached},
            {"kind", facts.kind.empty() ? json(nullptr) : json(facts.kind)},
            {"size_bytes", facts.size_bytes ? json(*facts.size_bytes) : json(nullptr)},
            {"readable", facts.isReadable},
            {"problem", facts.problem.empty() ? json(nullptr) : json(facts.problem)}};
}

}  // namespace

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

void Api::TestPath(const Target& target, const Reply& reply) {
    constexpr std::chrono::seconds kLimit(5);
    const auto found = target.query.find("path");
    const std::string given = found == target.query.end() ? "" : found->second;
    if (given.empty() || given.find('\0') != std::string::npos) {
        reply(MakeError(400, "bad-field", "path: must be there, and be a path", "path"));
        return;
    }
    const PathRule* rule = m_host.Paths().RuleFor(given);
    const std::string local = m_host.Paths().Local(given).value_or(given);
    json document = {{"path", given}, {"local", local}, {"rule", nullptr}};
    if (rule != nullptr) document["rule"] = {{"given", rule->given}, {"local", rule->local}};
    if (!PathFromUtf8(local).is_absolute()) {
        document.update(PathFactsJson({false, "", {}, false, "it is no absolute path on this node"}));
        reply(MakeResponse(200, document));
        return;
    }
    ProbePath(m_io, local, kLimit, [reply, document](const PathFacts& facts) {
        json answer = document;
        answer.update(PathFactsJson(facts));
        reply(MakeResponse(200, answer));
    });
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

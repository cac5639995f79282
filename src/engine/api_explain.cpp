// The answer to "why" (docs/api.md).
#include <nlohmann/json.hpp>

#include "engine/api.h"
#include "engine/explain.h"

namespace rq::engine {

namespace {

constexpr std::int64_t kMostMilestones = 500;
constexpr std::int64_t kMostSteps = 5000;

}  // namespace

ApiResponse Api::Explain(std::int64_t task) {
    const auto refuse = [](const Error& error) { return MakeError(500, "store", error.message); };
    ExplainFacts facts;
    facts.now_us = m_store.NowTime();
    auto details = m_store.Details(task);
    if (!details) return refuse(details.error());
    if (!*details) return MakeError(404, "unknown-task", "no task has this ID");
    facts.details = std::move(**details);
    auto milestones = m_store.Milestones(task, kMostMilestones + 1);
    if (!milestones) return refuse(milestones.error());
    facts.isCut = milestones->size() > kMostMilestones;
    if (facts.isCut) milestones->erase(milestones->begin());
    facts.milestones = std::move(*milestones);
    const TaskRow& row = facts.details.task;
    facts.waits = m_host.WhyWaits(row);  // also of one that waits in a package worker's list
    if (row.state == TaskState::Queued) {
        const auto ahead = m_store.Ahead(row);
        if (!ahead) return refuse(ahead.error());
        facts.ahead = *ahead;
    } else if (IsActive(row.state)) {
        auto progress = m_store.ProgressOf(task, kMostSteps);
        if (!progress) return refuse(progress.error());
        facts.progress = std::move(*progress);
        const auto pace = m_store.PaceOf(row.type);
        if (!pace) return refuse(pace.error());
        facts.pace = *pace;
        facts.workers = m_host.GetFacts().workers;
        facts.cores = m_host.GetNodeFacts().cores;
    }
    return MakeResponse(200, ExplainJson(facts));
}

}  // namespace rq::engine

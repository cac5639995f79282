// The answers to orders: to a task, and to the node.
#include <nlohmann/json.hpp>

#include "engine/api.h"
#include "engine/json.h"

namespace rq::engine {

namespace {

using nlohmann::json;

ApiResponse Told(const std::string& id, const OrderOutcome& outcome) {
    return MakeResponse(200, {{"id", id},
                              {"state", outcome.result == "deleted" || outcome.result == "already-deleted"
                                            ? json(nullptr)
                                            : json(NameOf(outcome.state))},
                              {"result", outcome.result},
                              {"changed", outcome.changed},
                              {"message", outcome.message}});
}

}  // namespace

ApiResponse Api::GiveOrder(const ApiRequest& request, const TaskRow& task, StateEvent order) {
    std::string text;
    if (order == StateEvent::Update) {
        auto parsed = ParseUpdate(request.body);
        if (!parsed) return MakeError(400, parsed.error().code, parsed.error().message, parsed.error().field);
        text = std::move(*parsed);
    }
    if (order == StateEvent::Prioritise) {
        const auto priority = ParsePriority(request.body);
        if (!priority)
            return MakeError(400, priority.error().code, priority.error().message, priority.error().field);
        text = std::to_string(*priority);
    }
    const auto outcome = m_host.GiveOrder(task.key, order, text);
    if (!outcome) return MakeError(500, "store", outcome.error().message);
    if (outcome->ending) return MakeError(503, "ending", "the engine is ending; ask the next one");
    if (outcome->refused) return MakeError(409, "wrong-state", outcome->message);
    return Told(task.id, *outcome);
}

std::optional<ApiResponse> Api::DeletedAlready(std::int64_t task) {
    const auto deleted = m_store.WasDeleted(task);
    if (!deleted) return MakeError(500, "store", deleted.error().message);
    if (!*deleted) return std::nullopt;
    const std::string id = "t" + std::to_string(task);
    OrderOutcome outcome;
    outcome.result = "already-deleted";
    outcome.message = id + " has been deleted already";
    return Told(id, outcome);
}

ApiResponse Api::DrainOrGoOn(const ApiRequest& request, bool drain) {
    const auto type = ParseDrain(request.body);
    if (!type) return MakeError(400, type.error().code, type.error().message, type.error().field);
    const auto changed = drain ? m_host.Drain(*type) : m_host.GoOn(*type);
    if (!changed) return MakeError(500, "store", changed.error().message);
    const std::string what = *type == kEveryType ? "tasks" : "tasks of this type";
    const auto facts = m_host.GetFacts();
    const std::string message =
        drain ? "no " + what + " are started; " + std::to_string(facts.workers) + " workers are still there"
              : what + " are started";
    return MakeResponse(200, {{"result", drain ? "drained" : "undrained"},
                              {"changed", *changed},
                              {"workers", facts.workers},
                              {"message", message}});
}

}  // namespace rq::engine

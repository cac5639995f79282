#include "engine/json.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <nlohmann/json.hpp>

#include "records/task_codes.h"

namespace rq::engine {

namespace {

using nlohmann::json;

json TimeJson(const std::optional<std::int64_t>& time_us) {
    return time_us ? json(TimeText(*time_us)) : json(nullptr);
}

template <class T>
json OrNull(const std::optional<T>& value) {
    return value ? json(*value) : json(nullptr);
}

json CodeAndText(std::int64_t code, const std::string& text) {
    return {{"code", code}, {"text", text}};
}

json ExitJson(const AttemptRow& attempt) {
    if (attempt.exitSignal) return {{"signal", *attempt.exitSignal}};
    if (attempt.exitCode) return {{"code", *attempt.exitCode}};
    return attempt.exited_us ? json{{"unknown", true}} : json(nullptr);
}

json TextOrNull(const std::string& text) {
    return text.empty() ? json(nullptr) : json(text);
}

json SharedJson(const AttemptRow& attempt) {
    if (!attempt.sharedTask) return nullptr;
    return {{"task", *attempt.sharedTask}, {"attempt", OrNull(attempt.sharedAttempt)}};
}

json AttemptJson(const AttemptRow& attempt) {
    return {{"number", attempt.number},
            {"state", NameOf(attempt.state)},
            {"session", OrNull(attempt.session)},
            {"pid", OrNull(attempt.processId)},
            {"worker_version", attempt.workerVersion},
            {"worker_guid", attempt.workerGuid},
            {"reported_task", attempt.reportedTask},
            {"created", TimeText(attempt.created_us)},
            {"connected", TimeJson(attempt.connected_us)},
            {"started", TimeJson(attempt.started_us)},
            {"finished", TimeJson(attempt.finished_us)},
            {"last_seen", TimeJson(attempt.lastSeen_us)},
            {"exited", TimeJson(attempt.exited_us)},
            {"exit", ExitJson(attempt)},
            {"percent", attempt.percent},
            {"speed", attempt.speed},
            {"average_speed", attempt.averageSpeed},
            {"status", OrNull(attempt.status)},
            {"detail_error", CodeAndText(attempt.detailErrorCode, attempt.detailErrorText)},
            {"error", CodeAndText(attempt.errorCode, attempt.errorText)},
            {"further_text", attempt.furtherText},
            {"reason", OrNull(attempt.reason)},
            {"output", attempt.output},
            {"worker_of", SharedJson(attempt)},
            {"log", TextOrNull(attempt.log)},
            {"crash_report", TextOrNull(attempt.crashReport)}};
}

}  // namespace

std::string TimeText(std::int64_t time_us) {
    using namespace boost::posix_time;
    const ptime time = ptime(boost::gregorian::date(1970, 1, 1)) + microseconds(time_us);
    std::string text = to_iso_extended_string(time);
    // The library leaves a fraction of zero out.
    if (text.find('.') == std::string::npos) text += ".000000";
    return text + "Z";
}

json WaitJson(const WaitReason& reason) {
    return {{"rule", reason.rule},
            {"text", reason.text},
            {"until", TimeJson(reason.until_us)},
            {"limit", OrNull(reason.limit)},
            {"present", OrNull(reason.present)},
            {"unit", TextOrNull(reason.unit)}};
}

json NodeJson(const NodeFacts& facts) {
    const auto ofAll = [](std::int64_t taken, std::int64_t all) {
        return json{{"declared", taken}, {"limit", all == 0 ? json(nullptr) : json(all)}};
    };
    json volumes = json::array();
    for (const auto& [name, volume] : facts.volumes)
        volumes.push_back({{"name", name},
                           {"path", volume.path},
                           {"away", OrNull(volume.away)},
                           {"size_bytes", volume.size_bytes},
                           {"free_bytes", volume.free_bytes},
                           {"floor_bytes", volume.floor_bytes}});
    return {{"memory_mib", ofAll(facts.taken.memory_MiB, facts.memory_MiB)},
            {"cores", ofAll(facts.taken.cores, facts.cores)},
            {"volumes", volumes}};
}

json StopJson(const TypeStop& stop) {
    const std::string code(CodeOfTaskType(stop.type));
    return {{"type", stop.type == kEveryType ? json(nullptr) : json(stop.type)},
            {"type_code", code.empty() ? json(nullptr) : json(code)},
            {"failures", stop.failures},
            {"since", TimeText(stop.since_us)},
            {"until", TimeJson(stop.until_us)},
            {"reason", stop.reason}};
}

json TaskJson(const TaskRow& task) {
    const std::string code(CodeOfTaskType(task.type));
    return {{"id", task.id},
            {"type", task.type == kUnknownType ? json(nullptr) : json(task.type)},
            {"type_code", code.empty() ? json(nullptr) : json(code)},
            {"name", task.name},
            {"origin", task.origin},
            {"state", NameOf(task.state)},
            {"reason", OrNull(task.reason)},
            {"created", TimeText(task.created_us)},
            {"started", TimeJson(task.started_us)},
            {"finished", TimeJson(task.finished_us)},
            {"cancel_requested", TimeJson(task.cancelRequested_us)},
            {"not_before", TimeJson(task.notBefore_us)},
            {"suspended", TimeJson(task.suspended_us)},
            {"priority", task.priority},
            {"deadline", TimeJson(task.deadline_us)},
            {"deadline_action", task.cancelAtDeadline ? "cancel" : "none"},
            {"memory_mib", task.demand.memory_MiB == 0 ? json(nullptr) : json(task.demand.memory_MiB)},
            {"cores", task.demand.cores == 0 ? json(nullptr) : json(task.demand.cores)},
            {"volumes", task.demand.volumes},
            {"key", TextOrNull(task.clientKey)},
            {"attempts", task.attempts},
            {"percent", task.percent},
            {"speed", task.speed},
            {"average_speed", task.averageSpeed},
            {"status", OrNull(task.status)}};
}

json DetailsJson(const TaskDetails& details) {
    json all = TaskJson(details.task);
    all["text"] = details.text;
    all["last_event"] = details.lastEvent;
    all["result"] = details.result ? json::parse(*details.result, nullptr, false) : json(nullptr);
    all["attempt_list"] = json::array();
    for (const auto& attempt : details.attempts) all["attempt_list"].push_back(AttemptJson(attempt));
    return all;
}

json EventJson(const EventRow& event) {
    return {{"id", event.key},
            {"time", TimeText(event.time_us)},
            {"attempt", OrNull(event.attemptNumber)},
            {"kind", event.kind},
            {"data", json::parse(event.json, nullptr, false)}};
}

json ErrorJson(const std::string& code, const std::string& message, const std::string& field) {
    json error = {{"code", code}, {"message", message}, {"field", nullptr}};
    if (!field.empty()) error["field"] = field;
    return {{"error", error}};
}

std::string Dump(const json& document) {
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace rq::engine

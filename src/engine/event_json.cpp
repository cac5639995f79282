// The data of events, and task results, as JSON texts.
#include <nlohmann/json.hpp>

#include "engine/json.h"
#include "records/engine_messages.h"

namespace rq::engine {

namespace {

using nlohmann::json;

const char* VerificationName(std::int32_t verification) {
    return verification == kEqual ? "equal" : verification == kDifferent ? "different" : "not-compared";
}

json VerificationJson(const VerificationEntry& entry) {
    return {{"first", entry.first},
            {"second", entry.second},
            {"first_md5", entry.firstMd5},
            {"second_md5", entry.secondMd5},
            {"verification", VerificationName(entry.verification)}};
}

json VerificationsJson(const std::vector<VerificationEntry>& entries) {
    json all = json::array();
    for (const auto& entry : entries) all.push_back(VerificationJson(entry));
    return all;
}

json Md5Json(const stMD5TaskResult& result) {
    json files = json::array();
    for (const auto& file : result.files) {
        files.push_back({{"mode", file.mode == 1 ? "computation" : "verification"},
                         {"first", file.first},
                         {"second", file.second},
                         {"first_md5", file.firstMd5},
                         {"second_md5", file.secondMd5},
                         {"verification", VerificationName(file.verification)},
                         {"computed_md5", file.computedMd5}});
    }
    return {{"kind", "md5"}, {"files", files}};
}

json TransferJson(const stTransferTaskResult& result) {
    json outputs = json::array();
    for (const auto& output : result.outputs) {
        outputs.push_back({{"kind", output.kind},
                           {"first", output.first},
                           {"second", output.second},
                           {"size_bytes", output.size_bytes},
                           {"format_xml", output.formatXml},
                           {"further_text", output.furtherText}});
    }
    return {{"kind", "transfer"},
            {"verifications", VerificationsJson(result.verifications)},
            {"outputs", outputs}};
}

json TranscodeJson(const stTranscodeTaskResult& result) {
    json outputs = json::array();
    for (const auto& output : result.outputs) {
        outputs.push_back({{"first", output.first},
                           {"second", output.second},
                           {"value1", output.value1},
                           {"value2", output.value2},
                           {"value64", output.value64},
                           {"format_xml", output.formatXml}});
    }
    return {{"kind", "transcode"},
            {"verifications", VerificationsJson(result.verifications)},
            {"outputs", outputs}};
}

}  // namespace

std::string SubmittedEventJson(const NewTask& task) {
    json data = {{"type", task.type}, {"origin", task.origin}};
    if (task.priority != kStandardPriority) data["priority"] = task.priority;
    if (task.notBefore_us) data["not_before"] = TimeText(*task.notBefore_us);
    if (task.deadline_us) data["deadline"] = TimeText(*task.deadline_us);
    if (task.demand.memory_MiB != 0) data["memory_mib"] = task.demand.memory_MiB;
    if (task.demand.cores != 0) data["cores"] = task.demand.cores;
    if (!task.demand.volumes.empty()) data["volumes"] = task.demand.volumes;
    return Dump(data);
}

std::string StateEventJson(TaskState state, const std::optional<std::string>& reason) {
    return Dump({{"state", NameOf(state)}, {"reason", reason ? json(*reason) : json(nullptr)}});
}

std::string ClaimedEventJson(std::int32_t number) {
    return Dump({{"number", number}});
}

std::string AddedEventJson(const std::string& task) {
    return Dump({{"after", task}});
}

std::string ProcessEventJson(std::uint64_t processId) {
    return Dump({{"pid", processId}});
}

std::string ConnectedEventJson(std::uint32_t session, std::uint64_t processId, const std::string& version) {
    return Dump({{"session", session}, {"pid", processId}, {"version", version}});
}

std::string NoticeEventJson(const std::string& taskId, const std::string& guid) {
    return Dump({{"task_id", taskId}, {"worker_guid", guid}});
}

std::string StatusEventJson(std::uint32_t status) {
    return Dump({{"status", status}});
}

std::string ProgressEventJson(const ProgressFigures& figures) {
    return Dump(
        {{"percent", figures.percent}, {"speed", figures.speed}, {"average_speed", figures.averageSpeed}});
}

std::string OrderEventJson(std::uint32_t id) {
    return Dump({{"id", id}});
}

std::string ReplyEventJson(std::uint32_t id, const std::string& resultCode, const std::string& message) {
    return Dump({{"id", id}, {"result_code", resultCode}, {"message", message}});
}

std::string CancelEventJson(const std::string& by) {
    return Dump({{"by", by}});
}

std::string FinalEventJson(const FinalStatus& final) {
    json data = {{"status", final.status},
                 {"detail_error", {{"code", final.detailErrorCode}, {"text", final.detailErrorText}}},
                 {"error", {{"code", final.errorCode}, {"text", final.errorText}}},
                 {"further_text", final.furtherText}};
    if (final.stalled) data["stalled"] = true;
    return Dump(data);
}

std::string ExitEventJson(const WorkerExit& exit) {
    if (!exit.isKnown) return Dump({{"unknown", true}});
    return Dump({{exit.signalled ? "signal" : "code", exit.code}});
}

nlohmann::json MappedPathsJson(const std::vector<MappedPath>& paths) {
    json list = json::array();
    for (const auto& path : paths) list.push_back({{"given", path.given}, {"local", path.local}});
    return list;
}

std::string PathsEventJson(const std::vector<MappedPath>& paths) {
    constexpr std::size_t kMost = 20;
    const std::vector<MappedPath> first(
        paths.begin(), paths.begin() + static_cast<std::ptrdiff_t>(std::min(paths.size(), kMost)));
    return Dump({{"count", paths.size()}, {"paths", MappedPathsJson(first)}});
}

std::string ReasonEventJson(const std::string& reason) {
    return Dump({{"reason", reason}});
}

std::string VerdictEventJson(const std::string& rule, const std::string& reason) {
    return Dump({{"rule", rule}, {"reason", reason}});
}

std::string RepeatEventJson(const std::string& rule, const std::optional<std::int64_t>& notBefore_us) {
    json data = {{"rule", rule}};
    if (notBefore_us) data["not_before"] = TimeText(*notBefore_us);
    return Dump(data);
}

std::string AskedEventJson(StateEvent order, const std::string& by) {
    return Dump({{"order", NameOf(order)}, {"by", by}});
}

std::string PriorityEventJson(const std::string& by, std::int32_t priority) {
    return Dump({{"order", NameOf(StateEvent::Prioritise)}, {"by", by}, {"priority", priority}});
}

std::string DeadlineEventJson(std::int64_t deadline_us, const std::string& action) {
    return Dump({{"deadline", TimeText(deadline_us)}, {"action", action}});
}

std::string StoppedEventJson(const TypeStop& stop) {
    return Dump(StopJson(stop));
}

std::optional<std::string> FinalReason(const FinalStatus& final) {
    if (final.status == kTaskFinished) return std::nullopt;
    if (final.status == kTaskCancelled) return "the worker cancelled the task";
    std::string reason = final.errorText;
    const std::string& detail = final.detailErrorText;
    const std::string& further = final.furtherText;
    if (!detail.empty()) reason += (reason.empty() ? "" : ": ") + detail;
    if (!further.empty() && further != detail) reason += (reason.empty() ? "" : ": ") + further;
    return reason.empty() ? "the worker reported an error without a text" : reason;
}

std::string ResultJson(const stTaskResultBase* result) {
    if (const auto* md5 = dynamic_cast<const stMD5TaskResult*>(result)) return Dump(Md5Json(*md5));
    if (const auto* transfer = dynamic_cast<const stTransferTaskResult*>(result))
        return Dump(TransferJson(*transfer));
    if (const auto* transcode = dynamic_cast<const stTranscodeTaskResult*>(result))
        return Dump(TranscodeJson(*transcode));
    return {};
}

}  // namespace rq::engine

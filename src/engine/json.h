// Every JSON text that the engine makes: the data of events, task results, and the documents of the API
// (docs/api.md). Pure functions; any thread. Bytes that are not UTF-8 become U+FFFD.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/node_facts.h"
#include "engine/path_map.h"
#include "engine/store_types.h"
#include "records/task_results.h"

namespace rq::engine {

// ---- data of events ----
std::string SubmittedEventJson(const NewTask& task);
std::string StateEventJson(TaskState state, const std::optional<std::string>& reason);
std::string ClaimedEventJson(std::int32_t number);
std::string AddedEventJson(const std::string& task);
std::string ProcessEventJson(std::uint64_t processId);
std::string ConnectedEventJson(std::uint32_t session, std::uint64_t processId, const std::string& version);
std::string NoticeEventJson(const std::string& taskId, const std::string& guid);
std::string StatusEventJson(std::uint32_t status);
std::string ProgressEventJson(const ProgressFigures& figures);
std::string OrderEventJson(std::uint32_t id);
std::string ReplyEventJson(std::uint32_t id, const std::string& resultCode, const std::string& message);
std::string CancelEventJson(const std::string& by);
std::string FinalEventJson(const FinalStatus& final);
std::string ExitEventJson(const WorkerExit& exit);
std::string ReasonEventJson(const std::string& reason);
// `rule` names what the engine went by.
std::string VerdictEventJson(const std::string& rule, const std::string& reason);
std::string RepeatEventJson(const std::string& rule, const std::optional<std::int64_t>& notBefore_us);
std::string AskedEventJson(StateEvent order, const std::string& by);
// The first 20 of them.
std::string PathsEventJson(const std::vector<MappedPath>& paths);
std::string StoppedEventJson(const TypeStop& stop);
std::string PriorityEventJson(const std::string& by, std::int32_t priority);
// `action`: "failed", "cancel" or "none".
std::string DeadlineEventJson(std::int64_t deadline_us, const std::string& action);

// Why a task with this final status failed or was cancelled, in words; nothing for a finished one.
std::optional<std::string> FinalReason(const FinalStatus& final);

// ---- results ----
// Empty for null.
std::string ResultJson(const stTaskResultBase* result);

// ---- documents of the API ----
// "2025-01-31T10:00:00.123456Z"
std::string TimeText(std::int64_t time_us);
nlohmann::json MappedPathsJson(const std::vector<MappedPath>& paths);
nlohmann::json WaitJson(const WaitReason& reason);
nlohmann::json NodeJson(const NodeFacts& facts);
nlohmann::json StopJson(const TypeStop& stop);
nlohmann::json TaskJson(const TaskRow& task);
nlohmann::json DetailsJson(const TaskDetails& details);
nlohmann::json EventJson(const EventRow& event);
nlohmann::json ErrorJson(const std::string& code, const std::string& message, const std::string& field);
// One line.
std::string Dump(const nlohmann::json& json);

}  // namespace rq::engine

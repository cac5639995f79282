#include "engine/explain.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "engine/json.h"
#include "records/engine_messages.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

using nlohmann::json;

constexpr std::int64_t kSecond_us = 1'000'000;
// Below half of what others of its type had, a task is slow; a percentage that stands for a minute is a
// stall.
constexpr double kSlow = 0.5;
constexpr std::int64_t kStall_us = 60 * kSecond_us;

std::string Text(const json& data, const char* name) {
    const auto found = data.find(name);
    if (found == data.end() || found->is_null()) return {};
    return found->is_string() ? found->get<std::string>() : Dump(*found);
}

std::string After(const std::string& lead, const std::string& text) {
    return text.empty() ? "" : lead + text;
}

std::string Number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string Seconds(std::int64_t duration_us) {
    return std::to_string(std::max<std::int64_t>(0, duration_us) / kSecond_us) + " s";
}

std::string TypeText(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

// Where the limit of a verdict is set.
std::string SettingOf(const std::string& rule) {
    constexpr struct {
        std::string_view rule, setting;
    } kSettings[] = {{"no-connection", "connect_s in [limits]"},
                     {"ignored-cancel", "cancel_s in [limits]"},
                     {"ignored-finish", "finish_s in [limits]"},
                     {"no-exit", "destroy_s in [limits]"},
                     {"connection-lost", "resume_s and link_grace_s in [limits]"},
                     {"engine-end", "end_s in [limits]"},
                     {"no-heartbeat", "the heartbeat interval in the stage's actor.xml"}};
    for (const auto& one : kSettings) {
        if (one.rule == rule) return std::string(one.setting);
    }
    return {};
}

std::string OrderName(std::int64_t id) {
    switch (id) {
        case TCP_TASK_CANCEL_ID:
            return "to cancel";
        case TCP_TASK_SUSPEND_ID:
            return "to pause";
        case TCP_TASK_RESUME_ID:
            return "to go on";
        case TCP_TASK_FINISH_ID:
            return "to finish";
        case TCP_TASK_UPDATE_ID:
            return "with the new text";
        case TCP_WORKER_DESTROY_ID:
            return "to exit";
        default:
            return std::to_string(id);
    }
}

std::string StatusName(std::int64_t status) {
    switch (status) {
        case kTaskFinished:
            return "finished";
        case kTaskRunning:
            return "running";
        case kTaskError:
            return "error";
        case kTaskCancelled:
            return "cancelled";
        case kTaskPaused:
            return "paused";
        default:
            return std::to_string(status);
    }
}

std::string FinalText(const json& data) {
    const auto part = [&](const char* name) {
        const auto found = data.find(name);
        if (found == data.end() || !found->is_object() || found->value("code", std::int64_t{0}) == 0)
            return std::string();
        return ", code " + Text(*found, "code") + After(" ", Text(*found, "text"));
    };
    return StatusName(data.value("status", std::int64_t{-1})) + part("error") + part("detail_error");
}

std::string StallText(const json& data) {
    return data.value("stalled", false) ? "; the worker closed it, since its progress stood for longer than "
                                          "ProgressPatrolTimeout in the "
                                          "stage's actor.xml allows"
                                        : "";
}

std::string ExitText(const json& data) {
    if (data.contains("signal")) return "by signal " + Text(data, "signal");
    if (data.contains("code")) return "with exit code " + Text(data, "code");
    return "while no engine could see how";
}

std::string DeadlineText(const json& data) {
    const std::string action = Text(data, "action");
    return "its deadline " + Text(data, "deadline") + " passed" +
           (action == "cancel" ? ": it is cancelled, as was asked for"
            : action == "none" ? "; it goes on"
                               : "");
}

void Add(json& list, const std::string& rule, const std::string& text) {
    list.push_back({{"rule", rule}, {"text", text}});
}

struct Steps {
    std::int64_t lastChange_us = 0, longest_us = 0;
};

// When the percentage moved last, and how long it stood at most.
Steps StepsOf(const ExplainFacts& facts, std::int64_t began_us) {
    Steps steps;
    steps.lastChange_us = began_us;
    double percent = 0;
    for (const auto& event : facts.progress) {
        const json data = json::parse(event.json, nullptr, false);
        const double now = data.is_object() ? data.value("percent", 0.0) : 0;
        if (now == percent) continue;
        steps.longest_us = std::max(steps.longest_us, event.time_us - steps.lastChange_us);
        steps.lastChange_us = event.time_us;
        percent = now;
    }
    steps.longest_us = std::max(steps.longest_us, facts.now_us - steps.lastChange_us);
    return steps;
}

json PaceJson(const ExplainFacts& facts) {
    const TaskRow& task = facts.details.task;
    if (!IsActive(task.state) || facts.details.attempts.empty()) return nullptr;
    const AttemptRow& attempt = facts.details.attempts.back();
    json findings = json::array();
    if (facts.pace.tasks > 0 && task.speed > 0) {
        const std::string compared = "its speed is " + Number(task.speed) + "; the latest " +
                                     std::to_string(facts.pace.tasks) + " finished tasks of type " +
                                     TypeText(task.type) + " on this node had " + Number(facts.pace.speed) +
                                     " on average";
        Add(findings, task.speed < kSlow * facts.pace.speed ? "slow" : "speed", compared);
    }
    if (facts.cores > 0)
        Add(findings, static_cast<std::int64_t>(facts.workers) > facts.cores ? "shared-cores" : "cores",
            std::to_string(facts.workers) + " workers run on " + std::to_string(facts.cores) +
                " processor cores" +
                (task.demand.cores != 0 ? "; it declared " + std::to_string(task.demand.cores) : ""));
    Steps steps;
    if (task.state == TaskState::Running && attempt.started_us) {
        steps = StepsOf(facts, *attempt.started_us);
        const std::int64_t stands_us = facts.now_us - steps.lastChange_us;
        if (stands_us >= kStall_us)
            Add(findings, "stalls", "its percentage has not moved for " + Seconds(stands_us));
        else if (steps.longest_us >= kStall_us)
            Add(findings, "stalled", "its percentage once stood still for " + Seconds(steps.longest_us));
    }
    if (task.deadline_us && *task.deadline_us <= facts.now_us)
        Add(findings, "deadline", "its deadline " + TimeText(*task.deadline_us) + " has passed");
    return {{"speed", task.speed},
            {"type_speed", facts.pace.tasks > 0 ? json(facts.pace.speed) : json(nullptr)},
            {"type_tasks", facts.pace.tasks},
            {"workers", facts.workers},
            {"cores", facts.cores},
            {"last_step", steps.lastChange_us == 0 ? json(nullptr) : json(TimeText(steps.lastChange_us))},
            {"longest_pause_s", steps.longest_us / kSecond_us},
            {"findings", findings}};
}

// What decided how each attempt, and the task, ended.
json BecauseJson(const ExplainFacts& facts) {
    json because = json::array();
    for (const auto& event : facts.milestones) {
        const json data = json::parse(event.json, nullptr, false);
        if (!data.is_object()) continue;
        const std::string attempt =
            event.attemptNumber ? "attempt " + std::to_string(*event.attemptNumber) + ": " : "";
        if (event.kind == "killed") {
            const std::string rule = Text(data, "rule");
            Add(because, rule, attempt + Text(data, "reason") + After("; the limit is ", SettingOf(rule)));
        } else if (event.kind == "final" && data.value("status", -1) != kTaskFinished) {
            Add(because, "final", attempt + "its worker reported " + FinalText(data) + StallText(data));
        } else if (event.kind == "lost" || event.kind == "unsaid") {
            Add(because, event.kind, attempt + Text(data, "reason"));
        } else if (event.kind == "repeat" || event.kind == "no-repeat") {
            Add(because, event.kind,
                attempt + (event.kind == "repeat" ? "repeated: " : "not repeated: ") + Text(data, "rule"));
        } else if (event.kind == "cancel-requested") {
            Add(because, "cancel", "a cancel was asked for by " + Text(data, "by"));
        } else if (event.kind == "deadline") {
            Add(because, "deadline", DeadlineText(data));
        } else if (event.kind == "type-stopped") {
            Add(because, "type-stopped", Text(data, "reason"));
        }
    }
    return because;
}

std::string Summary(const ExplainFacts& facts) {
    const TaskRow& task = facts.details.task;
    const std::string is = task.id + " is " + std::string(NameOf(task.state));
    if (task.state == TaskState::Queued) {
        if (!facts.waits.empty()) return is + " and waits: " + facts.waits.front().text;
        return is + (facts.ahead == 0 ? " and next" : " behind " + std::to_string(facts.ahead) + " others");
    }
    if (IsActive(task.state)) {
        if (!facts.waits.empty()) return is + " and waits: " + facts.waits.front().text;
        char percent[32];
        std::snprintf(percent, sizeof percent, "%.1f", task.percent);
        const bool runs = task.state == TaskState::Running;
        return is + (runs ? std::string(", ") + percent + " %" : "") +
               (task.started_us ? ", since " + TimeText(*task.started_us) : "");
    }
    const std::string took =
        task.started_us && task.finished_us ? " after " + Seconds(*task.finished_us - *task.started_us) : "";
    return is + took + After(": ", task.reason.value_or(""));
}

}  // namespace

std::string SentenceOf(const EventRow& event) {
    const json data = json::parse(event.json, nullptr, false);
    if (!data.is_object()) return {};
    const std::string& kind = event.kind;
    if (kind == "submitted") return "submitted";
    if (kind == "state") return "is " + Text(data, "state") + After(": ", Text(data, "reason"));
    if (kind == "claimed") return "attempt " + Text(data, "number") + " was made";
    if (kind == "worker-started") return "worker " + Text(data, "pid") + " was started";
    if (kind == "connected") return "worker " + Text(data, "pid") + " connected";
    if (kind == "notice") return "the worker announced task \"" + Text(data, "task_id") + "\"";
    if (kind == "status") return "the worker reported " + StatusName(data.value("status", std::int64_t{-1}));
    if (kind == "unknown-status")
        return "the worker reported status " + Text(data, "status") + ", which no task has";
    if (kind == "order")
        return "the worker was given the order " + OrderName(data.value("id", std::int64_t{0}));
    if (kind == "reply")
        return "the worker answered " + Text(data, "result_code") + After(": ", Text(data, "message"));
    if (kind == "cancel-requested") return "a cancel was asked for by " + Text(data, "by");
    if (kind == "asked") return Text(data, "order") + " was asked for by " + Text(data, "by");
    if (kind == "final") return "the worker reported its final status: " + FinalText(data);
    if (kind == "late-status")
        return "a second final status came too late and changed nothing: " + FinalText(data);
    if (kind == "disconnected") return "the connection ended: " + Text(data, "reason");
    if (kind == "killed")
        return "the worker was ended, rule " + Text(data, "rule") + ": " + Text(data, "reason");
    if (kind == "interrupted") return "the session was interrupted: " + Text(data, "reason");
    if (kind == "resumed") return "worker " + Text(data, "pid") + " went on with its session";
    if (kind == "worker-exited") return "the worker ended " + ExitText(data);
    if (kind == "lost") return "the attempt was lost: " + Text(data, "reason");
    if (kind == "start-undone")
        return "the attempt had done nothing and does not count: " + Text(data, "reason");
    if (kind == "added") return "it went into the list of a worker, behind " + Text(data, "after");
    if (kind == "put-back") return "it was put back into the queue: " + Text(data, "reason");
    if (kind == "unsaid") return "the attempt ended unsaid: " + Text(data, "reason");
    if (kind == "repeat")
        return "another attempt is made, not before " + Text(data, "not_before") + ": " + Text(data, "rule");
    if (kind == "no-repeat") return "no other attempt is made: " + Text(data, "rule");
    if (kind == "type-stopped") return "its type was stopped: " + Text(data, "reason");
    if (kind == "late-worker") return "worker " + Text(data, "pid") + " came too late and was told to stop";
    if (kind == "deadline") return DeadlineText(data);
    return kind + (data.empty() ? "" : " " + Dump(data));
}

json ExplainJson(const ExplainFacts& facts) {
    const TaskRow& task = facts.details.task;
    const bool isQueued = task.state == TaskState::Queued;
    json waits = json::array();
    for (const auto& reason : facts.waits) waits.push_back(WaitJson(reason));
    json history = json::array();
    for (const auto& event : facts.milestones) {
        const std::string text = SentenceOf(event);
        if (text.empty()) continue;
        history.push_back({{"time", TimeText(event.time_us)},
                           {"attempt", event.attemptNumber ? json(*event.attemptNumber) : json(nullptr)},
                           {"text", text}});
    }
    // Events go with age; what became of each attempt stays.
    json attempts = json::array();
    for (const auto& attempt : facts.details.attempts) {
        attempts.push_back({{"number", attempt.number},
                            {"state", NameOf(attempt.state)},
                            {"reason", attempt.reason ? json(*attempt.reason) : json(nullptr)}});
    }
    return {{"id", task.id},
            {"state", NameOf(task.state)},
            {"summary", Summary(facts)},
            {"waits", waits},
            {"ahead", isQueued ? json(facts.ahead) : json(nullptr)},
            {"pace", PaceJson(facts)},
            {"because", BecauseJson(facts)},
            {"attempts", attempts},
            {"history", history},
            {"history_is_cut", facts.isCut || facts.milestones.empty()}};
}

}  // namespace rq::engine

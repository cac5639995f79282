// Orders: what the store decides and what a worker is told; why a task waits.
#include <algorithm>
#include <filesystem>
#include <limits>

#include "base/paths.h"
#include "engine/json.h"
#include "engine/scheduler.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

std::string TypeText(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

// Looked at again at least this often, in case the clock was put on or back.
constexpr std::chrono::microseconds kLongestSleep = std::chrono::seconds(60);

// By something else than the state.
OrderOutcome Refusal(const TaskRow& task, StateEvent order, const std::string& message) {
    OrderOutcome outcome;
    outcome.refused = true;
    outcome.state = task.state;
    outcome.message = RefusalText(task.id, task.state, order) + "; " + message;
    return outcome;
}

OrderOutcome Deaf(const TaskRow& task, StateEvent order) {
    return Refusal(task, order, "its worker is not connected: try again when it is");
}

OrderOutcome Unchanged(const TaskRow& task, const std::string& result, const std::string& message) {
    OrderOutcome outcome;
    outcome.state = task.state;
    outcome.result = result;
    outcome.message = task.id + message;
    return outcome;
}

}  // namespace

Result<OrderOutcome> Scheduler::Order(std::int64_t task, StateEvent order, const std::string& by,
                                      const std::string& text) {
    // Its attempts are the next engine's already.
    if (m_left) {
        OrderOutcome outcome;
        outcome.ending = true;
        return outcome;
    }
    switch (order) {
        case StateEvent::Cancel:
            return Cancel(task, by);
        case StateEvent::Suspend:
            return Suspend(task, by);
        case StateEvent::Resume:
            return Resume(task, by);
        case StateEvent::Finish:
            return FinishTask(task, by);
        case StateEvent::Update:
            return Update(task, by, text);
        case StateEvent::Prioritise:
            return m_store.SetPriority(task, by,
                                       static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10)));
        case StateEvent::Delete:
            return Delete(task);
        case StateEvent::Retry: {
            auto outcome = m_store.Retry(task, by);
            if (outcome && outcome->changed) Pump();
            return outcome;
        }
        default:
            return Fail("no order");
    }
}

Scheduler::Run* Scheduler::Listening(std::int64_t task, bool toEnd) {
    Run* run = FindTask(task);
    return run != nullptr && IsReachable(*run, toEnd) && !run->final && !run->exit ? run : nullptr;
}

Result<OrderOutcome> Scheduler::Cancel(std::int64_t task, const std::string& by) {
    auto outcome = m_store.Cancel(task, by, "cancelled before it started");
    if (!outcome || !outcome->send) return outcome;
    if (Run* list = FindListed(task)) {
        list->nextCancelled = true;
        return outcome;
    }
    Run* run = FindTask(task);
    if (run == nullptr || run->final || run->exit) return outcome;
    if (!run->connected)
        Kill(*run, "cancelled", "cancelled before its worker connected");
    else
        SendCancel(*run);
    return outcome;
}

// Between an order to the worker and its answer the later order counts, not the state.
Result<OrderOutcome> Scheduler::Suspend(std::int64_t task, const std::string& by) {
    const auto row = m_store.Task(task);
    if (!row) return row.error();
    Run* run = Listening(task);
    if (*row && (*row)->state == TaskState::Running) {
        if (run == nullptr) return Deaf(**row, StateEvent::Suspend);
        if (run->pauseSent) return Unchanged(**row, "requested", " is told to pause already");
    }
    auto outcome = m_store.Suspend(task, by, run != nullptr && run->resumeSent);
    if (!outcome || !outcome->send) return outcome;
    run->pauseSent = true;
    run->resumeSent = false;
    run->paused = true;
    SendCommand(*run, TCP_TASK_SUSPEND_ID, "suspend");
    return outcome;
}

Result<OrderOutcome> Scheduler::Resume(std::int64_t task, const std::string& by) {
    const auto row = m_store.Task(task);
    if (!row) return row.error();
    Run* run = Listening(task);
    if (*row && ((*row)->state == TaskState::Running || (*row)->state == TaskState::Paused)) {
        if (run == nullptr) return Deaf(**row, StateEvent::Resume);
        if (run->resumeSent) return Unchanged(**row, "requested", " is told to go on already");
        if ((*row)->state == TaskState::Running && !run->pauseSent)
            return Unchanged(**row, "not-suspended", " is not suspended");
    }
    auto outcome = m_store.Resume(task, by);
    if (!outcome) return outcome;
    if (outcome->send) {
        run->pauseSent = false;
        run->resumeSent = true;
        run->paused = false;
        SendCommand(*run, TCP_TASK_RESUME_ID, "resume");
    } else if (outcome->changed) {
        Pump();
    }
    return outcome;
}

Result<OrderOutcome> Scheduler::FinishTask(std::int64_t task, const std::string& by) {
    const auto row = m_store.Task(task);
    if (!row) return row.error();
    Run* run = Listening(task, true);
    if (run == nullptr && *row && ((*row)->state == TaskState::Running || (*row)->state == TaskState::Paused))
        return Deaf(**row, StateEvent::Finish);
    auto outcome = m_store.FinishTask(task, by);
    if (outcome && outcome->send) SendFinish(*run);
    return outcome;
}

Result<OrderOutcome> Scheduler::Update(std::int64_t task, const std::string& by, const std::string& text) {
    const auto row = m_store.Task(task);
    if (!row) return row.error();
    Run* run = Listening(task);
    if (run == nullptr && *row && ((*row)->state == TaskState::Running || (*row)->state == TaskState::Paused))
        return Deaf(**row, StateEvent::Update);
    // The text could take the place of the next task's, when that is analysed before the worker looks at it.
    const bool isAlone = run == nullptr || !run->next;
    auto outcome = m_store.Update(task, by, text, isAlone);
    if (!outcome || !outcome->send) return outcome;
    Give(*run, TCP_TASK_UPDATE_ID, link::TaskTextOrder{m_settings.paths.Apply(text), 0});
    run->asked.push_back({TCP_TASK_UPDATE_REPLY_ID, run->claim.token});
    return outcome;
}

Result<OrderOutcome> Scheduler::Delete(std::int64_t task) {
    const Run* run = FindTask(task);
    // The next engine finds a package worker by its first attempt.
    const bool isFirst = std::any_of(m_runs.begin(), m_runs.end(), [task](const auto& entry) {
        return IsPackage(*entry.second) && entry.second->firstTask == task;
    });
    if ((run != nullptr && run->final) || isFirst) {
        const auto row = m_store.Task(task);
        if (!row) return row.error();
        if (*row && IsEnded((*row)->state))
            return Refusal(**row, StateEvent::Delete, "its worker has not ended yet: try again");
    }
    std::vector<std::string> outputs;
    auto outcome = m_store.Delete(task, outputs);
    if (!outcome || !outcome->changed) return outcome;
    for (const auto& file : outputs) {
        std::error_code ignored;
        std::filesystem::remove(PathFromUtf8(file), ignored);
    }
    m_log.Info(outcome->message);
    return outcome;
}

// ---- what is not started ----

Result<bool> Scheduler::Drain(std::int32_t type, const std::string& by) {
    return m_store.Stop(
        type, type == kEveryType ? "drained by " + by : "type " + TypeText(type) + " drained by " + by);
}

Result<bool> Scheduler::GoOn(std::int32_t type) {
    auto changed = m_store.Unstop(type);
    if (changed && *changed) Pump();
    return changed;
}

std::set<std::int64_t> Scheduler::BusyTasks() const {
    std::set<std::int64_t> tasks;
    for (const auto& [token, run] : m_runs) {
        // The other tasks with a worker are not queued.
        if (run->final && !IsKept(*run)) tasks.insert(run->claim.task);
    }
    return tasks;
}

bool Scheduler::IsReleased(std::int32_t type, const std::vector<TypeStop>& stops) const {
    const auto stop =
        std::find_if(stops.begin(), stops.end(), [type](const TypeStop& one) { return one.type == type; });
    if (stop == stops.end()) return true;
    if (!stop->until_us || m_store.NowTime() < *stop->until_us) return false;
    // One is tried, when no other of its type is under way.
    return std::none_of(m_runs.begin(), m_runs.end(), [type](const auto& entry) {
        return entry.second->claim.type == type && !entry.second->final;
    });
}

void Scheduler::WakeWhenDue() {
    const auto stops = m_store.Stops();
    const auto now = m_store.NowTime();
    std::int64_t left_us = std::numeric_limits<std::int64_t>::max();
    if (const auto due = m_store.NextDue(); due && *due) left_us = **due - now;
    for (const auto& stop : stops ? *stops : std::vector<TypeStop>()) {
        if (stop.until_us && *stop.until_us > now) left_us = std::min(left_us, *stop.until_us - now);
    }
    m_wake.cancel();
    if (left_us == std::numeric_limits<std::int64_t>::max()) return;
    m_wake.expires_after(std::min(std::chrono::microseconds(left_us), kLongestSleep));
    m_wake.async_wait([this](const boost::system::error_code& error) {
        if (!error) Pump();
    });
}

void Scheduler::LogStops(const std::vector<TypeStop>& stops) {
    std::set<std::int32_t> types;
    for (const auto& stop : stops) {
        types.insert(stop.type);
        if (!m_loggedStops.contains(stop.type)) m_log.Warn("not started any more: " + stop.reason);
    }
    for (const auto type : m_loggedStops) {
        if (!types.contains(type))
            m_log.Info(type == kEveryType ? "tasks are started again"
                                          : "tasks of type " + TypeText(type) + " are started again");
    }
    m_loggedStops = std::move(types);
}

std::vector<WaitReason> Scheduler::WhyWaits(const TaskRow& task) {
    std::vector<WaitReason> reasons;
    if (const Run* list = FindListed(task.key))
        reasons.push_back({"package-list",
                           "in the list of worker " + std::to_string(list->life.processId) + ", behind " +
                               list->claim.id +
                               (list->nextCancelled ? "; the worker is told to stop at its turn" : ""),
                           {}});
    if (task.state != TaskState::Queued) return reasons;
    if (m_ending) reasons.push_back({"ending", "the engine is ending", {}});
    if (const auto stops = m_store.Stops()) {
        for (const auto& stop : *stops) {
            if (stop.type == kEveryType)
                reasons.push_back({"drained", stop.reason, {}});
            else if (stop.type == task.type && !IsReleased(stop.type, *stops))
                reasons.push_back({"stopped", stop.reason, stop.until_us});
        }
    }
    if (task.suspended_us)
        reasons.push_back({"suspended", "suspended since " + TimeText(*task.suspended_us), {}});
    const auto now = m_store.NowTime();
    if (task.notBefore_us && *task.notBefore_us > now && task.attempts == 0)
        reasons.push_back({"not-before",
                           "not before " + TimeText(*task.notBefore_us) + ", as it was submitted",
                           task.notBefore_us});
    else if (task.notBefore_us && *task.notBefore_us > now)
        reasons.push_back({"backoff",
                           "attempt " + std::to_string(task.attempts + 1) + " not before " +
                               TimeText(*task.notBefore_us) + (task.reason ? ", after: " + *task.reason : ""),
                           task.notBefore_us});
    if (const auto held = m_held.find(task.type); held != m_held.end())
        reasons.push_back({"stage", held->second, {}});
    if (BusyTasks().contains(task.key))
        reasons.push_back({"earlier-worker", "the worker of its earlier attempt has not ended yet", {}});
    AddLimits(task, reasons);
    if (m_launcher.Running() >= m_maxWorkers)
        reasons.push_back({"workers",
                           std::to_string(m_launcher.Running()) + " of " + std::to_string(m_maxWorkers) +
                               " workers are running; tasks go by priority and age",
                           {}});
    return reasons;
}

}  // namespace rq::engine

// The node's limits in the scheduler: what running tasks take, volumes as they come and go, and which rule
// holds how many queued tasks.
#include <algorithm>

#include "engine/scheduler.h"

namespace rq::engine {

namespace {

// Until every volume has been looked at once, tasks that wait for one alone should not wait for an interval.
constexpr std::chrono::milliseconds kFirstLooks(50);

bool Holds(const VolumeState& state) {
    return state.away || state.IsShort();
}

}  // namespace

Result<Usage> Scheduler::TakenNow() {
    Usage usage;
    std::set<std::int64_t> tasks;
    for (const auto& [token, run] : m_runs) {
        // A package worker that waits takes nothing for the task that it has done.
        if (!IsPackage(*run) || !run->final || run->stalled) tasks.insert(run->claim.task);
        if (!run->external) ++usage.workers[run->claim.type];
    }
    // Also of tasks that have ended and whose worker has not.
    const auto demand = m_store.Taken(tasks);
    if (!demand) return demand.error();
    usage.memory_MiB = demand->memory_MiB;
    usage.cores = demand->cores;
    return usage;
}

Usage Scheduler::TakenForStart(Usage usage) {
    for (const auto& [type, most] : m_settings.node.typeWorkers) {
        if (PlaceFor(type, false) != nullptr) usage.workers.erase(type);
    }
    return usage;
}

Result<Scheduler::Turn> Scheduler::ClaimNext(const std::vector<TypeStop>& stops, bool slotFree) {
    auto usage = TakenNow();
    if (!usage) return usage.error();
    const auto& most = m_settings.node.typeWorkers;
    const auto workers = usage->workers;
    m_admission.Begin(TakenForStart(std::move(*usage)), m_volumes, SystemClock().Steady());
    Turn turn;
    struct OfType {
        bool released = false;    // by stops and stage
        bool mayHaveNew = false;  // a worker of its own
        Run* place = nullptr;
    };
    std::map<std::int32_t, OfType> types;
    auto claim = m_store.ClaimNext(
        [&](const Candidate& candidate) {
            const auto [known, isNew] = types.try_emplace(candidate.type);
            OfType& type = known->second;
            if (isNew) {
                const auto limit = most.find(candidate.type);
                const auto running = workers.find(candidate.type);
                type.released = IsReleased(candidate.type, stops) && MayStart(candidate.type);
                type.mayHaveNew = slotFree && (limit == most.end() || running == workers.end() ||
                                               running->second < limit->second);
                type.place = PlaceFor(candidate.type, type.mayHaveNew);
            }
            if (!m_admission.MayStart(candidate, type.released)) return false;
            turn.place = type.place;
            // No younger one overtakes it.
            turn.blocked = type.place == nullptr && !slotFree;
            candidate.endsSearch = turn.blocked;
            return !turn.blocked;
        },
        BusyTasks(),
        [&] { return turn.place != nullptr ? std::optional(Shared(*turn.place)) : std::nullopt; },
        slotFree || AnyKept() ? Transaction::Sync::Shared : Transaction::Sync::Relaxed);
    m_admission.End(claim && !*claim && !turn.blocked);
    if (!claim) return claim.error();
    turn.claim = std::move(*claim);
    return turn;
}

void Scheduler::WatchVolumes() {
    if (m_settings.node.volumes.empty() || m_ending) return;
    VolumeStates states = m_volumeWatch.States();
    bool changed = false;
    for (const auto& [name, state] : states) {
        const VolumeState& before = m_volumes[name];
        if (state.away && !state.unknown && before.away != state.away)
            m_log.Warn("volume " + name + " is away, and tasks that need it wait: " + *state.away);
        else if (state.IsShort() && !before.IsShort())
            m_log.Warn("volume " + name + " has less free space than its floor; tasks that need it wait");
        else if (Holds(before) && !Holds(state))
            m_log.Info("volume " + name + " is there, with enough free space");
        changed = changed || Holds(before) != Holds(state);
    }
    m_volumes = std::move(states);
    const bool looked = m_volumeWatch.HasLooked();
    m_volumeTimer.expires_after(looked ? m_settings.node.volumeInterval : kFirstLooks);
    m_volumeTimer.async_wait([this](const boost::system::error_code& error) {
        if (!error) WatchVolumes();
    });
    if (changed) Pump();
}

void Scheduler::AddLimits(const TaskRow& task, std::vector<WaitReason>& reasons) {
    const auto usage = TakenNow();
    if (!usage) return;
    for (auto& reason : m_admission.Reasons(task.type, task.demand, TakenForStart(*usage), m_volumes)) {
        const auto since = m_admission.PassedSince(task.key);
        if (since && (reason.rule == "memory" || reason.rule == "cores")) {
            const auto left = m_settings.node.passFor - (SystemClock().Steady() - *since);
            reason.text += left.count() > 0
                               ? "; later tasks may pass it until then"
                               : "; no later task that declares memory or cores passes it any more";
            if (left.count() > 0)
                reason.until_us =
                    m_store.NowTime() + std::chrono::duration_cast<std::chrono::microseconds>(left).count();
        }
        reasons.push_back(std::move(reason));
    }
    const auto kept = m_admission.KeptFor();
    if (!kept || *kept == task.key || task.demand.memory_MiB + task.demand.cores == 0) return;
    const auto first = m_store.Task(*kept);
    if (!first || !*first || (*first)->state != TaskState::Queued) return;
    const bool isBehind =
        (*first)->priority != task.priority ? (*first)->priority > task.priority : (*first)->key < task.key;
    if (isBehind)
        reasons.push_back({"reserved", "memory and cores are kept for " + (*first)->id +
                                           ", which has been passed for " +
                                           DurationText(m_settings.node.passFor)});
}

HeldByRule Scheduler::CountHeld() {
    HeldByRule held;
    const auto groups = m_store.QueuedGroups();
    auto usage = TakenNow();
    const auto stops = m_store.Stops();
    if (!groups || !usage || !stops) return held;
    *usage = TakenForStart(std::move(*usage));
    const bool drained = !IsReleased(kEveryType, *stops);
    for (const auto& group : *groups) {
        std::string rule = "turn";
        if (m_ending)
            rule = "ending";
        else if (drained)
            rule = "drained";
        else if (!IsReleased(group.type, *stops))
            rule = "stopped";
        else if (group.suspended)
            rule = "suspended";
        else if (group.waits)
            rule = group.again ? "backoff" : "not-before";
        else if (m_held.contains(group.type))
            rule = "stage";
        else if (const auto reasons = m_admission.Reasons(group.type, group.demand, *usage, m_volumes);
                 !reasons.empty())
            rule = reasons.front().rule;
        held[{rule, group.type}] += group.tasks;
    }
    return held;
}

NodeFacts Scheduler::GetNodeFacts() {
    NodeFacts facts;
    facts.memory_MiB = static_cast<std::int64_t>(m_admission.Limits().memory_MiB);
    facts.cores = static_cast<std::int64_t>(m_admission.Limits().cores);
    if (const auto usage = TakenNow()) facts.taken = *usage;
    facts.volumes = m_volumes;
    return facts;
}

}  // namespace rq::engine

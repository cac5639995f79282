// Package workers that end, or that an earlier run of the engine left: what becomes of their tasks.
#include <algorithm>

#include "engine/scheduler.h"

namespace rq::engine {

namespace {

std::string NotBegun(const std::string& why) {
    return "not begun: its worker ended before its turn (" + why + ")";
}

std::string MayHaveBegun(const std::string& why) {
    return "its worker ended (" + why + ") and may have begun it";
}

// Whether the engine has every status that the worker sent before this one.
bool NothingIsMissing(const link::SpooledStatus& status, std::uint64_t has) {
    return status.seq == has + 1 || (status.previous != 0 && status.previous <= has);
}

}  // namespace

std::string Scheduler::DisturbedText() {
    return "its worker was told to stop for the task before it";
}

std::string Scheduler::WhyEnded(const Run& run) {
    if (!run.killReason.empty()) return run.killReason;
    return run.exit ? ExitText(*run.exit) : "its connection ended";
}

// A worker begins its next task unheard when what it said of the end of the last one has not come: of a task
// that returned in another status than 0 and 4 it says so once and goes on. Its goodbye comes behind
// everything that it had to say; a stall report behind its stop flag.
Result<void> Scheduler::SettleUnbegun(Run& run, const std::string& token) {
    const bool isUntouched = !run.unsure && (run.saidBye || run.stalled || run.heldBack);
    return isUntouched ? m_store.PutBack(token, NotBegun(WhyEnded(run)))
                       : m_store.Lost(token, MayHaveBegun(WhyEnded(run)));
}

Result<void> Scheduler::SettlePackage(Run& run) {
    if (run.next) {
        if (auto done = SettleUnbegun(run, run.next->token); !done) return done;
        run.next.reset();
    }
    if (run.final || !(run.disturbed || run.turn.IsAwaited())) return {};
    auto done = run.turn.IsAwaited() ? SettleUnbegun(run, run.claim.token)
                                     : m_store.Lost(run.claim.token, DisturbedText());
    if (done) run.final = true;
    return done;
}

bool Scheduler::TakePackageSpool(Run& run, const link::SpooledStatus& status) {
    const auto has = std::max(run.has, run.session ? run.session->Memory().has : 0);
    // It came over the link, too, and only its acknowledgement did not get through.
    if (status.seq <= has) return true;
    if (run.next && !NothingIsMissing(status, has)) {
        m_log.Warn(run.claim.id + ": that status may be the next task's: the worker has said more before it");
        return true;
    }
    bool taken = true;
    for (const auto& entry : status.message.entries) {
        if (!link::IsFinalTaskStatus(entry.status)) continue;
        const bool ends = run.turn.Of(entry, status.isRepeat) == PackageTurn::Meaning::Ends;
        taken = TakePackageState(run, entry, status.isRepeat) && taken;
        run.heldBack = run.heldBack || (ends && entry.status != kTaskCancelled);
    }
    // What follows may fail, and be done again.
    if (taken) run.has = status.seq;
    return taken;
}

// ---- of an earlier run of the engine ----

void Scheduler::TakeOverPackage(Run& run, OpenAttempt& inHand) {
    const auto shared = m_store.OpenOfWorker(run.first);
    if (!shared) return Report(shared.error(), "a take-over");
    run.heard = inHand.started || run.final || !inHand.reportedTask.empty();
    run.stalled = inHand.stalled;
    const auto told = inHand.told;
    for (const auto& one : *shared) {
        run.next = one.claim;
        run.nextCancelled = one.cancelRequested;
        if (one.addSeq && !one.started && IsActive(one.state)) run.added.push_back(one);
        if (!one.reached) continue;
        TurnToNext(run);
        inHand = one;
        run.stalled = one.stalled;
        if (one.started) run.lastStatus = kTaskRunning;
        if (one.started) run.turn.Begin();
        run.final = !IsActive(one.state);
        if (run.final) run.turn.End();
        run.reportedTask = one.reportedTask;
    }
    run.told = told.has_value();
    run.disturbed = told && *told != run.claim.attempt && !run.final;
    run.paused = inHand.asked == TCP_TASK_SUSPEND_ID ||
                 (inHand.state == AttemptState::Paused && inHand.asked != TCP_TASK_RESUME_ID);
}

Result<void> Scheduler::AddAgain(Run& run, SessionMemory& memory, std::uint64_t received) {
    std::vector<SessionMemory::KeptOrder> again;
    for (const auto& one : run.added) {
        if (*one.addSeq <= received) continue;
        const auto details = m_store.Details(one.claim.task);
        if (!details) return details.error();
        if (!*details) continue;
        const link::TaskTextOrder order{m_settings.paths.Apply((*details)->text), 0};
        auto body = link::EncodeOrder(TCP_TASK_ADD_ID, order);
        if (!body) return body.error();
        again.push_back({0, TCP_TASK_ADD_ID, std::move(*body)});
        // They come first. This is there before anything is sent: a later engine must not take another order
        // with the old number for this one.
        if (auto done = m_store.AddedAgain(one.claim.token, received + again.size()); !done) return done;
    }
    memory.orders.insert(memory.orders.begin(), again.begin(), again.end());
    run.added.clear();
    return {};
}

}  // namespace rq::engine

// Package workers: kept after a task, given the next one, ended when there is none. Which report is whose is
// package_turn.h's.
#include <algorithm>
#include <boost/asio/post.hpp>

#include "base/text.h"
#include "engine/json.h"
#include "engine/scheduler.h"
#include "records/task_codes.h"

namespace rq::engine {

bool Scheduler::IsPackage(const Run& run) {
    return !run.external && IsPackageType(run.claim.type);
}

bool Scheduler::IsKept(const Run& run) {
    return IsPackage(run) && run.final && !run.told;
}

bool Scheduler::TakesTasks(const Run& run) const {
    return IsPackage(run) && run.heard && run.session && !run.told && !run.stalled && !run.paused &&
           !run.next && !run.exit && run.killReason.empty() && !m_ending && (run.final || HasRoomBehind(run));
}

bool Scheduler::HasRoomBehind(const Run& run) {
    // Before the next text is in the list, the worker must have looked at a new text of the one in hand. What
    // has cost a worker already may cost another one, and what is in its list with it.
    return run.claim.number == 1 &&
           std::none_of(run.asked.begin(), run.asked.end(),
                        [](const Run::Asked& one) { return one.replyId == TCP_TASK_UPDATE_REPLY_ID; });
}

Scheduler::Run* Scheduler::PlaceFor(std::int32_t type, bool slotFree) {
    Run* place = nullptr;
    for (const auto& [worker, run] : m_runs) {
        if (run->claim.type != type || !TakesTasks(*run)) continue;
        if (IsKept(*run)) return run.get();
        if (!slotFree) place = run.get();
    }
    return place;
}

bool Scheduler::AnyPlace() const {
    return std::any_of(m_runs.begin(), m_runs.end(),
                       [this](const auto& entry) { return TakesTasks(*entry.second); });
}

bool Scheduler::AnyKept() const {
    return std::any_of(m_runs.begin(), m_runs.end(), [](const auto& entry) { return IsKept(*entry.second); });
}

void Scheduler::MakeRoom() {
    const bool leaving = std::any_of(m_runs.begin(), m_runs.end(), [](const auto& entry) {
        return IsPackage(*entry.second) && entry.second->final && entry.second->told;
    });
    if (leaving) return;
    for (const auto& [worker, run] : m_runs) {
        if (!IsKept(*run)) continue;
        SendEnd(*run);
        return;
    }
}

SharedWorker Scheduler::Shared(const Run& run) {
    return {run.first, run.claim.attempt, run.claim.id, IsKept(run), run.session->Memory().sent + 1};
}

void Scheduler::Feed(Run& run, Claim claim) {
    std::vector<MappedPath> mapped;
    const link::TaskTextOrder order{m_settings.paths.Apply(claim.text, &mapped), 0};
    if (!mapped.empty()) Report(m_store.Note(claim.token, "paths", PathsEventJson(mapped)), "mapped paths");
    claim.text.clear();
    m_log.Info(claim.id + ": added to worker " + std::to_string(run.life.processId) + " after " +
               run.claim.id);
    run.next = std::move(claim);
    if (run.final) {
        Disarm(run);
        TurnToNext(run);
    }
    run.session->SendOrder(TCP_TASK_ADD_ID, order);
}

void Scheduler::TurnToNext(Run& run) {
    run.earlier = run.claim.token;
    run.claim = std::move(*run.next);
    run.next.reset();
    run.nextCancelled = false;
    run.turn.Turn();
    run.final = run.pauseSent = run.resumeSent = false;
    run.lastStatus.reset();
    // An order to stop that was for the task before may reach this one.
    run.disturbed = run.told;
}

void Scheduler::Hear(Run& run) {
    if (run.heard || !IsPackage(run)) return;
    run.heard = true;
    boost::asio::post(m_io, [this] { Pump(); });
}

bool Scheduler::TakePackageState(Run& run, const TaskStatusEntry& entry, bool repeated) {
    using Meaning = PackageTurn::Meaning;
    Hear(run);
    switch (run.turn.Of(entry, repeated)) {
        case Meaning::Begins:
            run.turn.Begin();
            run.lastStatus = entry.status;
            run.reportedTask = entry.taskId;
            Report(m_store.Begun(run.claim.token, RepairUtf8(entry.taskId)), "a status");
            return true;
        case Meaning::Ends:
            return EndPackageTask(run, entry, true);
        case Meaning::EndsUnsaid:
            run.lastStatus = entry.status;
            return EndPackageTask(run, entry, false);
        case Meaning::OfEarlier:
            return TakeFurtherFinal(run, run.earlier, entry);
        case Meaning::Late:
            return TakeFurtherFinal(run, run.claim.token, entry);
        default:
            Report(m_store.Status(run.claim.token, entry.status), "a status");
            return true;
    }
}

bool Scheduler::TakeFurtherFinal(Run& run, const std::string& token, const TaskStatusEntry& entry) {
    const auto outcome = m_store.Finish(token, FinalOf(entry));
    if (!outcome)
        m_log.Warn(run.claim.id + ": a final status could not be committed: " + outcome.error().message);
    if (outcome && entry.stalled) NoteStall(run);
    return outcome.has_value();
}

// The task had ended all the same; the worker begins none any more.
void Scheduler::NoteStall(Run& run) {
    if (std::exchange(run.stalled, true) || run.told) return;
    boost::asio::post(m_io, [this, worker = run.worker] {
        if (Run* leaving = Find(worker)) AfterPackageTask(*leaving, false);
    });
}

bool Scheduler::EndPackageTask(Run& run, const TaskStatusEntry& entry, bool final) {
    run.reportedTask = entry.taskId;
    const bool stalled = entry.stalled;
    // After a stall the worker begins nothing any more.
    const std::string next = run.next && !stalled ? run.next->token : "";
    Result<void> done;
    if (run.disturbed) {
        done = m_store.Lost(run.claim.token, DisturbedText());
        if (done && final)
            done = m_store.Finish(run.claim.token, FinalOf(entry)).has_value()
                       ? Result<void>()
                       : Result<void>(Fail("a late status could not be committed"));
    } else if (final) {
        const auto outcome = m_store.Finish(run.claim.token, FinalOf(entry), next);
        if (!outcome) done = outcome.error();
    } else {
        done = m_store.Unsaid(run.claim.token,
                              "its perform call returned in status " + std::to_string(entry.status) +
                                  ", without a final status",
                              next);
    }
    if (!done) {
        m_log.Warn(run.claim.id + ": its end could not be committed: " + done.error().message);
        run.turn.Hold();
        // Of the others each is said once, and the worker goes on.
        const bool isRepeated = entry.status == kTaskFinished || entry.status == kTaskError;
        run.unsure = run.unsure || !isRepeated;
        // One that was told to stop does so.
        if (!final || (!isRepeated && !run.told))
            Kill(run, "store-failure", "the end of a task could not be recorded: " + done.error().message);
        return !final;
    }
    m_log.Info(run.claim.id + ": ended in status " + std::to_string(entry.status));
    run.turn.End();
    run.final = true;
    run.stalled = run.stalled || stalled;
    const bool wasPaused = std::exchange(run.paused, false);
    const bool cancelNext = run.nextCancelled;
    if (!next.empty()) TurnToNext(run);
    // After the acknowledgement has gone out.
    boost::asio::post(m_io, [this, worker = run.worker, wasPaused, cancelNext] {
        Run* ended = Find(worker);
        if (ended == nullptr) return;
        // The pause is the worker's, not the task's.
        if (wasPaused) SendCommand(*ended, TCP_TASK_RESUME_ID, "resume");
        AfterPackageTask(*ended, cancelNext);
    });
    return true;
}

void Scheduler::AfterPackageTask(Run& run, bool cancelNext) {
    if (run.exit || !run.killReason.empty()) return;
    if (run.stalled || run.told) return SendEnd(run);
    if (cancelNext) return SendCancel(run);
    const std::string worker = run.worker;
    Pump();
    if (Run* idle = Find(worker); idle != nullptr && IsKept(*idle)) Rest(*idle);
}

void Scheduler::NoteTold(Run& run) {
    run.told = true;
    if (IsPackage(run)) Report(m_store.Told(run.worker, run.claim.attempt), "an order");
}

void Scheduler::Rest(Run& run) {
    if (m_ending || m_settings.packageIdle.count() == 0) return SendEnd(run);
    Arm(run, m_settings.packageIdle, [this](Run& idle) { SendEnd(idle); });
}

Scheduler::Run* Scheduler::FindListed(std::int64_t task) {
    for (const auto& [worker, run] : m_runs) {
        if (run->next && run->next->task == task) return run.get();
    }
    return nullptr;
}

}  // namespace rq::engine

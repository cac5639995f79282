// FakeCore: a worker core whose every answer a test sets, on a fake clock. Any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/result.h"
#include "kit/fake_clock.h"
#include "supervision/testing/journal.h"
#include "supervision/testing/scripted_runner.h"
#include "supervision/testing/sent_messages.h"
#include "supervision/worker_core.h"

namespace rq::testing {

class FakeCore final : public IWorkerCore {
  public:
    FakeCore() : script(journal, clock), runner(std::make_shared<ScriptedRunner>(script)) {}

    Clock& GetClock() override { return clock; }
    std::shared_ptr<IWorkRunner> Runner() override { return hasRunner ? runner : nullptr; }
    std::int32_t HeartbeatInterval_s() override { return heartbeatInterval_s; }
    void SetHeartbeatInterval_s(std::int32_t interval_s) override { heartbeatInterval_s = interval_s; }
    std::uint32_t ProgressReportInterval_s() override { return reportInterval_s; }
    std::uint32_t ProgressPatrolTimeout_s() override { return patrolTimeout_s; }
    std::int32_t TaskType() override { return taskType; }
    std::string TaskId() override { return "T1"; }
    std::string WorkerGuid() override { return hasGuid ? "G1" : ""; }
    std::string ProcessIdText() override { return "4711"; }
    bool IsDisconnected() override { return disconnected; }
    bool IsPaused() override { return paused; }
    bool IsWorking() override { return working; }
    bool HeartbeatShouldStop() override { return exit; }
    Signal& ProgressSignal() override { return progressSignal; }
    Signal& HeartbeatSignal() override { return heartbeatSignal; }
    std::int32_t SetClose(std::uint32_t mode) override {
        journal.Note("core.SetClose " + std::to_string(mode));
        if (goesAtClose) hasRunner = false;
        return hasRunner ? kStatusOk : kStatusMissing;
    }
    bool CloseAndSend(std::uint32_t mode, std::uint32_t id,
                      const std::function<const void*()>& make) override {
        SetClose(mode);
        return Send(id, make());
    }
    bool Send(std::uint32_t id, const void* record) override {
        if (onSend) onSend(id);
        journal.Note("core.Send " + std::to_string(id));
        sent.Record(1, id, record, clock.Steady());
        return failures == 0 || failures-- == 0;
    }

    Journal journal;
    kit::FakeClock clock;
    RunnerScript script;
    SentMessages sent;
    std::shared_ptr<ScriptedRunner> runner;
    std::atomic<bool> hasRunner = true;
    std::atomic<bool> goesAtClose = false;  // the runner, when the task is closed
    std::atomic<bool> hasGuid = true;
    std::atomic<std::int32_t> heartbeatInterval_s = 60;
    std::atomic<std::uint32_t> reportInterval_s = 5;
    std::atomic<std::uint32_t> patrolTimeout_s = 60;
    std::atomic<std::int32_t> taskType = 3;
    std::atomic<bool> disconnected = false;
    std::atomic<bool> paused = false;
    std::atomic<bool> working = true;
    std::atomic<bool> exit = false;
    std::atomic<int> failures = 0;  // so many sends are refused
    std::function<void(std::uint32_t)> onSend;
    Signal progressSignal{clock};
    Signal heartbeatSignal{clock};
};

}  // namespace rq::testing

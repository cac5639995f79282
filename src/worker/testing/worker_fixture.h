// WorkerFixture: a worker core with a recording engine, a scripted runner and a fake clock.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kit/fake_clock.h"
#include "supervision/testing/gate.h"
#include "supervision/testing/journal.h"
#include "supervision/testing/scripted_runner.h"
#include "util/worker_util.h"
#include "worker/testing/recording_engine.h"
#include "worker/worker_base.h"

namespace rq::testing {

class WorkerFixture : public ::testing::Test {
  protected:
    WorkerFixture() : m_script(m_journal, m_clock), m_engine(m_journal, m_clock) {
        m_start.parameterText = "<task/>";
        m_start.taskType = RQ_TASK_MD5_COMPUTE;
    }
    ~WorkerFixture() override {
        End();
        ProcessCommandLine() = {};
    }

    WorkerCoreSeams Seams() {
        WorkerCoreSeams seams;
        seams.clock = &m_clock;
        seams.createEngineClient = [this]() -> IEngineCommunicate* {
            return m_hasClient ? new RecordingEngine(m_engine) : nullptr;
        };
        seams.deleteEngineClient = [](IEngineCommunicate** client) {
            delete static_cast<RecordingEngine*>(*client);
            *client = nullptr;
        };
        seams.createRunner = [this]() -> std::unique_ptr<IWorkRunner> {
            m_journal.Note("runner created");
            if (m_failingRunners > 0 && m_failingRunners-- > 0) return nullptr;
            if (m_throwingRunners > 0 && m_throwingRunners-- > 0) throw std::bad_alloc();
            return std::make_unique<ScriptedRunner>(m_script);
        };
        seams.readRunningParameter = [this](std::string path, tagOVLCommunicationParam* parameter) {
            m_journal.Note("read parameters");
            m_readPath = std::move(path);
            if (!m_parameters.empty()) {
                *parameter = m_parameters.front();
                if (m_parameters.size() > 1) m_parameters.pop_front();
            }
            return m_readResult;
        };
        seams.writeRunningParameter = [this](const tagOVLCommunicationParam* parameter, std::wstring path) {
            m_journal.Note("write parameters");
            m_written = *parameter;
            m_writePath = std::move(path);
            return 0;
        };
        return seams;
    }
    void MakeCore() { m_core = std::make_unique<CRQWorkerBase>(Seams()); }
    std::int32_t InitCore() {
        if (!m_core) MakeCore();
        return m_core->Init(&m_start);
    }
    void StartWork(const std::string& text = "<task/>") {
        m_work = std::thread([this, text] { m_result = m_core->DoWork(text, m_start.taskType); });
    }
    std::int32_t JoinWork() {
        m_work.join();
        return m_result;
    }
    // Whatever the test left: the core is brought to its end and deleted.
    void End() {
        if (!m_core) return;
        for (Gate* gate : {&m_closed, &m_inside, &m_goOn}) gate->Open();
        m_refuse = false;
        m_core->SetClose(kCloseFinish);
        if (m_engine.setup.handler != nullptr && !m_released) m_engine.DeliverDestroy();
        if (m_work.joinable()) m_work.join();
        if (!m_released) {
            m_core->DoWork("", m_start.taskType);  // tells the heartbeat thread to end
            m_core->Release();
        }
        m_core.reset();
    }
    void Release() {
        m_core->Release();
        m_released = true;
    }
    // The heartbeat thread's wait and the work loop's.
    void WaitForIdle() { ASSERT_TRUE(m_clock.WaitForWaiters(2)); }

    Journal m_journal;
    kit::FakeClock m_clock;
    RunnerScript m_script;
    EngineScript m_engine;
    WorkerStartRecord m_start;
    // For scripts, which must not use a test's own variables: they may be called until the core is gone.
    Gate m_closed;
    Gate m_inside;
    Gate m_goOn;
    std::atomic<bool> m_refuse = true;
    std::atomic<int> m_tasks = 0;
    bool m_hasClient = true;
    int m_failingRunners = 0;
    int m_throwingRunners = 0;
    std::deque<tagOVLCommunicationParam> m_parameters;  // one for each read, the last for all further ones
    std::int32_t m_readResult = 0;
    std::string m_readPath;
    std::wstring m_writePath;
    tagOVLCommunicationParam m_written;
    std::unique_ptr<CRQWorkerBase> m_core;
    bool m_released = false;
    std::thread m_work;
    std::int32_t m_result = 0;
};

}  // namespace rq::testing

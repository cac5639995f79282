// ScriptedRunner: a plug-in runner that does what a test's RunnerScript says and notes the calls in the
// test's journal. The script outlives the runner, which its owner may delete at any time. Any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "plugin/work_runner.h"
#include "supervision/testing/journal.h"

namespace rq::testing {

// What the runner answers. Read and changed through RunnerScript::With only.
struct RunnerAnswers {
    std::int32_t initResult = 0;
    std::int32_t analyseResult = 0;
    std::string taskId = "T1";  // given out by the analysis; left alone when empty
    std::int32_t updateResult = 0;
    TaskProgress progress;
    std::uint32_t status = kTaskRunning;
    std::int32_t frameRate = 25;
    std::uint32_t closeMode = 0;
    TaskErrorInfo error;
    std::shared_ptr<const stTaskResultBase> result;
    WorkRunnerStart start;                // what Init was given
    tagOVLCommunicationParam parameters;  // what the last PerformTask was given
};

class RunnerScript {
  public:
    RunnerScript(Journal& noteIn, Clock& stampsFrom)
        : journal(noteIn), m_clock(stampsFrom), m_local(m_clock.Local()), m_steady(m_clock.Steady()) {}

    // As a runner's: local time that no step of the wall clock moves.
    LocalTime StampNow() {
        const auto passed =
            std::chrono::duration_cast<std::chrono::microseconds>(m_clock.Steady() - m_steady);
        return m_local + boost::posix_time::microseconds(passed.count());
    }

    template <class Function>
    auto With(Function function) {
        const std::scoped_lock lock(m_mutex);
        return function(m_answers);
    }
    void SetStatus(std::uint32_t status) {
        With([&](RunnerAnswers& answers) { answers.status = status; });
    }
    void SetPercent(double percent) {
        With([&](RunnerAnswers& answers) { answers.progress.percent = percent; });
    }

    Journal& journal;
    // Called without the script's lock; fixed before the runner is used.
    std::function<std::int32_t()> onInit;
    std::function<std::int32_t(const std::string&, std::string&)> onAnalyse;
    std::function<std::int32_t()> onPerform;
    std::function<void(std::uint32_t)> onClose;
    std::function<void()> onUpdate;
    std::function<void()> onSuspend;
    std::function<void()> onResume;
    std::function<void()> onRelease;

  private:
    Clock& m_clock;
    const LocalTime m_local;
    const SteadyTime m_steady;
    std::mutex m_mutex;
    RunnerAnswers m_answers;
};

class ScriptedRunner final : public IWorkRunner {
  public:
    explicit ScriptedRunner(RunnerScript& script) : m_script(script) {}
    ~ScriptedRunner() override { m_script.journal.Note("runner deleted"); }

    std::int32_t Init(const WorkRunnerStart& start) override {
        m_script.journal.Note("runner.Init");
        if (m_script.onInit) return m_script.onInit();
        return m_script.With([&](RunnerAnswers& answers) {
            answers.start = start;
            return answers.initResult;
        });
    }
    std::int32_t AnalyseTask(const std::string& text, std::string& taskId) override {
        m_script.journal.Note("runner.AnalyseTask " + text);
        if (m_script.onAnalyse) return m_script.onAnalyse(text, taskId);
        return m_script.With([&](RunnerAnswers& answers) {
            if (!answers.taskId.empty()) taskId = answers.taskId;
            return answers.analyseResult;
        });
    }
    std::int32_t UpdateTask(const std::string& text) override {
        m_script.journal.Note("runner.UpdateTask " + text);
        if (m_script.onUpdate) m_script.onUpdate();
        return m_script.With([](RunnerAnswers& answers) { return answers.updateResult; });
    }
    std::int32_t PerformTask(tagOVLCommunicationParam parameters) override {
        m_script.journal.Note("runner.PerformTask");
        m_script.With([&](RunnerAnswers& answers) { answers.parameters = std::move(parameters); });
        if (m_script.onPerform) return m_script.onPerform();
        m_script.SetStatus(kTaskFinished);
        return 0;
    }
    std::int32_t CloseTask(std::uint32_t mode, std::int32_t wait_s) override {
        m_script.journal.Note("runner.CloseTask " + std::to_string(mode) + " " + std::to_string(wait_s));
        m_script.With([&](RunnerAnswers& answers) { answers.closeMode = mode; });
        if (m_script.onClose) m_script.onClose(mode);
        return 0;
    }
    std::int32_t SuspendTask() override {
        m_script.journal.Note("runner.SuspendTask");
        if (m_script.onSuspend) m_script.onSuspend();
        return 0;
    }
    std::int32_t ResumeTask() override {
        m_script.journal.Note("runner.ResumeTask");
        if (m_script.onResume) m_script.onResume();
        return 0;
    }
    TaskProgress GetProgress() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.progress; });
    }
    LocalTime StampNow() const override { return m_script.StampNow(); }
    std::uint32_t GetStatus() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.status; });
    }
    std::string GetTaskId() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.taskId; });
    }
    std::int32_t GetFrameRate() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.frameRate; });
    }
    std::uint32_t GetCloseMode() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.closeMode; });
    }
    TaskErrorInfo GetErrorInfo() const override {
        return m_script.With([](RunnerAnswers& answers) { return answers.error; });
    }
    std::shared_ptr<const stTaskResultBase> GetTaskResult(std::int32_t taskType) override {
        m_script.journal.Note("runner.GetTaskResult " + std::to_string(taskType));
        return m_script.With([](RunnerAnswers& answers) { return answers.result; });
    }
    void Release() override {
        m_script.journal.Note("runner.Release");
        if (m_script.onRelease) m_script.onRelease();
    }

  private:
    RunnerScript& m_script;
};

}  // namespace rq::testing

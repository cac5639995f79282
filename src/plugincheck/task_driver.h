// TaskDriver: one task after another, each analysed, performed and looked at as a worker does it, while the
// link thread carries out what the scenario says. Main thread.
#pragma once

#include <rqworker/plugin.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "plughost/host_services.h"
#include "plughost/plugin_text.h"
#include "plugincheck/host_probe.h"
#include "plugincheck/options.h"
#include "plugincheck/perform_watch.h"
#include "plugincheck/plugin_calls.h"
#include "plugincheck/record_watch.h"
#include "plugincheck/scenario.h"
#include "plugincheck/task_text.h"
#include "records/running_parameter.h"

namespace rq::plugincheck {

struct TaskOutcome {
    bool isAnalysed = false;  // with 0 and a record; otherwise nothing was performed
    bool isPerformed = false;
    std::uint32_t stop = 0;   // the stop flag as it was in the end
    bool isCutShort = false;  // by this check, since the task took too long
    bool hasFailed = false;   // status 4, or an exception, with no stop
    std::string failure;      // how
    TaskLength length;
};

class TaskDriver {
  public:
    TaskDriver(JournalWriter& journal, PluginCalls& calls, HostServices& services, HostProbe& probe,
               PerformWatch& watch, volatile std::uint32_t* stopFlag, const CheckOptions& options);

    void Describe(const PluginFacts& facts);
    void SetParameters(const tagOVLCommunicationParam& parameters) { m_parameters = parameters; }

    // A text that no plug-in needs to take: it must come back with a record all the same.
    void Refuse(const std::string& text, const std::string& what);
    TaskOutcome Run(const Scenario& scenario);
    std::chrono::milliseconds LatestStop() const { return m_latestStop; }

  private:
    std::optional<AnalyseResult> AnalyseNew(const Scenario& scenario, const std::string& when);
    void CheckPerformedRecord(const std::string& when);
    void Perform(const Scenario& scenario, TaskInfo& info, TaskOutcome& outcome);
    void JudgeOutcome(const std::optional<std::string>& thrown, TaskInfo& info, const std::string& when,
                      std::chrono::milliseconds sinceStop, TaskOutcome& outcome);
    std::string ErrorWords(std::uint32_t status, const TaskInfo& info);
    void JudgeStop(std::uint32_t status, const TaskInfo& info, const std::string& when,
                   std::chrono::milliseconds sinceStop, const TaskOutcome& outcome);
    void CheckLent(const TaskText& lent, const std::string& when);
    void CheckHostText();
    void CheckThreads(std::size_t before, const std::string& when);
    void EndRecord(const Scenario& scenario, TaskInfo& info, const std::string& when);
    void CarryOut(Order order);
    void Stop(std::uint32_t flag);
    void Look();
    void Update(TaskInfo* before, const std::string& when);
    void Poison(TaskText& text);
    TaskText& NewText(const std::string& text, bool hasZero);

    JournalWriter& m_journal;
    PluginCalls& m_calls;
    HostServices& m_services;
    HostProbe& m_probe;
    PerformWatch& m_watch;
    volatile std::uint32_t* m_stopFlag;
    const CheckOptions& m_options;
    RecordWatch m_records;
    PluginFacts m_facts;
    tagOVLCommunicationParam m_parameters;
    TextKeeper m_keeper;
    bool m_isHostTextLent = false;
    TaskText* m_lent = nullptr;    // the present task's, in m_texts
    std::deque<TaskText> m_texts;  // the last few, so that nothing of the process's own takes their place
    std::optional<RecordSnapshot> m_performed;  // promised until the next perform call
    std::chrono::milliseconds m_latestStop{0};
    std::uint64_t m_count = 0;

    // Of the task that is being performed; the link thread reads them.
    std::atomic<TaskInfo*> m_running{nullptr};
    std::atomic<bool> m_isCutShort{false};
    std::atomic<std::int64_t> m_stoppedAt_us{0};
    std::atomic<std::int64_t> m_limitAt_us{0};
    ResultTexts m_seen;  // link thread while the call runs
    LinkThread m_link;   // last: it uses the others
};

}  // namespace rq::plugincheck

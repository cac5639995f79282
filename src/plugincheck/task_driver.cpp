#include "plugincheck/task_driver.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "base/text.h"
#include "platform/process_facts.h"
#include "plughost/parameter_view.h"
#include "plughost/result_copy.h"
#include "plugincheck/machine_clock.h"
#include "plugincheck/resource_watch.h"

namespace rq::plugincheck {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds kStopLimit(1000);
constexpr milliseconds kStopUnseen(200);  // a call that ends sooner after a stop need not have seen it
constexpr milliseconds kThreadPatience(500);
constexpr std::size_t kKeptTexts = 8;

// Not in memory that could be freed by mistake and go unnoticed.
constexpr char kHostText[] = "a text of the worker's, which the plug-in must not free";
char g_hostText[sizeof kHostText];

std::int64_t NowUs() {
    return MachineClock::now().time_since_epoch().count();
}

std::string Milliseconds(milliseconds duration) {
    return std::to_string(duration.count()) + " ms";
}

}  // namespace

TaskDriver::TaskDriver(JournalWriter& journal, PluginCalls& calls, HostServices& services, HostProbe& probe,
                       PerformWatch& watch, volatile std::uint32_t* stopFlag, const CheckOptions& options)
    : m_journal(journal),
      m_calls(calls),
      m_services(services),
      m_probe(probe),
      m_watch(watch),
      m_stopFlag(stopFlag),
      m_options(options),
      m_records(journal),
      m_link({.carryOut = [this](Order order) { CarryOut(order); }, .look = [this] { Look(); }}) {
    m_watch.SetCallHook([this](std::uint32_t call) { m_link.OnCall(call); });
}

void TaskDriver::Describe(const PluginFacts& facts) {
    m_facts = facts;
    m_records.SetPluginName(facts.name);
}

TaskText& TaskDriver::NewText(const std::string& text, bool hasZero) {
    if (m_texts.size() >= kKeptTexts) m_texts.pop_front();
    return m_texts.emplace_back(text, hasZero);
}

// What follows from a text that was kept is not told as well.
void TaskDriver::Poison(TaskText& text) {
    if (!m_journal.IsTold(Check::TaskTextKept)) text.Poison();
}

// ---- analysis ----

void TaskDriver::Refuse(const std::string& text, const std::string& what) {
    const std::string when = "for " + what;
    RQStore32(m_stopFlag, RQ_STOP_NONE);
    m_services.ForgetTask();
    TaskText& lent = NewText(text, false);
    const auto result = m_calls.Analyse(Lane::Main, lent.Text(), nullptr, when);
    m_journal.Exercised(Check::NoRecord);
    if (!result || !m_records.CheckUsable(Lane::Main, result->info, "after the analysis " + when)) return;
    m_records.CheckBorrowed(*result->info, lent, when);
    Poison(lent);
    const RecordSnapshot record = m_records.Read(Lane::Main, *result->info, "after the analysis " + when);
    m_records.CheckTaskId(record);
    m_records.CheckErrorTexts(record);
    if (result->code != 0 && record.furtherText.empty())
        m_journal.Remark("the analysis refuses " + what +
                         " without a further text: the operator does not learn what is wrong");
}

std::optional<AnalyseResult> TaskDriver::AnalyseNew(const Scenario& scenario, const std::string& when) {
    RQStore32(m_stopFlag, RQ_STOP_NONE);
    m_services.ForgetTask();
    TaskText& lent = NewText(*m_options.task, scenario.isTextKept);
    const auto result = m_calls.Analyse(Lane::Main, lent.Text(), nullptr, when);
    for (const Check check :
         {Check::NoRecord, Check::ContractVersion, Check::StructSize, Check::AnalysisFailed})
        m_journal.Exercised(check);
    if (!result) return std::nullopt;
    const bool isUsable = m_records.CheckUsable(Lane::Main, result->info, "after the analysis " + when);
    if (result->code != 0) {
        std::string reason;
        if (isUsable) reason = ": " + RepairUtf8(std::string(PluginTextView(result->info->furtherText)));
        m_journal.Tell(scenario.isFirstLent ? Check::TaskTextLength : Check::AnalysisFailed,
                       "the analysis " + when + " returned " + std::to_string(result->code) + reason +
                           (scenario.isFirstLent ? "; with a zero behind the same text it returned 0" : ""));
        return std::nullopt;
    }
    if (!isUsable) return std::nullopt;
    m_records.CheckBorrowed(*result->info, lent, when);
    CheckLent(lent, when);
    if (!scenario.isTextKept) Poison(lent);
    m_lent = &lent;
    return result;
}

// The record of the task before is read once more: only the next perform call ends it.
void TaskDriver::CheckPerformedRecord(const std::string& when) {
    if (!m_performed) return;
    const RecordSnapshot now = m_records.Read(Lane::Main, *m_performed->info, "that was performed, " + when);
    m_records.CheckSame(*m_performed, now, when);
}

// ---- one task ----

TaskOutcome TaskDriver::Run(const Scenario& scenario) {
    ++m_count;
    TaskOutcome outcome;
    const std::string when = "for task " + std::to_string(m_count) + " (" + scenario.what + ")";
    const auto analysed = AnalyseNew(scenario, when);
    if (!analysed) return outcome;
    outcome.isAnalysed = true;
    CheckPerformedRecord("after the analysis of the next task");
    m_performed.reset();
    Perform(scenario, *analysed->info, outcome);
    Poison(*m_lent);
    return outcome;
}

void TaskDriver::Perform(const Scenario& scenario, TaskInfo& info, TaskOutcome& outcome) {
    const std::string when = "of task " + std::to_string(m_count) + " (" + scenario.what + ")";
    const RecordSnapshot before = m_records.Read(Lane::Main, info, "before the perform call " + when);
    m_records.CheckTaskId(before);
    info.detailErrorText = RQText{nullptr, 0};
    const auto parameters = std::make_unique<ParameterView>(m_parameters);
    milliseconds limit =
        std::max<milliseconds>(std::chrono::seconds(1), std::chrono::seconds(m_options.time_s) / 6);
    m_isCutShort = false;
    m_stoppedAt_us = 0;
    m_seen = {};
    const std::size_t threads = platform::ThreadCount();
    if (scenario.isCancelledBefore) {
        Stop(RQ_STOP_CANCEL);
        limit = milliseconds(0);
    }
    PerformArguments arguments;
    arguments.info = &info;
    arguments.stopFlag = m_stopFlag;
    arguments.progress = PerformWatch::Callback();
    arguments.parameters = parameters->Plain();
    arguments.context = m_watch.Begin({.info = &info,
                                       .isTwoPass = IsTwoPass(info),
                                       .canPause = (m_facts.abilities & RQ_ABILITY_PAUSE) != 0,
                                       .patrol = std::chrono::seconds(m_options.patrol_s)});
    m_services.BeginPerform();
    m_probe.SetPerforming(true);
    RQStore32(&info.status, RQ_STATUS_RUNNING);
    m_running = &info;
    const std::int64_t begin_us = NowUs();
    m_limitAt_us = begin_us + duration_cast<microseconds>(limit).count();
    m_link.Begin(scenario.actions);
    const auto thrown = m_calls.Perform(arguments, limit, when);
    const std::int64_t end_us = NowUs();
    m_watch.End();
    m_link.End();
    m_calls.PerformEnded();
    m_running = nullptr;
    m_probe.SetPerforming(false);
    outcome.isPerformed = true;
    outcome.isCutShort = m_isCutShort;
    outcome.stop = RQLoad32(m_stopFlag);
    outcome.length = {m_watch.Calls(), microseconds(end_us - begin_us)};
    const std::int64_t stoppedAt_us = m_stoppedAt_us;
    const milliseconds sinceStop(stoppedAt_us == 0 ? 0
                                                   : std::max<std::int64_t>(0, end_us - stoppedAt_us) / 1000);
    CheckThreads(threads, when);
    CheckHostText();
    JudgeOutcome(thrown, info, when, sinceStop, outcome);
    const RecordSnapshot after = m_records.Read(Lane::Main, info, "after the perform call " + when);
    m_records.CheckFixed(before, after, "after the perform call " + when);
    m_records.CheckErrorTexts(after);
    const ResultTexts results = m_records.ReadResults(Lane::Main, info, "after the perform call " + when);
    m_records.CheckGrowth(m_seen, results, "after the perform call " + when);
    EndRecord(scenario, info, when);
}

void TaskDriver::CheckLent(const TaskText& lent, const std::string& when) {
    m_journal.Exercised(Check::HostText);
    if (!lent.Is(*m_options.task))
        m_journal.Tell(Check::HostText, "the task text was changed by the analysis " + when);
}

// The record that holds it has ended by now.
void TaskDriver::CheckHostText() {
    if (!m_isHostTextLent || std::equal(g_hostText, g_hostText + sizeof g_hostText, kHostText)) return;
    m_journal.Tell(Check::HostText, "the error texts that the worker had put into the record were changed");
    std::copy_n(kHostText, sizeof g_hostText, g_hostText);
}

void TaskDriver::CheckThreads(std::size_t before, const std::string& when) {
    m_journal.Exercised(Check::ThreadLeft);
    if (m_journal.IsTold(Check::ThreadLeft)) return;
    const std::size_t after = SettledThreadCount(before, kThreadPatience);
    if (after > before)
        m_journal.Tell(Check::ThreadLeft, std::to_string(after - before) + " thread(s) more, " +
                                              Milliseconds(kThreadPatience) + " after the perform call " +
                                              when);
}

// ---- how it ended ----

void TaskDriver::JudgeOutcome(const std::optional<std::string>& thrown, TaskInfo& info,
                              const std::string& when, milliseconds sinceStop, TaskOutcome& outcome) {
    for (const Check check : {Check::StatusRunning, Check::StatusUnknown, Check::TaskFailed})
        m_journal.Exercised(check);
    std::uint32_t status = RQLoad32(&info.status);
    if (thrown && status == RQ_STATUS_RUNNING) {
        status = RQ_STATUS_ERROR;
        RQStore32(&info.status, status);
    }
    if (outcome.stop != RQ_STOP_NONE) {
        if (sinceStop > milliseconds(0)) m_journal.Exercised(Check::StopLate);
        m_latestStop = std::max(m_latestStop, sinceStop);
        if (sinceStop > kStopLimit)
            m_journal.Tell(Check::StopLate, "the perform call " + when + " returned " +
                                                Milliseconds(sinceStop) + " after stop flag " +
                                                std::to_string(outcome.stop));
    }
    if (status == RQ_STATUS_RUNNING) {
        m_journal.Tell(Check::StatusRunning, "status 3 after the perform call " + when);
    } else if (status != RQ_STATUS_FINISHED && status != RQ_STATUS_ERROR && status != RQ_STATUS_CANCELLED) {
        m_journal.Tell(Check::StatusUnknown,
                       "status " + std::to_string(status) + " after the perform call " + when);
    } else {
        JudgeStop(status, info, when, sinceStop, outcome);
    }
    if (outcome.stop == RQ_STOP_NONE && status == RQ_STATUS_ERROR) {
        outcome.hasFailed = true;
        outcome.failure = thrown ? "the perform call " + when + " threw " + *thrown
                                 : "status 4 after the perform call " + when + ErrorWords(status, info);
    }
}

// What the plug-in says of a failure; empty for another status.
std::string TaskDriver::ErrorWords(std::uint32_t status, const TaskInfo& info) {
    if (status != RQ_STATUS_ERROR) return {};
    const Step step(m_journal, Lane::Main, "reading the error texts after a perform call", Check::TextMemory);
    return ", error code " + std::to_string(info.errorCode) + ": " +
           RepairUtf8(PluginTextView(info.detailErrorText));
}

void TaskDriver::JudgeStop(std::uint32_t status, const TaskInfo& info, const std::string& when,
                           milliseconds sinceStop, const TaskOutcome& outcome) {
    m_journal.Exercised(Check::StopStatus);
    const auto tell = [&](const std::string& asked) {
        m_journal.Tell(Check::StopStatus, "status " + std::to_string(status) + " after the perform call " +
                                              when + ", with stop flag " + std::to_string(outcome.stop) +
                                              "; asked is " + asked + ErrorWords(status, info));
    };
    if (outcome.stop == RQ_STOP_NONE) {
        if (status == RQ_STATUS_CANCELLED) tell("0 or 4: nobody stopped it");
    } else if (outcome.stop == RQ_STOP_CANCEL) {
        const bool isDone = status == RQ_STATUS_FINISHED && sinceStop <= kStopUnseen;
        if (status != RQ_STATUS_CANCELLED && !isDone) tell("5");
    } else if ((m_facts.abilities & RQ_ABILITY_FINISH) != 0 && status != RQ_STATUS_FINISHED) {
        tell("0, since it has RQ_ABILITY_FINISH");
    }
}

// What a worker does with the record after the call, and what may come until the next task.
void TaskDriver::EndRecord(const Scenario& scenario, TaskInfo& info, const std::string& when) {
    if (const auto error = m_services.EndPerform()) {
        info.detailErrorCode = error->detailErrorCode;
        info.errorCode = error->errorCode;
        info.detailErrorText = m_keeper.Keep(error->detailErrorText);
        info.furtherText = m_keeper.Keep(error->furtherText);
    }
    if (scenario.areTextsWritten) {
        std::copy_n(kHostText, sizeof g_hostText, g_hostText);
        m_isHostTextLent = true;
        info.detailErrorText = info.furtherText = RQText{g_hostText, sizeof g_hostText - 1};
    }
    m_performed = m_records.Read(Lane::Main, info, "after the perform call " + when);
    m_journal.Exercised(Check::TextMemory);
    m_journal.Exercised(Check::RecordChanged);
    m_journal.Exercised(Check::ResultList);
    m_journal.Exercised(Check::InvalidUtf8);
    if (!scenario.isUpdatedAfter) return;
    std::thread([&] { Update(&info, "for an update just after the perform call " + when); }).join();
    CheckPerformedRecord("after an update that landed just after the perform call");
}

// ---- the link thread ----

void TaskDriver::CarryOut(Order order) {
    switch (order) {
        case Order::Suspend:
            m_watch.Suspend();
            break;
        case Order::Resume:
            m_watch.Resume();
            break;
        case Order::Cancel:
            Stop(RQ_STOP_CANCEL);
            m_calls.StopOrdered(RQ_STOP_CANCEL);
            break;
        case Order::Finish:
            Stop(RQ_STOP_FINISH);
            m_calls.StopOrdered(RQ_STOP_FINISH);
            break;
        case Order::Update:
            Update(m_running, "for an update beside the perform call");
            break;
    }
}

void TaskDriver::Stop(std::uint32_t flag) {
    m_stoppedAt_us = NowUs();
    RQStore32(m_stopFlag, flag);
    m_services.NotifyStop();
}

// A task that takes longer than this check has time for is cancelled.
void TaskDriver::Look() {
    TaskInfo* info = m_running;
    if (info == nullptr) return;
    const ResultTexts now = m_records.ReadResults(Lane::Link, *info, "beside the perform call");
    m_records.CheckGrowth(m_seen, now, "beside the perform call");
    m_seen = now;
    if (NowUs() > m_limitAt_us && RQLoad32(m_stopFlag) == RQ_STOP_NONE) {
        m_isCutShort = true;
        Stop(RQ_STOP_CANCEL);
        m_calls.StopOrdered(RQ_STOP_CANCEL);
    }
}

void TaskDriver::Update(TaskInfo* before, const std::string& when) {
    TaskText& text = NewText(*m_options.task, false);
    const auto result = m_calls.Analyse(Lane::Link, text.Text(), before, when);
    if (!result || !m_records.CheckUsable(Lane::Link, result->info, when)) return;
    if ((m_facts.abilities & RQ_ABILITY_UPDATE) != 0 && result->code != 0)
        m_journal.Remark("an update with the same text returned " + std::to_string(result->code));
    m_records.CheckBorrowed(*result->info, text, when);
    Poison(text);
}

}  // namespace rq::plugincheck

// PluginCalls: the plug-in's five functions, each called as a worker calls it, with the watchdog on it and
// exceptions taken for what they are. Main thread; Analyse also on the link thread.
#pragma once

#include <rqworker/plugin.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "plughost/plugin_library.h"
#include "plugincheck/journal.h"
#include "plugincheck/watchdog.h"

namespace rq::plugincheck {

struct AnalyseResult {
    std::int32_t code = 0;
    TaskInfo* info = nullptr;
};

struct PerformArguments {
    TaskInfo* info = nullptr;
    const volatile std::uint32_t* stopFlag = nullptr;
    RQProgressCallback progress = nullptr;
    void* context = nullptr;
    const RQRunningParameter* parameters = nullptr;
};

class PluginCalls {
  public:
    PluginCalls(JournalWriter& journal, Watchdog& watchdog, std::chrono::milliseconds patience)
        : m_journal(journal), m_watchdog(watchdog), m_patience(patience) {}

    WorkerPlugin& Library() { return m_plugin; }

    // Nothing when an exception left the function; it is told.
    std::optional<const RQPluginDescription*> Describe(const RQHostServices* host);
    std::optional<std::int32_t> Init(const void* parameter);
    // `when` completes "RQWorkerAnalyseTask ".
    std::optional<AnalyseResult> Analyse(Lane lane, RQText text, TaskInfo* before, const std::string& when);
    void Release();
    // What it threw, if it did: that is allowed. `limit`: how long the call may take before anything stops
    // it.
    std::optional<std::string> Perform(const PerformArguments& arguments, std::chrono::milliseconds limit,
                                       const std::string& when);
    // While Perform runs: a stop was ordered, from now on the patience counts.
    void StopOrdered(std::uint32_t flag);
    // After Perform, when no stop can be ordered any more.
    void PerformEnded() { m_watchdog.Unwatch(Lane::Main); }

  private:
    std::optional<std::string> Call(Lane lane, const std::string& what, std::chrono::milliseconds limit,
                                    const std::function<void()>& call);
    bool Guarded(Lane lane, const std::string& what, const std::function<void()>& call);

    JournalWriter& m_journal;
    Watchdog& m_watchdog;
    std::chrono::milliseconds m_patience;
    WorkerPlugin m_plugin;
};

}  // namespace rq::plugincheck

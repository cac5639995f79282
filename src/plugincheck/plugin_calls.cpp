#include "plugincheck/plugin_calls.h"

#include <exception>

namespace rq::plugincheck {

std::optional<std::string> PluginCalls::Call(Lane lane, const std::string& what,
                                             std::chrono::milliseconds limit,
                                             const std::function<void()>& call) {
    const Step step(m_journal, lane, what);
    m_watchdog.Watch(lane, what, limit);
    std::optional<std::string> thrown;
    try {
        call();
    } catch (const std::exception& exception) {
        thrown = std::string("an exception: ") + (exception.what() != nullptr ? exception.what() : "");
    } catch (...) {
        thrown = "something that is no std::exception";
    }
    m_watchdog.Unwatch(lane);
    m_journal.Exercised(Check::Crash);
    m_journal.Exercised(Check::NoReturn);
    return thrown;
}

bool PluginCalls::Guarded(Lane lane, const std::string& what, const std::function<void()>& call) {
    const auto thrown = Call(lane, what, m_patience, call);
    if (thrown) m_journal.Tell(Check::Exception, what + " threw " + *thrown);
    m_journal.Exercised(Check::Exception);
    return !thrown;
}

std::optional<const RQPluginDescription*> PluginCalls::Describe(const RQHostServices* host) {
    const RQPluginDescription* description = nullptr;
    if (!Guarded(Lane::Main, "RQWorkerDescribe", [&] { description = m_plugin.pDescribeFunc(host); }))
        return std::nullopt;
    return description;
}

std::optional<std::int32_t> PluginCalls::Init(const void* parameter) {
    std::int32_t code = 0;
    if (!Guarded(Lane::Main, "RQWorkerInit", [&] { code = m_plugin.pInitFunc(parameter); }))
        return std::nullopt;
    return code;
}

std::optional<AnalyseResult> PluginCalls::Analyse(Lane lane, RQText text, TaskInfo* before,
                                                  const std::string& when) {
    AnalyseResult result;
    result.info = before;
    if (!Guarded(lane, "RQWorkerAnalyseTask " + when,
                 [&] { result.code = m_plugin.pAnalyseTaskFunc(text, &result.info); }))
        return std::nullopt;
    return result;
}

void PluginCalls::Release() {
    Guarded(Lane::Main, "RQWorkerRelease", [&] { m_plugin.pReleaseFunc(); });
}

std::optional<std::string> PluginCalls::Perform(const PerformArguments& arguments,
                                                std::chrono::milliseconds limit, const std::string& when) {
    return Call(Lane::Main, "RQWorkerPerformTask " + when, limit + m_patience, [&] {
        m_plugin.pPerformTaskFunc(arguments.info, arguments.stopFlag, arguments.progress, arguments.context,
                                  arguments.parameters);
    });
}

void PluginCalls::StopOrdered(std::uint32_t flag) {
    m_watchdog.Watch(Lane::Main, "RQWorkerPerformTask after stop flag " + std::to_string(flag), m_patience);
}

}  // namespace rq::plugincheck

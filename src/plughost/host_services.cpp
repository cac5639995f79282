#include "plughost/host_services.h"

#include <algorithm>
#include <filesystem>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "base/remove_tree.h"
#include "base/sync.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/process.h"

namespace rq {
namespace {

// One log line: breaks inside it would look like lines of the worker's own.
std::string OneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    return text;
}

constexpr std::int32_t kHighestLogLevel = 5;
constexpr std::int32_t kResultTaken = 0;
constexpr std::int32_t kResultRefused = -1;

}  // namespace

class HostServices::Core {
  public:
    Core(std::string pluginName, const volatile std::uint32_t* stopFlag, Callbacks callbacks, Clock& clock)
        : m_clock(clock),
          m_stopFlag(stopFlag),
          m_callbacks(std::move(callbacks)),
          m_calls(clock),
          m_pluginName(std::move(pluginName)) {}

    // ---- calls under way ----

    // False after End: the caller does nothing then.
    bool Enter() {
        Signal::Hold hold(m_calls);
        if (m_isEnded) return false;
        ++m_callCount;
        return true;
    }
    void Leave() {
        Signal::Hold hold(m_calls);
        if (--m_callCount == 0) m_calls.Notify(hold);
    }
    void EndCalls() {
        {
            Signal::Hold hold(m_calls);
            if (m_isEnded) return;
            m_isEnded = true;
        }
        WakeWaiters();
        Signal::Hold hold(m_calls);
        while (m_callCount > 0) m_calls.WaitFor(hold, std::chrono::hours(1));
    }

    // ---- what the plug-in calls ----

    void Log(std::int32_t level, std::string text) {
        const std::string name = PluginName();
        if (m_callbacks.log)
            m_callbacks.log(std::clamp(level, std::int32_t{1}, kHighestLogLevel), OneLine(std::move(text)),
                            name);
    }
    PluginLog LogSink() {
        return [this](int level, std::string text) { Log(level, std::move(text)); };
    }
    std::string PluginName() {
        MutexLock lock(m_mutex);
        return m_pluginName;
    }

    std::uint32_t WaitForStop(std::chrono::milliseconds timeout) {
        const SteadyTime deadline = m_clock.Steady() + timeout;
        Signal wake(m_clock);
        Waiter waiter(*this, wake);
        for (;;) {
            const std::uint32_t stop = RunningStop();
            if (stop != RQ_STOP_NONE || IsEnded()) return stop;
            if (!wake.WaitUntil(deadline)) return RunningStop();
        }
    }

    void PublishError(PublishedError error) {
        MutexLock lock(m_mutex);
        if (m_isRunning) m_error = std::move(error);
    }

    std::int32_t PublishResult(std::uint32_t kind, const void* entry) {
        TaskResultCopy copy;
        if (!AppendResult(copy, kind, entry, PluginName(), LogSink())) return kResultRefused;
        MutexLock lock(m_mutex);
        if (!m_isRunning) return kResultRefused;
        AppendResults(m_results, std::move(copy));
        return kResultTaken;
    }

    void QuietFor(std::chrono::seconds duration) {
        if (m_callbacks.quietFor) m_callbacks.quietFor(duration);
    }

    // ---- what the runner calls ----

    void SetPluginName(std::string name) {
        MutexLock lock(m_mutex);
        m_pluginName = std::move(name);
    }
    void ForgetTask() {
        MutexLock lock(m_mutex);
        m_results = {};
        m_error.reset();
    }
    void BeginPerform() {
        {
            MutexLock lock(m_mutex);
            m_isRunning = true;
        }
        WakeWaiters();
    }
    std::optional<PublishedError> EndPerform() {
        MutexLock lock(m_mutex);
        m_isRunning = false;
        return std::exchange(m_error, std::nullopt);
    }
    TaskResultCopy PublishedResults() {
        MutexLock lock(m_mutex);
        return m_results;
    }
    void WakeWaiters() {
        MutexLock lock(m_mutex);
        for (Signal* waiter : m_waiters) waiter->Notify();
    }

  private:
    // One thread in waitForStop. It is on the list before it looks at the stop flag, and the flag is stored
    // before the list is woken: one of the two sees the other.
    class Waiter {
      public:
        Waiter(Core& core, Signal& wake) : m_core(core), m_wake(wake) {
            MutexLock lock(m_core.m_mutex);
            m_core.m_waiters.push_back(&m_wake);
        }
        ~Waiter() {
            MutexLock lock(m_core.m_mutex);
            std::erase(m_core.m_waiters, &m_wake);
        }
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

      private:
        Core& m_core;
        Signal& m_wake;
    };

    // The stop flag outlives its task; it counts only while one runs.
    std::uint32_t RunningStop() {
        MutexLock lock(m_mutex);
        return m_isRunning ? RQLoad32(m_stopFlag) : RQ_STOP_NONE;
    }
    bool IsEnded() {
        Signal::Hold hold(m_calls);
        return m_isEnded;
    }

    Clock& m_clock;
    const volatile std::uint32_t* const m_stopFlag;
    const Callbacks m_callbacks;

    Signal m_calls;
    bool m_isEnded RQ_GUARDED_BY(m_calls) = false;
    int m_callCount RQ_GUARDED_BY(m_calls) = 0;

    Mutex m_mutex;
    std::string m_pluginName RQ_GUARDED_BY(m_mutex);
    bool m_isRunning RQ_GUARDED_BY(m_mutex) = false;
    std::optional<PublishedError> m_error RQ_GUARDED_BY(m_mutex);
    TaskResultCopy m_results RQ_GUARDED_BY(m_mutex);
    std::vector<Signal*> m_waiters RQ_GUARDED_BY(m_mutex);
};

// Lives until the process ends, because the plug-in holds it; so does the text of the temporary folder.
struct HostServices::Port {
    RQHostServices plain{};
    Mutex mutex;
    std::weak_ptr<Core> coreLink RQ_GUARDED_BY(mutex);
    bool isFolderTried RQ_GUARDED_BY(mutex) = false;
    std::string folder RQ_GUARDED_BY(mutex);

    // Runs `call` with the core unless the services have ended. Nothing may be thrown into the plug-in; the
    // only thing that can be is a lack of memory, and the call then has no effect.
    template <class Result, class Call>
    static Result With(void* context, Result fallback, Call call) noexcept {
        auto* port = static_cast<Port*>(context);
        if (port == nullptr) return fallback;
        std::shared_ptr<Core> core = port->GetCore();
        if (core == nullptr || !core->Enter()) return fallback;
        Result result = fallback;
        try {
            result = call(*core, *port);
        } catch (...) {
        }
        core->Leave();
        return result;
    }

    std::shared_ptr<Core> GetCore() noexcept {
        MutexLock lock(mutex);
        return coreLink.lock();
    }

    RQText Folder();
    void RemoveFolder();
    void FillServices();
};

RQText HostServices::Port::Folder() {
    MutexLock lock(mutex);
    if (!isFolderTried) {
        isFolderTried = true;
        std::error_code error;
        const std::filesystem::path top = std::filesystem::temp_directory_path(error);
        const std::string name =
            "rqworker-" + std::to_string(platform::CurrentProcessId()) + "-" + platform::RandomHex(8);
        std::string path = Utf8FromPath(top / name);
        if (!error && platform::CreatePrivateFolder(path)) folder = std::move(path);
    }
    return {folder.data(), folder.size()};
}

void HostServices::Port::RemoveFolder() {
    MutexLock lock(mutex);
    if (folder.empty()) return;
    // A file that another program holds open stays; the system's own clean-up finds it.
    RemoveTree(PathFromUtf8(folder));
}

void HostServices::Port::FillServices() {
    plain.size = sizeof plain;
    plain.contractVersion = RQ_CONTRACT_VERSION;
    plain.context = this;
    plain.log = [](void* context, std::int32_t level, RQText text) {
        With(context, 0, [&](Core& core, Port&) {
            bool isReplaced = false;
            std::string repaired = RepairUtf8(PluginTextView(text), &isReplaced);
            core.Log(level, std::move(repaired));
            if (isReplaced)
                core.Log(3, "plug-in " + core.PluginName() +
                                ": the line before is not UTF-8; what is wrong became U+FFFD");
            return 0;
        });
    };
    plain.waitForStop = [](void* context, std::uint32_t timeout_ms) {
        return With(context, RQ_STOP_NONE, [&](Core& core, Port&) {
            return core.WaitForStop(std::chrono::milliseconds(timeout_ms));
        });
    };
    plain.publishError = [](void* context, std::uint32_t detailErrorCode, std::int32_t errorCode,
                            RQText detail, RQText further) {
        With(context, 0, [&](Core& core, Port&) {
            const std::string name = core.PluginName();
            core.PublishError({detailErrorCode, errorCode, RepairPluginText(detail, name, core.LogSink()),
                               RepairPluginText(further, name, core.LogSink())});
            return 0;
        });
    };
    plain.publishResult = [](void* context, std::uint32_t kind, const void* entry) {
        return With(context, kResultRefused,
                    [&](Core& core, Port&) { return core.PublishResult(kind, entry); });
    };
    plain.quietFor = [](void* context, std::uint32_t seconds) {
        With(context, 0, [&](Core& core, Port&) {
            core.QuietFor(std::chrono::seconds(seconds));
            return 0;
        });
    };
    plain.temporaryFolder = [](void* context) {
        return With(context, RQText{nullptr, 0}, [](Core&, Port& port) { return port.Folder(); });
    };
}

HostServices::HostServices(std::string pluginName, const volatile std::uint32_t* stopFlag,
                           Callbacks callbacks, Clock& clock)
    : m_core(std::make_shared<Core>(std::move(pluginName), stopFlag, std::move(callbacks), clock)) {
    // Every port that was ever made stays reachable from here, so that a leak checker sees that it is meant.
    static Mutex portsMutex;
    static auto& ports = *new std::vector<std::unique_ptr<Port>>();
    auto port = std::make_unique<Port>();
    port->coreLink = m_core;
    port->FillServices();
    m_port = port.get();
    MutexLock lock(portsMutex);
    ports.push_back(std::move(port));
}

HostServices::~HostServices() {
    End();
}

const RQHostServices* HostServices::Plain() const {
    return &m_port->plain;
}
void HostServices::SetPluginName(std::string name) {
    m_core->SetPluginName(std::move(name));
}
void HostServices::ForgetTask() {
    m_core->ForgetTask();
}
void HostServices::BeginPerform() {
    m_core->BeginPerform();
}
std::optional<PublishedError> HostServices::EndPerform() {
    return m_core->EndPerform();
}
void HostServices::NotifyStop() {
    m_core->WakeWaiters();
}
TaskResultCopy HostServices::PublishedResults() const {
    return m_core->PublishedResults();
}

void HostServices::End() {
    m_core->EndCalls();
    m_port->RemoveFolder();
}

}  // namespace rq

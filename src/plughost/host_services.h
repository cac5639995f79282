// HostServices: what the worker gives to its one plug-in (RQHostServices), and what the runner gets of it.
//
// The plain record that the plug-in holds is never freed: a plug-in may call it until the process ends, on
// any thread, also after this object is gone; such a call then does nothing. The object is owned by the
// plug-in runner. End() ends waits, lets calls that are under way finish, and removes the temporary folder;
// call it after RQWorkerRelease, never from a host service.
//
// Order of calls by the runner (main thread): SetPluginName after the description; for each task ForgetTask
// before the analysis (not for an update), BeginPerform and EndPerform around the perform call. NotifyStop
// comes from any thread, after the stop flag was stored. PublishedResults may be called on any thread.
#pragma once

#include <rqworker/plugin.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.h"
#include "plughost/result_copy.h"

namespace rq {

// Error fields that the plug-in published; texts are valid UTF-8.
struct PublishedError {
    std::uint32_t detailErrorCode = 0;
    std::int32_t errorCode = 0;
    std::string detailErrorText;
    std::string furtherText;
};

class HostServices {
  public:
    // The callbacks are called on the plug-in's threads, several at once, and never after End().
    struct Callbacks {
        // One line to the worker's log; the module is the plug-in's name.
        std::function<void(int level, std::string utf8, std::string module)> log;
        // No progress will come for so long from now.
        std::function<void(std::chrono::seconds)> quietFor;
    };

    // `stopFlag` (accessed with RQLoad32) must live until End().
    HostServices(std::string pluginName, const volatile std::uint32_t* stopFlag, Callbacks callbacks,
                 Clock& clock = SystemClock());
    ~HostServices();  // calls End
    HostServices(const HostServices&) = delete;
    HostServices& operator=(const HostServices&) = delete;

    const RQHostServices* Plain() const;
    void SetPluginName(std::string name);

    // A new task begins: what the one before published is dropped.
    void ForgetTask();
    // The perform call begins; from here to EndPerform errors and results are taken and waitForStop sees the
    // stop flag.
    void BeginPerform();
    // The perform call has returned or thrown: the error that the plug-in published last, to be applied now.
    std::optional<PublishedError> EndPerform();
    // The stop flag was set: wakes every thread in waitForStop.
    void NotifyStop();
    // A copy of the results that the current task has published so far.
    TaskResultCopy PublishedResults() const;

    void End();

  private:
    struct Port;  // the immortal record that the plug-in holds
    class Core;
    std::shared_ptr<Core> m_core;
    Port* m_port;  // never freed
};

}  // namespace rq

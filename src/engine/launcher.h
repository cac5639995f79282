// Launcher: starts worker processes, takes over those of an earlier run of the engine, tells when they ended,
// ends their trees. For each start it writes a parameter file of its own, readable by the engine's user
// alone, and takes it away at the end. A thread for each worker waits for its end and posts it to the I/O
// thread; everything else runs on the I/O thread. Workers, and the threads that wait for them, outlive the
// launcher.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "base/result.h"
#include "base/sync.h"
#include "engine/settings.h"
#include "engine/store_types.h"
#include "platform/process.h"

namespace rq::engine {

// What a start gives back. Owned by the launcher until the end has been told.
struct LaunchedWorker {
    std::uint64_t processId = 0;
    std::string name;    // of its files, without their endings
    std::string output;  // file with its standard output and error streams
    std::string mark;    // platform::ProcessMark
};

class Launcher {
  public:
    using OnExit = std::function<void(const std::string& token, const WorkerExit& exit)>;

    // `linkToken` is handed to workers in their environment.
    Launcher(boost::asio::io_context& io, const EngineSettings& settings, std::string linkToken);
    // Leaves alone what still runs.
    ~Launcher();
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    void SetOnExit(OnExit onExit) { m_onExit = std::move(onExit); }
    // Makes the folders.
    Result<void> Prepare();
    // Removes the parameter files that earlier runs left, except those with these names.
    void RemoveLeftovers(const std::set<std::string>& names);

    Result<LaunchedWorker> Start(const Claim& claim, std::uint16_t linkPort);
    // A worker that an earlier run of the engine started, from now on as one of ours; `name` is that of its
    // files. False: it has ended, and its files are concluded. One of which nobody can say that is there.
    bool TakeOver(const std::string& token, const std::string& name, std::uint64_t processId,
                  const std::string& mark);
    // Tells the end of a process that is not ours to end. False: it has ended.
    bool Watch(const std::string& token, std::uint64_t processId, const std::string& mark);
    // Ends a worker that was given up, and is not watched any more, with its tree. False: this process is
    // not that one, or it cannot be told.
    bool EndStray(const std::string& token, std::uint64_t processId, const std::string& mark);
    // Ends what the gone worker of an earlier run left behind.
    void EndLeftTree(const std::string& token, std::uint64_t processId);
    // The worker of an attempt whose process an earlier run did not live to record; 0: there surely is none,
    // nothing: it cannot be told.
    std::optional<std::uint64_t> FindStarted(const std::string& token) const;
    // The name of the files that were made for the attempt, when the store does not know it; empty: none.
    std::string NameOf(const Claim& claim) const;
    // Where what the worker with this name writes to its streams is kept; empty without a name.
    std::string OutputOf(const std::string& name) const;
    // The worker and whatever it started. Nothing happens when it has ended, is not ours to end, or cannot be
    // looked at now.
    void KillTree(const std::string& token);
    bool Has(const std::string& token) const { return m_workers.contains(token); }
    // Watched processes do not count.
    std::size_t Running() const;
    // Where the workers' logs and crash reports go.
    std::string LogFolder() const;

  private:
    struct Worker {
        std::shared_ptr<platform::ChildProcess> child;
        std::string name;  // of its files; empty for one that is watched alone
        bool isOurs = true;
        std::thread waiter;
    };
    // What the waiters share with the launcher, which may be gone before them.
    struct Gate {
        Mutex mutex;
        Launcher* launcher RQ_GUARDED_BY(mutex) = nullptr;
    };

    platform::ProcessSpec SpecFor(const Claim& claim, const std::string& file, const std::string& output,
                                  std::uint16_t linkPort) const;
    void Wait(const std::string& token, Worker worker);
    void Conclude(const std::string& name);
    void TakeExit(const std::string& token, const platform::ExitStatus& status);

    boost::asio::io_context& m_io;
    const EngineSettings& m_settings;
    const std::string m_linkToken;
    OnExit m_onExit;
    const std::shared_ptr<Gate> m_gate = std::make_shared<Gate>();
    std::map<std::string, Worker> m_workers;  // by the attempt's token
};

// "worker ended by signal 9", "worker ended with exit code 0"
std::string ExitText(const WorkerExit& exit);

}  // namespace rq::engine

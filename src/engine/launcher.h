// Launcher: starts worker processes, tells when they ended, ends their trees. For each start it writes a
// parameter file of its own, readable by the engine's user alone, and takes it away at the end. A thread for
// each worker waits for its end and posts it to the I/O thread; everything else runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "base/result.h"
#include "engine/settings.h"
#include "engine/store_types.h"
#include "platform/process.h"

namespace rq::engine {

// What a start gives back. Owned by the launcher until the end has been told.
struct LaunchedWorker {
    std::uint64_t processId = 0;
    std::string name;    // of its files, without their endings
    std::string output;  // file with its standard output and error streams
};

class Launcher {
  public:
    using OnExit = std::function<void(const std::string& token, const WorkerExit& exit)>;

    // `linkToken` is handed to workers in their environment.
    Launcher(boost::asio::io_context& io, const EngineSettings& settings, std::string linkToken);
    // Ends and awaits what still runs.
    ~Launcher();
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    void SetOnExit(OnExit onExit) { m_onExit = std::move(onExit); }
    // Makes the folders and removes parameter files that an earlier run left.
    Result<void> Prepare();

    Result<LaunchedWorker> Start(const Claim& claim, std::uint16_t linkPort);
    // The worker and whatever it started. Nothing happens when it has ended.
    void KillTree(const std::string& token);
    std::size_t Running() const { return m_workers.size(); }
    // Where the workers' logs and crash reports go.
    std::string LogFolder() const;

  private:
    struct Worker {
        std::shared_ptr<platform::ChildProcess> child;
        std::string parameterFile;
        std::thread waiter;
    };

    platform::ProcessSpec SpecFor(const Claim& claim, const std::string& file, const std::string& output,
                                  std::uint16_t linkPort) const;
    void Wait(const std::string& token, Worker& worker);
    void TakeExit(const std::string& token, const platform::ExitStatus& status);

    boost::asio::io_context& m_io;
    const EngineSettings& m_settings;
    const std::string m_linkToken;
    OnExit m_onExit;
    std::map<std::string, Worker> m_workers;  // by the attempt's token
};

// "worker ended by signal 9", "worker ended with exit code 0"
std::string ExitText(const WorkerExit& exit);

}  // namespace rq::engine

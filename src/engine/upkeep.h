// Upkeep: what the engine does for itself beside tasks: removes what is no longer kept, at intervals and when
// asked, and copies the store when asked. Work is done in small steps between the engine's other work.
// Everything runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "engine/engine_log.h"
#include "engine/retention.h"
#include "engine/settings.h"
#include "engine/store.h"

namespace rq::engine {

struct GarbageReport {
    RemovedByKind files;
    std::int64_t events = 0;
};

class Upkeep {
  public:
    using OnCopied = std::function<void(Result<std::uint64_t> bytes)>;
    using OnCollected = std::function<void(Result<GarbageReport> report)>;
    using NamesInUse = std::function<std::set<std::string>()>;

    // `inUse` tells the names of the files of workers that run.
    Upkeep(boost::asio::io_context& io, Store& store, EngineLog& log, const EngineSettings& settings,
           std::string logRoot, NamesInUse inUse);

    // The first removal comes after one interval.
    void Start();
    // From now on nothing new is begun by itself, and what is under way ends with an error.
    void Stop();
    // Asked again while a removal is under way, that one's report answers both.
    void Collect(OnCollected done);
    // One at a time. `path` is absolute.
    void Copy(const std::string& path, OnCopied done);

  private:
    void Arm();
    void DropEvents();
    void Conclude(const Result<GarbageReport>& report);
    void StepCopy();
    void EndCopy(const Result<std::uint64_t>& result);

    boost::asio::io_context& m_io;
    Store& m_store;
    EngineLog& m_log;
    const Retention m_kept;
    const std::string m_logRoot;
    const std::string m_dataFolder;
    const NamesInUse m_inUse;
    boost::asio::steady_timer m_timer;
    std::vector<OnCollected> m_collecting;
    GarbageReport m_report;
    std::unique_ptr<StoreCopy> m_copy;
    std::string m_copyPath;
    OnCopied m_copied;
    bool m_stopped = false;
};

}  // namespace rq::engine

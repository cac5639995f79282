#include "engine/engine.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <filesystem>
#include <optional>

#include "base/paths.h"
#include "engine/api.h"
#include "engine/captured_output.h"
#include "engine/connection_limits.h"
#include "engine/data_folder.h"
#include "engine/engine_log.h"
#include "engine/http_connection.h"
#include "engine/json.h"
#include "engine/listener.h"
#include "engine/scheduler.h"
#include "engine/version.h"
#include "engine/worker_traces.h"
#include "platform/file_limit.h"
#include "platform/process.h"

namespace rq::engine {

namespace {

// For the answers that are under way when everything else has ended.
constexpr std::chrono::milliseconds kLastAnswers(200);
// How often the data folder is looked at.
constexpr std::chrono::seconds kFolderWatch(1);

EngineSettings Completed(EngineSettings settings) {
    if (settings.logFolder.empty())
        settings.logFolder = Utf8FromPath(PathFromUtf8(settings.dataFolder) / "logs");
    return settings;
}

class EngineImpl final : public Engine, public ApiHost {
  public:
    explicit EngineImpl(const EngineSettings& settings) : m_settings(Completed(settings)) {}

    Result<void> Start();
    void Run() override;
    void RequestEnd(End how) override {
        boost::asio::post(m_io, [this, how] { BeginEnd(how); });
    }
    void RequestEndFromApi(bool cancel) override {
        RequestEnd(cancel ? End::CancelTasks : End::LeaveWorkers);
    }
    const std::string& Farewell() const override { return m_farewell; }
    const std::string& Failure() const override { return m_failure; }
    std::uint16_t LinkPort() const override { return m_links->Port(); }
    std::uint16_t HttpPort() const override { return m_pages->Port(); }
    const std::string& Token() const override { return m_folder->Token(); }

  private:
    Result<void> OpenStore();
    Result<void> Listen();
    void WarnIfOpen(const std::string& what, const std::string& address, std::uint16_t port);
    bool IsOpenToOthers() const override { return !m_settings.httpListen.empty(); }
    Result<void> ListenForWorkers();
    // Ends when the data folder is gone: what would be accepted from then on would be lost.
    bool IsFolderThere();
    void WatchFolder();
    void BeginEnd(End how);
    void LeaveWorkers();
    void OnWorkersGone();

    Facts GetFacts() const override {
        return {platform::CurrentProcessId(),
                m_started_us,
                LinkPort(),
                HttpPort(),
                m_scheduler->Workers(),
                m_scheduler->MaxWorkers(),
                m_scheduler->Ending(),
                Utf8FromPath(PathFromUtf8(m_settings.logFolder) / "engine.log"),
                m_scheduler->Held()};
    }
    // After the answer: what a start takes is not the client's time.
    void OnSubmitted() override {
        boost::asio::post(m_io, [this] { m_scheduler->Pump(); });
    }
    Result<OrderOutcome> GiveOrder(std::int64_t task, StateEvent order, const std::string& text) override {
        return m_scheduler->Order(task, order, "api", text);
    }
    Result<bool> Drain(std::int32_t type) override { return m_scheduler->Drain(type, "api"); }
    Result<bool> GoOn(std::int32_t type) override { return m_scheduler->GoOn(type); }
    std::vector<WaitReason> WhyWaits(const TaskRow& task) override { return m_scheduler->WhyWaits(task); }
    std::optional<FieldError> Accept(NewTask& task) const override { return m_scheduler->Accept(task); }
    NodeFacts GetNodeFacts() const override { return m_scheduler->GetNodeFacts(); }
    MetricsFacts GetMetricsFacts() const override;
    void CollectGarbage(Upkeep::OnCollected done) override { m_upkeep->Collect(std::move(done)); }
    void Backup(const std::string& file, Upkeep::OnCopied done) override {
        m_upkeep->Copy(file, std::move(done));
    }
    const PathMap& Paths() const override { return m_settings.paths; }
    std::optional<std::string> SubmitTrouble() override {
        if (IsFolderThere()) return std::nullopt;
        return m_failure;
    }
    std::optional<std::string> HoldReason(std::int32_t type) const override {
        const auto found = m_scheduler->Held().find(type);
        if (found == m_scheduler->Held().end()) return std::nullopt;
        return "waits: " + found->second;
    }
    void FindTraces(AttemptRow& attempt) const override;

    const EngineSettings m_settings;
    // Destroyed last to first: the I/O context goes after everything that has operations on it.
    std::unique_ptr<DataFolder> m_folder;
    std::unique_ptr<EngineLog> m_log;
    boost::asio::io_context m_io{1};
    std::unique_ptr<Store> m_store;
    std::unique_ptr<Launcher> m_launcher;
    std::unique_ptr<Scheduler> m_scheduler;
    std::unique_ptr<Upkeep> m_upkeep;
    std::unique_ptr<Api> m_api;
    std::unique_ptr<Listener> m_links, m_pages;
    std::optional<boost::asio::steady_timer> m_lastAnswers, m_folderWatch;
    std::string m_failure, m_farewell;
    std::vector<OpenAttempt> m_open;  // of an earlier run, until they are taken over
    std::int64_t m_started_us = 0;
};

Result<void> EngineImpl::Start() {
    auto folder = DataFolder::Open(m_settings.dataFolder);
    if (!folder) return folder.error();
    m_folder = std::move(*folder);
    m_launcher = std::make_unique<Launcher>(m_io, m_settings, Token());
    if (auto ready = m_launcher->Prepare(); !ready) return ready;
    m_log = std::make_unique<EngineLog>(m_settings.logFolder);
    if (auto opened = OpenStore(); !opened) return opened;
    m_scheduler = std::make_unique<Scheduler>(m_io, *m_store, *m_launcher, m_settings, Token(), *m_log);
    m_upkeep = std::make_unique<Upkeep>(m_io, *m_store, *m_log, m_settings, m_launcher->LogFolder(),
                                        [this] { return m_scheduler->RunningNames(); });
    m_api = std::make_unique<Api>(m_io, *m_store, *this, Token());
    m_store->SetListener(
        [this](std::int64_t task) { boost::asio::post(m_io, [this, task] { m_api->OnEvents(task); }); });
    if (auto listening = Listen(); !listening) return listening;
    if (auto taken = m_scheduler->TakeOver(std::exchange(m_open, {})); !taken) return taken;
    m_started_us = Store::SystemNow()();
    if (auto told = m_folder->Announce(LinkPort(), HttpPort(), m_started_us); !told) return told;
    m_log->Info("rqengine " + std::string(kVersion) + ": link 127.0.0.1:" + std::to_string(LinkPort()) +
                ", http 127.0.0.1:" + std::to_string(HttpPort()) + ", data " + m_settings.dataFolder);
    boost::asio::post(m_io, [this] { m_scheduler->Pump(); });
    m_folderWatch.emplace(m_io);
    WatchFolder();
    m_upkeep->Start();
    return {};
}

bool EngineImpl::IsFolderThere() {
    if (!m_failure.empty()) return false;
    const auto trouble = m_folder->Trouble();
    if (!trouble) return true;
    m_failure = *trouble + "; the engine ends, and what it accepted since then is lost";
    m_log->Warn(m_failure);
    BeginEnd(End::CancelTasks);
    return false;
}

void EngineImpl::WatchFolder() {
    m_folderWatch->expires_after(kFolderWatch);
    m_folderWatch->async_wait([this](const boost::system::error_code& error) {
        if (error || m_scheduler->Ending() || !IsFolderThere()) return;
        const auto folder = PathFromUtf8(m_launcher->LogFolder()) / "workers";
        for (const auto& name : m_scheduler->RunningNames())
            BoundOutput(Utf8FromPath(folder / PathFromUtf8(name + ".out")),
                        m_settings.outputLimit_MiB * 1024 * 1024);
        WatchFolder();
    });
}

// What a library throws ends the operation that it happened in, not the engine.
void EngineImpl::Run() {
    for (;;) {
        try {
            m_io.run();
            return;
        } catch (const std::exception& problem) {
            m_log->Warn(std::string("an operation failed: ") + problem.what());
        }
    }
}

Result<void> EngineImpl::OpenStore() {
    auto store = Store::Open(m_folder->File("store.db"), Store::SystemNow(), m_settings.durability);
    if (!store) return store.error();
    m_store = std::move(*store);
    m_store->SetRetryRules(m_settings.retry);
    auto open = m_store->OpenAttempts();
    if (!open) return open.error();
    m_open = std::move(*open);
    return {};
}

Result<void> EngineImpl::Listen() {
    const auto limits = LimitConnections(m_settings, platform::RaiseFileLimit());
    if (!limits) return limits.error();
    m_links = std::make_unique<Listener>(
        m_io, limits->link, [this](Listener::Socket socket, std::unique_ptr<Place> place) {
            std::make_shared<Session>(std::move(socket), *m_scheduler, m_settings, std::move(place))->Start();
        });
    m_pages = std::make_unique<Listener>(m_io, limits->http,
                                         [this](Listener::Socket socket, std::unique_ptr<Place> place) {
                                             ServeHttp(std::move(socket), *m_api, std::move(place));
                                         });
    if (auto listening = ListenForWorkers(); !listening) return listening;
    m_scheduler->SetLinkPort(LinkPort());
    if (auto listening = m_pages->Listen(m_settings.httpPort, m_settings.httpListen); !listening)
        return listening;
    WarnIfOpen("workers", m_settings.listen, LinkPort());
    WarnIfOpen("the HTTP API", m_settings.httpListen, HttpPort());
    return {};
}

void EngineImpl::WarnIfOpen(const std::string& what, const std::string& address, std::uint16_t port) {
    boost::system::error_code unknown;
    if (address.empty() || boost::asio::ip::make_address(address, unknown).is_loopback()) return;
    m_log->Warn(
        "port " + std::to_string(port) + " for " + what + " is open to other machines, at " + address +
        ": nothing there is encrypted. Who can read that network gets the token, and with it the right "
        "to have this node read, write and delete its user's files; let a firewall or a tunnel guard it");
}

// Workers of an earlier run look for their engine where it was.
Result<void> EngineImpl::ListenForWorkers() {
    const auto before = m_store->LinkPort();
    if (!before) return before.error();
    const bool isAwaited = !m_open.empty() && *before != 0;
    Result<void> listening = Fail("");
    if (isAwaited && m_settings.linkPort == 0) listening = m_links->Listen(*before, m_settings.listen);
    if (!listening) listening = m_links->Listen(m_settings.linkPort, m_settings.listen);
    if (!listening) return listening;
    if (isAwaited && LinkPort() != *before)
        m_log->Warn("workers of an earlier run look for their engine on port " + std::to_string(*before) +
                    ", which this engine " +
                    (m_settings.linkPort == 0 ? "cannot have: something else listens there"
                                              : "was not told to take") +
                    "; they will end, and their tasks are repeated or lost");
    return LinkPort() == *before ? Result<void>() : m_store->RememberLinkPort(LinkPort());
}

MetricsFacts EngineImpl::GetMetricsFacts() const {
    MetricsFacts facts;
    facts.version = kVersion;
    facts.now_us = Store::SystemNow()();
    facts.started_us = m_started_us;
    facts.workers = m_scheduler->Workers();
    facts.maxWorkers = m_scheduler->MaxWorkers();
    facts.held = m_scheduler->Held();
    facts.node = m_scheduler->GetNodeFacts();
    facts.queued = m_scheduler->CountHeld();
    std::error_code unknown;
    const auto size = std::filesystem::file_size(PathFromUtf8(m_folder->File("store.db")), unknown);
    facts.store_bytes = unknown ? 0 : size;
    for (const auto& [use, folder] :
         {std::pair("data", m_settings.dataFolder), std::pair("log", m_settings.logFolder)}) {
        const auto space = std::filesystem::space(PathFromUtf8(folder), unknown);
        if (!unknown) facts.disks.push_back({use, space.capacity, space.available});
    }
    return facts;
}

void EngineImpl::FindTraces(AttemptRow& attempt) const {
    WorkerLife life;
    life.name = Utf8FromPath(PathFromUtf8(attempt.output).stem());
    life.processId = static_cast<std::uint64_t>(attempt.processId.value_or(0));
    life.from_us = attempt.created_us;
    life.until_us = attempt.exited_us.value_or(Store::SystemNow()());
    WorkerTraces traces = FindWorkerTraces(m_launcher->LogFolder(), life);
    attempt.log = std::move(traces.log);
    attempt.crashReport = std::move(traces.crashReport);
}

void EngineImpl::BeginEnd(End how) {
    if (m_scheduler->Ending()) return;
    m_log->Info("the engine is ending");
    m_folderWatch->cancel();
    m_upkeep->Stop();
    // Without a window no worker waits for another engine.
    if (how == End::CancelTasks || m_settings.resumeWindow.count() == 0) {
        m_scheduler->BeginEnd([this] { OnWorkersGone(); });
        return;
    }
    LeaveWorkers();
    OnWorkersGone();
}

void EngineImpl::LeaveWorkers() {
    const std::size_t left = m_scheduler->Leave();
    if (left == 0) return;
    const auto until_us = Store::SystemNow()() + std::chrono::microseconds(m_settings.resumeWindow).count();
    m_farewell = std::to_string(left) + " worker(s) go on, and wait for an engine until " +
                 TimeText(until_us) + " (" + DurationText(m_settings.resumeWindow) + ")";
    m_log->Info(m_farewell);
}

void EngineImpl::OnWorkersGone() {
    m_links->Stop();
    m_pages->Stop();
    m_api->EndWaits();
    m_lastAnswers.emplace(m_io, kLastAnswers);
    m_lastAnswers->async_wait([this](const boost::system::error_code&) {
        m_folder->Withdraw();
        m_log->Info("the engine has ended");
        m_io.stop();
    });
}

}  // namespace

Result<std::unique_ptr<Engine>> Engine::Create(const EngineSettings& settings) {
    auto engine = std::make_unique<EngineImpl>(settings);
    if (auto started = engine->Start(); !started) return started.error();
    return std::unique_ptr<Engine>(std::move(engine));
}

}  // namespace rq::engine

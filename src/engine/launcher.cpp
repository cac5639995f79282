#include "engine/launcher.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cstdio>
#include <filesystem>

#include "base/paths.h"
#include "engine/captured_output.h"
#include "platform/files.h"
#include "platform/found_process.h"
#include "platform/identity.h"
#include "platform/process_tree.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

// The program's name in the stage, with the platform's ending.
constexpr const char* kWorkerFileName = RQ_WORKER_FILE_NAME;

std::string Under(const std::string& folder, std::string_view name) {
    return Utf8FromPath(PathFromUtf8(folder) / PathFromUtf8(name));
}

std::string LogFolderOf(const EngineSettings& settings) {
    return settings.logFolder.empty() ? Under(settings.dataFolder, "logs") : settings.logFolder;
}

std::string OutputFolder(const EngineSettings& settings) {
    return Under(LogFolderOf(settings), "workers");
}

std::string ParameterFolder(const EngineSettings& settings) {
    return Under(settings.dataFolder, "params");
}

void RemoveFile(const std::string& path) {
    std::error_code ignored;
    fs::remove(PathFromUtf8(path), ignored);
}

// A worker that has found no engine for so long ends by itself: the one that started it is gone, or would
// have ended it before, and another one had time to come.
std::chrono::milliseconds LonelyTime(const EngineSettings& settings) {
    return settings.connectLimit + settings.resumeWindow + settings.linkGrace;
}

// Of the attempt's processes, for an engine that comes later.
std::string TreeName(const std::string& token) {
    return "rqengine-" + token;
}

std::string TypeArgument(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

// The base name has no dots: it names the worker's log.
std::string NameBegin(const Claim& claim) {
    return claim.id + "a" + std::to_string(claim.number) + "_";
}

constexpr std::int64_t kFirstExceptionCode = 0xC0000000;

// No signal has a negative number: that is a Windows exception's.
WorkerExit ExitOf(const platform::ExitStatus& status) {
    if (status.signalled && status.code < 0) return {false, static_cast<std::uint32_t>(status.code)};
    return {status.signalled, status.code, status.isKnown};
}

}  // namespace

std::string ExitText(const WorkerExit& exit) {
    if (!exit.isKnown) return "worker ended, nobody can say how, since it was not this engine's child,";
    if (exit.signalled) return "worker ended by signal " + std::to_string(exit.code);
    if (exit.code < kFirstExceptionCode) return "worker ended with exit code " + std::to_string(exit.code);
    char code[32];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(exit.code));
    return std::string("worker ended with exit code ") + code;
}

Launcher::Launcher(boost::asio::io_context& io, const EngineSettings& settings, std::string linkToken)
    : m_io(io), m_settings(settings), m_linkToken(std::move(linkToken)) {
    const MutexLock lock(m_gate->mutex);
    m_gate->launcher = this;
}

Launcher::~Launcher() {
    {
        const MutexLock lock(m_gate->mutex);
        m_gate->launcher = nullptr;
    }
    for (auto& [token, worker] : m_workers) worker.waiter.detach();
}

std::string Launcher::LogFolder() const {
    return LogFolderOf(m_settings);
}

Result<void> Launcher::Prepare() {
    platform::OsError error;
    for (const auto& folder : {ParameterFolder(m_settings), LogFolder(), OutputFolder(m_settings)}) {
        if (platform::CreatePrivateFolder(folder, &error)) continue;
        const bool isNamed = folder == LogFolder() && !m_settings.logFolderFrom.empty();
        return Fail(isNamed ? "the log folder that " + m_settings.logFolderFrom +
                                  " names cannot be made: " + error.message
                            : error.message);
    }
    return {};
}

void Launcher::RemoveLeftovers(const std::set<std::string>& names) {
    std::vector<fs::path> left;
    std::error_code code;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(ParameterFolder(m_settings)), code)) {
        if (entry.path().extension() == ".xml" && !names.contains(Utf8FromPath(entry.path().stem())))
            left.push_back(entry.path());
    }
    for (const auto& file : left) fs::remove(file, code);
}

std::string Launcher::NameOf(const Claim& claim) const {
    std::error_code code;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(ParameterFolder(m_settings)), code)) {
        const std::string name = Utf8FromPath(entry.path().stem());
        if (name.starts_with(NameBegin(claim))) return name;
    }
    return {};
}

std::string Launcher::OutputOf(const std::string& name) const {
    return name.empty() ? name : Under(OutputFolder(m_settings), name + ".out");
}

std::size_t Launcher::Running() const {
    return static_cast<std::size_t>(std::count_if(m_workers.begin(), m_workers.end(),
                                                  [](const auto& entry) { return entry.second.isOurs; }));
}

platform::ProcessSpec Launcher::SpecFor(const Claim& claim, const std::string& file,
                                        const std::string& output, std::uint16_t linkPort) const {
    platform::ProcessSpec spec;
    spec.program = Under(m_settings.stageFolder, kWorkerFileName);
    spec.arguments = {TypeArgument(claim.type), file, std::to_string(linkPort), "1"};
    spec.environment = {{"RQ_ENGINE_TOKEN", m_linkToken},
                        {"RQ_ATTEMPT", claim.token},
                        {"RQ_LOG_DIR", LogFolder()},
                        {"RQ_CONNECT_LIMIT_MS", std::to_string(LonelyTime(m_settings).count())}};
    // A worker of a package type does tasks that declare other numbers, too.
    const bool hasCores = claim.cores > 0 && !IsPackageType(claim.type);
    spec.environment.push_back({"RQ_TASK_CORES", hasCores ? std::to_string(claim.cores) : ""});
    spec.directory = m_settings.stageFolder;
    spec.output = platform::ProcessSpec::Stream::File;
    spec.errors = platform::ProcessSpec::Stream::File;
    spec.outputFile = output;
    spec.errorsFile = output;
    spec.tree = TreeName(claim.token);
    return spec;
}

Result<LaunchedWorker> Launcher::Start(const Claim& claim, std::uint16_t linkPort) {
    const std::string base = NameBegin(claim) + platform::RandomHex(4);
    const std::string file = Under(ParameterFolder(m_settings), base + ".xml");
    const std::string output = Under(OutputFolder(m_settings), base + ".out");
    platform::OsError error;
    if (!platform::CreatePrivateFile(file, claim.text, &error))
        return Fail("the parameter file cannot be written: " + error.message);
    // Made first, so that its user alone can read it.
    if (!platform::CreatePrivateFile(output, "", &error)) {
        RemoveFile(file);
        return Fail("the output file cannot be made: " + error.message);
    }
    std::shared_ptr<platform::ChildProcess> child =
        platform::ChildProcess::Start(SpecFor(claim, file, output, linkPort), &error);
    if (!child) {
        RemoveFile(file);
        return Fail("the worker cannot be started: " + error.message);
    }
    Worker worker;
    worker.child = child;
    worker.name = base;
    Wait(claim.token, std::move(worker));
    return LaunchedWorker{child->Id(), base, output, platform::ProcessMark(child->Id())};
}

bool Launcher::TakeOver(const std::string& token, const std::string& name, std::uint64_t processId,
                        const std::string& mark) {
    Worker worker;
    worker.child = platform::FindProcess(processId, mark, TreeName(token));
    worker.name = name;
    if (worker.child)
        Wait(token, std::move(worker));
    else
        Conclude(name);
    return Has(token);
}

bool Launcher::EndStray(const std::string& token, std::uint64_t processId, const std::string& mark) {
    if (platform::LookForProcess(processId, mark) != platform::Presence::There) return false;
    const auto stray = platform::FindProcess(processId, mark, TreeName(token));
    if (!stray) return false;
    stray->KillTree();
    return true;
}

void Launcher::EndLeftTree(const std::string& token, std::uint64_t processId) {
    platform::EndTree(TreeName(token), processId);
}

std::optional<std::uint64_t> Launcher::FindStarted(const std::string& token) const {
    const auto found = platform::FindTree(TreeName(token));
    if (!found) return std::nullopt;
    return found->empty() ? 0 : found->front();
}

bool Launcher::Watch(const std::string& token, std::uint64_t processId, const std::string& mark) {
    if (Has(token)) return true;
    Worker worker;
    worker.child = platform::FindProcess(processId, mark);
    worker.isOurs = false;
    if (worker.child) Wait(token, std::move(worker));
    return Has(token);
}

void Launcher::Wait(const std::string& token, Worker worker) {
    worker.waiter = std::thread([gate = m_gate, token, child = worker.child] {
        const auto status = child->WaitForever().value_or(platform::ExitStatus{});
        const MutexLock lock(gate->mutex);
        if (Launcher* launcher = gate->launcher)
            boost::asio::post(launcher->m_io,
                              [launcher, token, status] { launcher->TakeExit(token, status); });
    });
    m_workers[token] = std::move(worker);
}

void Launcher::TakeExit(const std::string& token, const platform::ExitStatus& status) {
    const auto found = m_workers.find(token);
    if (found == m_workers.end()) return;
    Worker worker = std::move(found->second);
    m_workers.erase(found);
    // What the worker started and left behind ends with it.
    if (worker.isOurs) worker.child->KillTree();
    worker.waiter.join();
    Conclude(worker.name);
    if (m_onExit) m_onExit(token, ExitOf(status));
}

void Launcher::Conclude(const std::string& name) {
    if (name.empty()) return;
    RemoveFile(Under(ParameterFolder(m_settings), name + ".xml"));
    ConcludeOutput(Under(OutputFolder(m_settings), name + ".out"), m_settings.outputLimit_MiB * 1024 * 1024);
}

void Launcher::KillTree(const std::string& token) {
    const auto found = m_workers.find(token);
    if (found != m_workers.end() && found->second.isOurs) found->second.child->KillTree();
}

}  // namespace rq::engine

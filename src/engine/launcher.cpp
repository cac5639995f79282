#include "engine/launcher.h"

#include <boost/asio/post.hpp>
#include <cstdio>
#include <filesystem>

#include "base/paths.h"
#include "engine/captured_output.h"
#include "platform/files.h"
#include "platform/identity.h"
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

std::string TypeArgument(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

constexpr std::int64_t kFirstExceptionCode = 0xC0000000;

// No signal has a negative number: that is a Windows exception's.
WorkerExit ExitOf(const platform::ExitStatus& status) {
    if (status.signalled && status.code < 0) return {false, static_cast<std::uint32_t>(status.code)};
    return {status.signalled, status.code};
}

}  // namespace

std::string ExitText(const WorkerExit& exit) {
    if (exit.signalled) return "worker ended by signal " + std::to_string(exit.code);
    if (exit.code < kFirstExceptionCode) return "worker ended with exit code " + std::to_string(exit.code);
    char code[32];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(exit.code));
    return std::string("worker ended with exit code ") + code;
}

Launcher::Launcher(boost::asio::io_context& io, const EngineSettings& settings, std::string linkToken)
    : m_io(io), m_settings(settings), m_linkToken(std::move(linkToken)) {}

Launcher::~Launcher() {
    for (auto& [token, worker] : m_workers) {
        worker.child->KillTree();
        worker.waiter.join();
        RemoveFile(worker.parameterFile);
    }
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
    std::error_code code;
    for (const auto& entry : fs::directory_iterator(PathFromUtf8(ParameterFolder(m_settings)), code)) {
        std::error_code ignored;
        if (entry.path().extension() == ".xml") fs::remove(entry.path(), ignored);
    }
    return {};
}

platform::ProcessSpec Launcher::SpecFor(const Claim& claim, const std::string& file,
                                        const std::string& output, std::uint16_t linkPort) const {
    platform::ProcessSpec spec;
    spec.program = Under(m_settings.stageFolder, kWorkerFileName);
    spec.arguments = {TypeArgument(claim.type), file, std::to_string(linkPort), "1"};
    spec.environment = {
        {"RQ_ENGINE_TOKEN", m_linkToken}, {"RQ_ATTEMPT", claim.token}, {"RQ_LOG_DIR", LogFolder()}};
    spec.directory = m_settings.stageFolder;
    spec.output = platform::ProcessSpec::Stream::File;
    spec.errors = platform::ProcessSpec::Stream::File;
    spec.outputFile = output;
    spec.errorsFile = output;
    return spec;
}

Result<LaunchedWorker> Launcher::Start(const Claim& claim, std::uint16_t linkPort) {
    // The base name has no dots: it names the worker's log.
    const std::string base = claim.id + "a" + std::to_string(claim.number) + "_" + platform::RandomHex(4);
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
    Worker& worker = m_workers[claim.token];
    worker.child = child;
    worker.parameterFile = file;
    Wait(claim.token, worker);
    return LaunchedWorker{child->Id(), base, output};
}

void Launcher::Wait(const std::string& token, Worker& worker) {
    worker.waiter = std::thread([this, token, child = worker.child] {
        const auto status = child->WaitForever().value_or(platform::ExitStatus{});
        boost::asio::post(m_io, [this, token, status] { TakeExit(token, status); });
    });
}

void Launcher::TakeExit(const std::string& token, const platform::ExitStatus& status) {
    const auto found = m_workers.find(token);
    if (found == m_workers.end()) return;
    Worker worker = std::move(found->second);
    m_workers.erase(found);
    // What the worker started and left behind ends with it.
    worker.child->KillTree();
    worker.waiter.join();
    RemoveFile(worker.parameterFile);
    const std::string name = Utf8FromPath(PathFromUtf8(worker.parameterFile).stem());
    ConcludeOutput(Under(OutputFolder(m_settings), name + ".out"), m_settings.outputLimit_MiB * 1024 * 1024);
    if (m_onExit) m_onExit(token, ExitOf(status));
}

void Launcher::KillTree(const std::string& token) {
    const auto found = m_workers.find(token);
    if (found != m_workers.end()) found->second.child->KillTree();
}

}  // namespace rq::engine

// The core's engine link: which server, the connection, its end.
#include <charconv>
#include <chrono>
#include <optional>

#include "base/result.h"
#include "base/text.h"
#include "platform/environment.h"
#include "util/worker_util.h"
#include "worker/worker_base.h"

namespace rq {

namespace {

constexpr const char* kLocalAddress = "127.0.0.1";
constexpr std::uint16_t kDefaultPort = 8083;
constexpr std::chrono::milliseconds kRetryInterval{1000};

// How long the engine that starts this worker lets it look for one; nothing: for ever, as by hand.
std::optional<std::chrono::milliseconds> ConnectLimit() {
    const std::string text = platform::GetEnvironment("RQ_CONNECT_LIMIT_MS").value_or("");
    std::int64_t limit = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), limit);
    if (read.ec != std::errc() || read.ptr != text.data() + text.size() || limit <= 0) return std::nullopt;
    return std::chrono::milliseconds(limit);
}

std::wstring LinkLogFile() {
    return GetDailyLogDir() + ProcessCommandLine().LogFilePrefix + L"_C.log";
}

}  // namespace

CRQWorkerBase::Endpoint CRQWorkerBase::ChooseServer() {
    bool pastTheList = false;
    {
        MutexLock lock(m_parameterLock);
        const auto count = static_cast<std::int64_t>(m_communicationParam.serverAddresses.size());
        pastTheList = m_communicationParam.nextServerIndex >= count;
    }
    if (pastTheList) ReadRunningParameter();

    MutexLock lock(m_parameterLock);
    const auto& addresses = m_communicationParam.serverAddresses;
    const auto& ports = m_communicationParam.serverPorts;
    // A negative index, which only a caller of the record can have stored, is past every list as well.
    const auto index = static_cast<std::size_t>(m_communicationParam.nextServerIndex);
    ++m_communicationParam.nextServerIndex;
    if (const std::uint32_t port = ProcessCommandLine().ServerPortOverride; port > 0) {
        return {kLocalAddress, static_cast<std::uint16_t>(port & 0xFFFFu)};
    }
    if (index >= addresses.size() || index >= ports.size()) {
        Log(3, "The server list of the running parameters has no server at index " +
                   std::to_string(m_communicationParam.nextServerIndex - 1) + " (" +
                   std::to_string(addresses.size()) + " addresses, " + std::to_string(ports.size()) +
                   " ports). Using " + kLocalAddress + ":" + std::to_string(kDefaultPort) + ".");
        return {kLocalAddress, kDefaultPort};
    }
    return {addresses[index], ports[index]};
}

std::int32_t CRQWorkerBase::ConnectEngine() {
    const Endpoint server = ChooseServer();
    IEngineCommunicate* client = m_seams.createEngineClient();
    if (client == nullptr) {
        Log(4, "The engine client could not be created.");
        return kStatusMissing;
    }
    {
        MutexLock lock(m_sendLock);
        m_pEngineClient = client;
    }
    const EngineClientSetup setup{this, OnEngineMessage, LinkLogFile()};
    client->Initialize(&setup);

    const EngineEndpoint endpoint{server.address.c_str(), server.port};
    const SteadyTime began = m_clock.Steady();
    std::uint32_t sessionId = client->Connect(&endpoint);
    StoreSession(sessionId);
    ConsoleWrite("sessionID=" + std::to_string(sessionId) + "\n");
    // Once: whoever looks for a reason reads the worker's log first.
    if (sessionId == kNoSession) {
        Log(3, "No session with the engine at " + server.address + ":" + std::to_string(server.port) + "; " +
                   NarrowUtf8(setup.logFile) + " says why. It is tried again each second.");
    }
    // For ever, unless the engine that started it has set a limit: a worker is of no use without its engine.
    // What Connect gave decides, not the stored value, which a loss right after the connection may have taken
    // away: a lost server is never called again.
    const auto limit = ConnectLimit();
    while (sessionId == kNoSession) {
        if (limit && m_clock.Steady() - began >= *limit) {
            Log(4, "No engine was found within " + std::to_string(limit->count()) + " ms. The worker ends.");
            return kStatusFail;
        }
        ConsoleWrite("通信服务端没有启动\n");
        sessionId = client->Connect(&endpoint);
        StoreSession(sessionId);
        m_clock.SleepFor(kRetryInterval);
    }
    return kStatusOk;
}

void CRQWorkerBase::StoreSession(std::uint32_t sessionId) {
    MutexLock lock(m_sessionLock);
    if (!m_disconnected) m_sessionId = sessionId;
}

void CRQWorkerBase::LoseSession() {
    MutexLock lock(m_sessionLock);
    m_sessionId = kNoSession;
    m_disconnected = true;
}

void CRQWorkerBase::DeleteEngine() {
    IEngineCommunicate* client = nullptr;
    {
        MutexLock lock(m_sendLock);
        client = m_pEngineClient;
    }
    if (client == nullptr) return;
    // Without the send lock: the handler may need it to come to its end, which Disconnect waits for.
    client->Disconnect();
    client->Uninitialize();
    MutexLock lock(m_sendLock);
    m_seams.deleteEngineClient(&m_pEngineClient);
}

}  // namespace rq

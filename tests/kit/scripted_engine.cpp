#include "kit/scripted_engine.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "base/sync.h"
#include "platform/inherit.h"

namespace rq::kit {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using link::Frame;
using link::FrameReader;

namespace {

// What outlives a connection.
struct SessionRecord {
    std::uint64_t received = 0;  // the worker's seq
    std::uint64_t firstHeldFinal = 0;
    std::uint64_t ackedByWorker = 0;
    std::vector<std::pair<std::uint32_t, std::string>> orders;  // own seq 1 and further
};

struct Peer {
    Peer(tcp::socket accepted, std::size_t serial) : socket(std::move(accepted)), number(serial) {}

    tcp::socket socket;
    std::size_t number;
    FrameReader reader;
    std::array<char, std::size_t{64} * 1024> input{};
    std::deque<std::string> output;
    std::shared_ptr<SessionRecord> session = std::make_shared<SessionRecord>();
    std::size_t come = SIZE_MAX;  // bytes that still may
    std::size_t gone = SIZE_MAX;
    bool reading = true;
    bool closeWhenSent = false;
    bool endWhenSent = false;
    bool closed = false;
};
using PeerPointer = std::shared_ptr<Peer>;

bool IsFinal(const Frame& frame) {
    if (frame.id != TCP_WORKER_STATE_ID) return false;
    const Result<link::WorkerRecord> record = link::DecodeWorkerRecord(frame.id, frame.body);
    return record && link::IsFinalState(std::get<EngineStateMessage>(*record));
}

}  // namespace

// Everything in it is guarded by `signal`; the sockets are touched on the thread only.
struct ScriptedEngine::State {
    explicit State(ScriptedEngineOptions given)
        : options(std::move(given)),
          acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), options.port)) {
        platform::KeepFromChildren(static_cast<std::uintptr_t>(acceptor.native_handle()));
        Accept();
        thread = std::thread([this] { io.run(); });
    }
    ~State() {
        asio::post(io, [this] { io.stop(); });
        thread.join();
    }

    void Accept() {
        acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
            if (error) return;
            error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);
            platform::KeepFromChildren(static_cast<std::uintptr_t>(socket.native_handle()));
            auto peer = std::make_shared<Peer>(std::move(socket), ++connections);
            {
                Signal::Hold hold(signal);
                newest = peer;
                ++accepted;
                signal.Notify(hold);
            }
            if (away) Reset(peer);
            Read(peer);
            Accept();
        });
    }

    void Read(const PeerPointer& peer) {
        if (!peer->reading || peer->closed) return;
        peer->socket.async_read_some(
            asio::buffer(peer->input), [this, peer](const error_code& error, std::size_t size) {
                if (error) return Close(peer);
                const std::size_t come = std::min(size, peer->come);
                if (peer->come != SIZE_MAX) peer->come -= come;
                peer->reader.Feed(std::string_view(peer->input.data(), come));
                Frame frame;
                while (!peer->closed && peer->reader.Next(&frame) == FrameReader::Status::Ready)
                    OnFrame(peer, frame);
                if (peer->come == 0) Reset(peer);
                Read(peer);
            });
    }

    void OnFrame(const PeerPointer& peer, const Frame& frame) {
        {
            Signal::Hold hold(signal);
            frames.push_back({peer->number, frame});
            if (const auto decoded = link::DecodeHello(frame.body); frame.id == link::kHelloId && decoded)
                hello = *decoded;
            SessionRecord& session = *peer->session;
            session.ackedByWorker = std::max(session.ackedByWorker, frame.ack);
            if (frame.seq > session.received) {
                session.received = frame.seq;
                taken.push_back(frame);
                if (holdFinals && session.firstHeldFinal == 0 && IsFinal(frame))
                    session.firstHeldFinal = frame.seq;
            }
            signal.Notify(hold);
        }
        if (frame.id == link::kHelloId && options.answerHello) AnswerHello(peer, frame);
        if (frame.seq != 0 && options.acknowledge) Send(peer, 0, link::kAckId, {});
        if (frame.id == link::kPingId && options.answerPings) Send(peer, 0, link::kAckId, {});
        if (frame.id == link::kByeId && options.closeOnBye) CloseAfterOutput(peer);
    }

    void AnswerHello(const PeerPointer& peer, const Frame& frame) {
        const Result<link::Hello> decoded = link::DecodeHello(frame.body);
        if (decoded && (options.token.empty() || decoded->token == options.token)) {
            if (decoded->resumeSessionId != 0) return AnswerResume(peer, *decoded, frame.ack);
            link::Welcome welcome = options.welcome;
            welcome.sessionId = options.firstSessionId + newSessions++;
            sessions[welcome.sessionId] = peer;
            speaker = peer;
            return Send(peer, 0, link::kWelcomeId, link::EncodeWelcome(welcome));
        }
        Send(peer, 0, link::kRefuseId, link::EncodeRefuse({link::kRefuseToken, "wrong token"}));
        CloseAfterOutput(peer);
    }

    void AnswerResume(const PeerPointer& peer, const link::Hello& resuming, std::uint64_t ack) {
        PeerPointer& before = sessions[resuming.resumeSessionId];
        if (refusal && *refusal == 0) return;
        if (refusal || !before) {
            Send(peer, 0, link::kRefuseId,
                 link::EncodeRefuse({refusal.value_or(link::kRefuseSession), "not resumed"}));
            return CloseAfterOutput(peer);
        }
        Close(before);
        {
            Signal::Hold hold(signal);
            peer->session = before->session;
            peer->session->ackedByWorker = std::max(peer->session->ackedByWorker, ack);
            signal.Notify(hold);
        }
        before = peer;
        speaker = peer;
        link::Welcome welcome = options.welcome;
        welcome.sessionId = resuming.resumeSessionId;
        if (otherSpool) welcome.spoolFolder = *otherSpool;
        Send(peer, 0, link::kWelcomeId, link::EncodeWelcome(welcome));
        const auto& orders = peer->session->orders;
        for (std::size_t i = resuming.resumeReceived; i < orders.size(); ++i)
            Send(peer, i + 1, orders[i].first, orders[i].second);
    }

    std::uint64_t OwnAck(const Peer& peer) {
        Signal::Hold hold(signal);
        const SessionRecord& session = *peer.session;
        return session.firstHeldFinal != 0 ? session.firstHeldFinal - 1 : session.received;
    }

    void Send(const PeerPointer& peer, std::uint64_t seq, std::uint32_t id, const std::string& body) {
        const std::uint64_t ack = options.acknowledge ? OwnAck(*peer) : 0;
        SendBytes(peer, link::EncodeFrameHead(seq, ack, id, body.size()) + body);
    }

    void SendBytes(const PeerPointer& peer, std::string bytes) {
        if (peer->closed || peer->gone == 0) return;
        if (peer->gone != SIZE_MAX) {
            if (bytes.size() > peer->gone) bytes.resize(peer->gone);
            peer->gone -= bytes.size();
            peer->closeWhenSent = peer->gone == 0;
        }
        peer->output.push_back(std::move(bytes));
        if (peer->output.size() == 1) WriteNext(peer);
    }

    void WriteNext(const PeerPointer& peer) {
        asio::async_write(peer->socket, asio::buffer(peer->output.front()),
                          [this, peer](const error_code& error, std::size_t) {
                              peer->output.pop_front();
                              if (error) return Close(peer);
                              if (!peer->output.empty()) return WriteNext(peer);
                              if (peer->endWhenSent) EndSending(peer);
                              if (peer->closeWhenSent) Close(peer);
                          });
    }

    // Closed when the worker has closed: whatever came from it after a close would reset the connection, and
    // what the worker had not read by then would be lost.
    void EndAfterOutput(const PeerPointer& peer) {
        peer->endWhenSent = true;
        if (peer->output.empty()) EndSending(peer);
    }

    void EndSending(const PeerPointer& peer) {
        if (!peer->reading) return Close(peer);
        error_code ignored;
        peer->socket.shutdown(tcp::socket::shutdown_send, ignored);
    }

    void CloseAfterOutput(const PeerPointer& peer) {
        peer->closeWhenSent = true;
        if (peer->output.empty()) Close(peer);
    }

    void Close(const PeerPointer& peer) {
        if (std::exchange(peer->closed, true)) return;
        error_code ignored;
        peer->socket.shutdown(tcp::socket::shutdown_both, ignored);
        peer->socket.close(ignored);
        Signal::Hold hold(signal);
        ++closed;
        signal.Notify(hold);
    }

    void Reset(const PeerPointer& peer) {
        error_code ignored;
        if (!peer->closed) peer->socket.set_option(asio::socket_base::linger(true, 0), ignored);
        Close(peer);
    }

    // Runs `work` on the thread with the newest connection and waits for its end.
    void OnThread(const std::function<void(const PeerPointer&)>& work) {
        Signal done;
        asio::post(io, [&] {
            PeerPointer peer;
            {
                Signal::Hold hold(signal);
                peer = newest;
            }
            if (peer) work(peer);
            done.Notify();
        });
        done.WaitFor(kPatience);
    }

    template <class Predicate>
    bool WaitUntil(Predicate predicate) {
        const SteadyTime deadline = SystemClock().Steady() + kPatience;
        Signal::Hold hold(signal);
        while (!predicate())
            if (!signal.WaitUntil(hold, deadline)) return predicate();
        return true;
    }

    std::size_t CountHeld(std::uint32_t id) const {
        std::size_t count = 0;
        for (const ReceivedFrame& received : frames) count += received.frame.id == id ? 1 : 0;
        return count;
    }

    const ScriptedEngineOptions options;
    asio::io_context io{1};
    tcp::acceptor acceptor;
    std::size_t connections = 0;                    // the thread only, as the next five
    std::map<std::uint32_t, PeerPointer> sessions;  // the newest connection of each
    PeerPointer speaker;                            // whose HELLO was answered last
    std::uint32_t newSessions = 0;
    std::optional<std::uint32_t> refusal;
    std::optional<std::string> otherSpool;
    std::atomic<bool> away{false};

    mutable Signal signal;
    std::vector<ReceivedFrame> frames;
    std::vector<Frame> taken;
    link::Hello hello;
    PeerPointer newest;
    std::size_t accepted = 0;
    std::size_t closed = 0;
    bool holdFinals = false;

    std::thread thread;
};

ScriptedEngine::ScriptedEngine(ScriptedEngineOptions options)
    : m_state(std::make_unique<State>(std::move(options))) {}
ScriptedEngine::~ScriptedEngine() = default;

std::uint16_t ScriptedEngine::Port() const {
    return m_state->acceptor.local_endpoint().port();
}

std::vector<ReceivedFrame> ScriptedEngine::Frames() const {
    Signal::Hold hold(m_state->signal);
    return m_state->frames;
}

std::vector<Frame> ScriptedEngine::Frames(std::uint32_t id) const {
    std::vector<Frame> found;
    for (ReceivedFrame& received : Frames())
        if (received.frame.id == id) found.push_back(std::move(received.frame));
    return found;
}

std::vector<Frame> ScriptedEngine::Taken() const {
    Signal::Hold hold(m_state->signal);
    return m_state->taken;
}

std::vector<link::WorkerRecord> ScriptedEngine::Records(std::uint32_t id) const {
    std::vector<link::WorkerRecord> records;
    for (const Frame& frame : Frames(id))
        if (Result<link::WorkerRecord> record = link::DecodeWorkerRecord(id, frame.body))
            records.push_back(std::move(*record));
    return records;
}

link::Hello ScriptedEngine::LastHello() const {
    Signal::Hold hold(m_state->signal);
    return m_state->hello;
}

std::size_t ScriptedEngine::Connections() const {
    Signal::Hold hold(m_state->signal);
    return m_state->accepted;
}

std::uint64_t ScriptedEngine::AckedByWorker() const {
    Signal::Hold hold(m_state->signal);
    return m_state->newest ? m_state->newest->session->ackedByWorker : 0;
}

bool ScriptedEngine::WaitForFrame(std::uint32_t id, std::size_t count) const {
    return m_state->WaitUntil([this, id, count] { return m_state->CountHeld(id) >= count; });
}

bool ScriptedEngine::WaitForConnections(std::size_t count) const {
    return m_state->WaitUntil([this, count] { return m_state->accepted >= count; });
}

bool ScriptedEngine::WaitForClosed(std::size_t count) const {
    return m_state->WaitUntil([this, count] { return m_state->closed >= count; });
}

bool ScriptedEngine::WaitForAck(std::uint64_t seq) const {
    return m_state->WaitUntil(
        [this, seq] { return m_state->newest && m_state->newest->session->ackedByWorker >= seq; });
}

std::uint64_t ScriptedEngine::SendOrder(std::uint32_t id, const link::Order& order) {
    const Result<std::string> body = link::EncodeOrder(id, order);
    return body ? SendNumbered(id, *body) : 0;
}

std::uint64_t ScriptedEngine::SendNumbered(std::uint32_t id, std::string body) {
    std::uint64_t seq = 0;
    m_state->OnThread([&](const PeerPointer& peer) {
        // A connection that is just coming back is not the session's yet.
        const bool isResumable = m_state->options.welcome.resumeWindow_ms != 0 && m_state->speaker;
        const PeerPointer& speaker = isResumable ? m_state->speaker : peer;
        speaker->session->orders.emplace_back(id, body);
        seq = speaker->session->orders.size();
        m_state->Send(speaker, seq, id, body);
    });
    return seq;
}

void ScriptedEngine::SendControl(std::uint32_t id, std::string body) {
    m_state->OnThread([&](const PeerPointer& peer) { m_state->Send(peer, 0, id, body); });
}

void ScriptedEngine::SendRaw(std::string bytes) {
    m_state->OnThread([&](const PeerPointer& peer) { m_state->SendBytes(peer, std::move(bytes)); });
}

void ScriptedEngine::HoldFinals(bool hold) {
    Signal::Hold held(m_state->signal);
    m_state->holdFinals = hold;
}

void ScriptedEngine::AcknowledgeAll() {
    m_state->OnThread([&](const PeerPointer& peer) {
        std::uint64_t received = 0;
        {
            Signal::Hold hold(m_state->signal);
            peer->session->firstHeldFinal = 0;
            received = peer->session->received;
        }
        m_state->SendBytes(peer, link::EncodeFrameHead(0, received, link::kAckId, 0));
    });
}

void ScriptedEngine::StopReading() {
    m_state->OnThread([](const PeerPointer& peer) { peer->reading = false; });
}

void ScriptedEngine::CloseConnection() {
    m_state->OnThread([&](const PeerPointer& peer) { m_state->EndAfterOutput(peer); });
}

void ScriptedEngine::ResetConnection() {
    m_state->OnThread([&](const PeerPointer& peer) { m_state->Reset(peer); });
}

void ScriptedEngine::BeAway(bool away) {
    m_state->away = away;
    if (away) ResetConnection();
}

void ScriptedEngine::RefuseToResume(std::uint32_t code) {
    m_state->OnThread([&](const PeerPointer&) { m_state->refusal = code; });
}

void ScriptedEngine::ResumeAgain() {
    m_state->OnThread([&](const PeerPointer&) { m_state->refusal.reset(); });
}

void ScriptedEngine::ChangeSpoolFolder(const std::string& folder) {
    m_state->OnThread([&](const PeerPointer&) { m_state->otherSpool = folder; });
}

void ScriptedEngine::CutAfter(std::size_t come_bytes, std::size_t gone_bytes) {
    m_state->OnThread([&](const PeerPointer& peer) {
        peer->come = come_bytes;
        peer->gone = gone_bytes;
    });
}

}  // namespace rq::kit

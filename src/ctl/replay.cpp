#include "ctl/replay.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <utility>

#include "ctl/output.h"
#include "link/codec.h"
#include "platform/error_text.h"
#include "platform/files.h"

namespace rq::ctl {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// For the worker's end, once this side has said its last.
constexpr std::chrono::seconds kCloseWait{1};

// The numbered frames and BYE; how many heartbeats and reports of progress come is a matter of time.
bool IsCounted(std::uint32_t id) {
    if (id == link::kByeId) return true;
    return id >= TCP_WORKER_HEARTBEAT_ID && id != TCP_WORKER_HEARTBEAT_ID && id != TCP_WORKER_PROGRESS_ID;
}

// A final status that was not acknowledged in time is sent again as it is. A replay acknowledges at once, so
// that it comes once only.
class RepeatedFinal {
  public:
    bool Is(const link::Frame& frame) {
        if (frame.id != TCP_WORKER_STATE_ID) return false;
        const bool isSame = m_last && *m_last == frame.body;
        m_last = frame.body;
        if (!isSame) return false;
        const auto record = link::DecodeWorkerRecord(frame.id, frame.body);
        return record && link::IsFinalState(std::get<EngineStateMessage>(*record));
    }

  private:
    std::optional<std::string> m_last;
};

// A WELCOME with no window and no spool: the player is gone after its last frame, and its folder is another
// machine's.
std::string WithoutResume(const link::Frame& answer) {
    auto welcome = link::DecodeWelcome(answer.body);
    if (answer.id != link::kWelcomeId || !welcome) return answer.body;
    welcome->resumeWindow_ms = 0;
    welcome->spoolFolder.clear();
    return link::EncodeWelcome(*welcome);
}

// The one worker's connection. Everything runs inside Run.
class Player {
  public:
    Player(const JournalConnection& connection, const ReplayOptions& options)
        : m_script(connection), m_options(options), m_socket(m_io), m_timer(m_io) {}

    Outcome<int> Run(const std::function<void(std::uint16_t)>& onListening) {
        boost::system::error_code error;
        tcp::acceptor acceptor(m_io);
        const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), m_options.port);
        acceptor.open(endpoint.protocol(), error);
        if (!error) acceptor.bind(endpoint, error);
        if (!error) acceptor.listen(1, error);
        if (error)
            return Failure(kExitUsage, "--port: 127.0.0.1:" + std::to_string(m_options.port) + ": " +
                                           platform::ErrorText(error));
        onListening(acceptor.local_endpoint().port());
        acceptor.async_accept(m_socket, [this](const boost::system::error_code& failed) {
            if (failed) return End("accept: " + platform::ErrorText(failed));
            Print("a worker has connected\n");
            Watch();
            Read();
        });
        m_io.run();
        if (m_problem.empty()) return kExitFinished;
        return Failure(kExitFailed, m_problem);
    }

  private:
    // To the connection's end, also when there is nothing more to play.
    void Read() {
        m_socket.async_read_some(asio::buffer(m_input),
                                 [this](const boost::system::error_code& error, std::size_t n) {
                                     if (error) return OnClosed();
                                     TakeBytes(std::string_view(m_input.data(), n));
                                     Read();
                                 });
    }

    void TakeBytes(std::string_view bytes) {
        if (m_isOver) return;
        m_reader.Feed(bytes);
        link::Frame frame;
        while (!m_isOver) {
            const auto status = m_reader.Next(&frame);
            if (status == link::FrameReader::Status::Bad)
                return End("the worker sent no frame: " + m_reader.Problem());
            if (status == link::FrameReader::Status::NeedMore) return;
            Take(frame);
        }
    }

    void Take(const link::Frame& frame) {
        Print("-> " + std::to_string(frame.seq) + "/" + std::to_string(frame.ack) + "  " +
              FrameWords(frame.id, frame.body) + "\n");
        if (frame.id == link::kHelloId) return Welcome();
        if (frame.id == link::kByeId) {
            m_script.Took(frame.id);
            return End({});
        }
        if (frame.id == link::kPingId) return Send(0, link::kAckId, {});
        if (frame.seq == 0) return;
        m_received = frame.seq;
        Send(0, link::kAckId, {});
        m_script.Took(frame.id);
        Watch();
        GoOn();
    }

    void Welcome() {
        const link::Frame* answer = m_script.Answer();
        if (answer == nullptr)
            return End("the journal's connection has no answer to HELLO: nothing can be played");
        Send(0, answer->id, WithoutResume(*answer));
        if (answer->id == link::kRefuseId) return End({});
        m_isWelcome = true;
        GoOn();
    }

    void GoOn() {
        while (auto order = m_script.NextDue()) Send(++m_sent, order->id, std::move(order->body));
        if (m_script.IsDone() && !m_isOver) End({});
    }

    void Send(std::uint64_t seq, std::uint32_t id, std::string body) {
        Print("<- " + std::to_string(seq) + "/" + std::to_string(m_received) + "  " + FrameWords(id, body) +
              "\n");
        auto bytes = link::EncodeFrame({seq, m_received, id, std::move(body)});
        if (!bytes) return End(bytes.error().message);
        // A journal's frames are few and small beside a socket's buffer.
        boost::system::error_code ignored;
        asio::write(m_socket, asio::buffer(*bytes), ignored);
    }

    // The time for the next frame that counts begins anew.
    void Watch() {
        m_timer.expires_after(m_options.wait);
        m_timer.async_wait([this](const boost::system::error_code& stopped) {
            if (stopped || m_isOver) return;
            End("the worker has not sent " + m_script.Missing() + " within " +
                std::to_string(m_options.wait.count()) + " s");
        });
    }

    void OnClosed() {
        if (!m_isOver) {
            const std::string missing = m_script.Missing();
            End(missing.empty() ? std::string() : "the worker left before it sent " + missing);
        }
        CloseSocket();
    }

    // What was sent reaches the worker before the end does: closing with bytes unread would reset the
    // connection.
    void End(std::string problem) {
        if (m_isOver) return;
        m_isOver = true;
        m_problem = std::move(problem);
        if (const std::string missing = m_script.Missing();
            m_problem.empty() && !missing.empty() && m_isWelcome)
            m_problem = "the worker left before it sent " + missing;
        if (!m_socket.is_open()) return;
        boost::system::error_code ignored;
        m_socket.shutdown(tcp::socket::shutdown_send, ignored);
        m_timer.expires_after(kCloseWait);
        m_timer.async_wait([this](const boost::system::error_code& stopped) {
            if (!stopped) CloseSocket();
        });
    }

    void CloseSocket() {
        m_timer.cancel();
        boost::system::error_code ignored;
        m_socket.close(ignored);
    }

    ReplayScript m_script;
    const ReplayOptions m_options;
    asio::io_context m_io{1};
    tcp::socket m_socket;
    asio::steady_timer m_timer;
    std::array<char, 64 * 1024> m_input{};
    link::FrameReader m_reader;
    std::uint64_t m_received = 0;
    std::uint64_t m_sent = 0;
    bool m_isWelcome = false;
    bool m_isOver = false;
    std::string m_problem;
};

}  // namespace

ReplayScript::ReplayScript(const JournalConnection& connection) {
    Counts counts;
    RepeatedFinal repeated;
    for (const JournalFrame& line : connection.frames) {
        const link::Frame& frame = line.frame;
        if (line.fromWorker) {
            if (IsCounted(frame.id) && !repeated.Is(frame)) ++counts[frame.id];
        } else if (frame.id == link::kWelcomeId || frame.id == link::kRefuseId) {
            if (!m_answer) m_answer = frame;
        } else if (frame.id >= TCP_WORKER_HEARTBEAT_ID) {
            m_steps.push_back({counts, frame});
        }
    }
    m_steps.push_back({std::move(counts), {}});
}

bool ReplayScript::HasCome(const Counts& counts) const {
    for (const auto& [id, count] : counts) {
        const auto taken = m_taken.find(id);
        if (taken == m_taken.end() || taken->second < count) return false;
    }
    return true;
}

std::optional<link::Frame> ReplayScript::NextDue() {
    if (m_next + 1 >= m_steps.size() || !HasCome(m_steps[m_next].before)) return std::nullopt;
    return std::move(m_steps[m_next++].order);
}

bool ReplayScript::IsDone() const {
    return m_next + 1 >= m_steps.size() && HasCome(m_steps.back().before);
}

std::string ReplayScript::Missing() const {
    std::string words;
    for (const auto& [id, count] : m_steps[m_next].before) {
        const auto found = m_taken.find(id);
        const int taken = found == m_taken.end() ? 0 : found->second;
        if (taken >= count) continue;
        words += (words.empty() ? "" : ", ") + link::IdText(id) + " (" + std::to_string(taken) + " of " +
                 std::to_string(count) + ")";
    }
    return words;
}

Outcome<int> Play(const JournalConnection& connection, const ReplayOptions& options,
                  const std::function<void(std::uint16_t port)>& onListening) {
    return Player(connection, options).Run(onListening);
}

Outcome<int> Replay(const std::string& path, const ReplayOptions& options) {
    platform::OsError error;
    const auto text = platform::ReadWholeFile(path, &error);
    if (!text) return Failure(kExitUsage, error.message);
    const auto journal = ParseJournal(*text);
    if (!journal) return Failure(kExitUsage, path + ": " + journal.error().message);
    if (options.print) {
        Print(PrintJournal(*journal));
        return kExitFinished;
    }
    const auto sessions = JournalSessions(*journal);
    if (options.connection < 1 || options.connection > sessions.size())
        return Failure(kExitUsage,
                       "--connection: the journal has " + std::to_string(sessions.size()) + " connection(s)");
    if (journal->strangeLines != 0)
        Print(std::to_string(journal->strangeLines) +
              " line(s) of the journal cannot be read and are left out\n");
    return Play(sessions[options.connection - 1], options, [](std::uint16_t port) {
        Print("waiting on 127.0.0.1:" + std::to_string(port) +
              " for a worker: RQWorkerU TYPE PARAMETER-FILE " + std::to_string(port) + " 1\n");
    });
}

}  // namespace rq::ctl

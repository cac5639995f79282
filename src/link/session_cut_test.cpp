// A conversation whose connection is cut at every byte of either direction, and again at random ones: each
// side takes each message of the other exactly once and in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>

#include "link/session.h"

namespace rq::link {
namespace {

using Random = std::mt19937_64;

constexpr std::uint64_t kMessages = 12;
constexpr std::uint64_t kOrders = 8;

// An engine of one session, as the page wants it: it keeps what it has by number, and sends orders again from
// where the worker says.
class ModelEngine {
  public:
    // `commits`: how many further frames come before it has one, so that its ack lies behind.
    ModelEngine(Random& random, std::uint64_t commits) : m_random(random), m_commits(commits) {}

    void NewConnection() {
        m_reader = FrameReader(kHandshakeLimit_bytes);
        m_isShaken = false;
        m_out.clear();
    }
    void OnBytes(std::string_view bytes) {
        m_reader.Feed(bytes);
        Frame frame;
        while (m_reader.Next(&frame) == FrameReader::Status::Ready) OnFrame(frame);
        EXPECT_EQ(m_reader.Problem(), "");
    }
    // Something to send, now and then.
    void Act() {
        if (!m_isShaken) return;
        if (m_sent < kOrders && m_random() % 3 == 0) SendOrder(m_sent + 1);
        if (m_random() % 4 == 0) m_has = m_received;
        if (m_random() % 4 == 0) Send(0, kAckId, {});
    }
    bool HasAllAcknowledged() const { return m_acknowledged == kOrders; }
    std::string TakeOutput() { return std::exchange(m_out, {}); }

    std::vector<std::string> taken;  // bodies of the worker's messages

  private:
    void OnFrame(const Frame& frame) {
        ASSERT_EQ(frame.id == kHelloId, !m_isShaken);
        if (frame.id == kHelloId) return OnHello(frame);
        EXPECT_GE(frame.ack, m_acknowledged);
        EXPECT_LE(frame.ack, m_sent);
        m_acknowledged = frame.ack;
        if (frame.seq == 0) return;
        // A number that it has already, or has received, comes again after a loss only.
        if (frame.seq <= m_received) {
            EXPECT_TRUE(m_isResumed);
            return;
        }
        ASSERT_EQ(frame.seq, m_received + 1);
        m_received = frame.seq;
        taken.push_back(frame.body);
        if (m_received - m_has > m_commits) m_has = m_received;
    }
    void OnHello(const Frame& frame) {
        const Result<Hello> hello = DecodeHello(frame.body);
        ASSERT_TRUE(hello);
        m_isResumed = hello->resumeSessionId != 0;
        if (m_isResumed) {
            ASSERT_EQ(hello->resumeSessionId, 7u);
            ASSERT_LE(hello->resumeReceived, m_sent);
            ASSERT_GE(hello->resumeReceived, m_acknowledged);
            ASSERT_LE(hello->resumeAcknowledged, m_has);
            m_acknowledged = frame.ack;
            m_sent = hello->resumeReceived;
        }
        m_isShaken = true;
        Send(0, kWelcomeId, EncodeWelcome({1, 7, 60'000, 0, 0, {}, "named"}));
    }
    void SendOrder(std::uint64_t number) {
        m_sent = number;
        Send(number, TCP_TASK_ADD_ID, *EncodeTaskText("order " + std::to_string(number)));
    }
    void Send(std::uint64_t seq, std::uint32_t id, const std::string& body) {
        m_out += *EncodeFrame({seq, m_has, id, body});
    }

    Random& m_random;
    const std::uint64_t m_commits;
    FrameReader m_reader;
    bool m_isShaken = false;
    bool m_isResumed = false;
    std::string m_out;
    std::uint64_t m_received = 0;      // processed, committed or not
    std::uint64_t m_has = 0;           // what it acknowledges
    std::uint64_t m_sent = 0;          // orders
    std::uint64_t m_acknowledged = 0;  // of these
};

// How many bytes of a connection still arrive before it is cut.
struct Cut {
    std::size_t toEngine = SIZE_MAX;
    std::size_t toWorker = SIZE_MAX;
};

class Conversation {
  public:
    Conversation(std::uint64_t seed, std::uint64_t commits) : m_random(seed), m_engine(m_random, commits) {
        m_session.OnConnected(m_now);
        m_engine.OnBytes(m_session.TakeOutput(m_now));
        m_session.OnWritten(m_now);
        m_session.OnBytes(m_engine.TakeOutput(), m_now);
    }

    // Connections that are cut so, then one that stands. How many bytes went over the last one.
    Cut Run(const std::vector<Cut>& cuts) {
        for (const Cut& cut : cuts) Talk(cut);
        const Cut went = Talk({});
        Check();
        return went;
    }

  private:
    // Until the cut, or until everything is said and heard.
    Cut Talk(const Cut& cut) {
        std::string there;
        std::string here;
        Cut went{0, 0};
        for (int step = 0; step < 10'000; ++step) {
            Say();
            m_engine.Act();
            there += Written();
            here += m_engine.TakeOutput();
            m_engine.OnBytes(Arriving(&there, &went.toEngine, cut.toEngine));
            m_session.OnBytes(Arriving(&here, &went.toWorker, cut.toWorker), m_now);
            Handle();
            if (went.toEngine == cut.toEngine || went.toWorker == cut.toWorker) {
                Lose();
                return went;
            }
            if (IsDone() && there.empty() && here.empty()) return went;
        }
        ADD_FAILURE() << "it never ends";
        return went;
    }
    std::string Written() {
        std::string bytes = m_session.TakeOutput(m_now);
        if (!bytes.empty()) m_session.OnWritten(m_now);
        return bytes;
    }
    // A piece of what is under way, as a network gives it.
    std::string Arriving(std::string* stream, std::size_t* count, std::size_t limit) {
        const std::size_t size = std::min({std::size_t{1} + m_random() % 40, stream->size(), limit - *count});
        std::string piece = stream->substr(0, size);
        stream->erase(0, size);
        *count += size;
        return piece;
    }
    void Say() {
        std::string problem;
        if (m_said < kMessages && m_random() % 2 == 0)
            m_session.Queue(TCP_WORKER_PROGRESS_ID, "message " + std::to_string(++m_said), &problem);
        EXPECT_EQ(problem, "");
    }
    // Each order's handler returns at some later time, perhaps while there is no connection.
    void Handle() {
        for (SessionEvent& event : m_session.TakeEvents()) {
            if (auto* arrived = std::get_if<OrderArrived>(&event))
                m_handled.push_back(std::get<TaskTextOrder>(arrived->order).text);
            EXPECT_FALSE(std::holds_alternative<SessionClosed>(event));
        }
        if (m_returned < m_handled.size() && m_random() % 2 == 0) m_session.MarkHanded(++m_returned);
    }
    // And the way to another connection.
    void Lose() {
        m_session.OnDisconnected("cut", m_now);
        for (;;) {
            Say();
            std::vector<SessionEvent> events = m_session.TakeEvents();
            if (std::any_of(events.begin(), events.end(), [](const SessionEvent& event) {
                    return std::holds_alternative<ConnectAgain>(event);
                }))
                break;
            ASSERT_EQ(m_session.CurrentState(), Session::State::Interrupted);
            m_session.OnTime(m_now = *m_session.Deadline());
        }
        m_engine.NewConnection();
        m_session.OnConnected(m_now);
    }
    bool IsDone() const {
        return m_session.CurrentState() == Session::State::Open && m_engine.taken.size() == kMessages &&
               m_session.AcknowledgedByPeer() == kMessages && m_handled.size() == kOrders &&
               m_engine.HasAllAcknowledged();
    }
    void Check() {
        ASSERT_EQ(m_engine.taken.size(), kMessages);
        ASSERT_EQ(m_handled.size(), kOrders);
        for (std::size_t i = 0; i < kMessages; ++i)
            EXPECT_EQ(m_engine.taken[i], "message " + std::to_string(i + 1));
        for (std::size_t i = 0; i < kOrders; ++i) EXPECT_EQ(m_handled[i], "order " + std::to_string(i + 1));
    }

    Random m_random;
    ModelEngine m_engine;
    SteadyTime m_now{std::chrono::hours(100)};
    Session m_session{{1, "t", "a", 1, "v", 0, 0}, {}, m_now, false};
    std::uint64_t m_said = 0;
    std::uint64_t m_returned = 0;  // handler calls
    std::vector<std::string> m_handled;
};

class SessionCut : public ::testing::TestWithParam<int> {
  protected:
    static std::uint64_t Commits() { return static_cast<std::uint64_t>(GetParam()); }
};

TEST_P(SessionCut, AtEveryByteNothingIsLostOrDoubled) {
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        const Cut whole = Conversation(seed, Commits()).Run({});
        ASSERT_GT(whole.toEngine, 200u);
        ASSERT_GT(whole.toWorker, 200u);
        for (std::size_t at = 1; at <= whole.toEngine && !HasFailure(); ++at)
            Conversation(seed, Commits()).Run({{at, SIZE_MAX}});
        for (std::size_t at = 1; at <= whole.toWorker && !HasFailure(); ++at)
            Conversation(seed, Commits()).Run({{SIZE_MAX, at}});
    }
}

// The handshakes that resume are cut as well.
TEST_P(SessionCut, AgainAndAgainNothingIsLostOrDoubled) {
    Random random(static_cast<std::uint64_t>(GetParam()) + 1);
    for (std::uint64_t seed = 1; seed <= 2'000 && !HasFailure(); ++seed) {
        std::vector<Cut> cuts(1 + random() % 6);
        for (Cut& cut : cuts) cut = {1 + random() % 150, 1 + random() % 150};
        Conversation(seed, Commits()).Run(cuts);
        if (HasFailure()) ADD_FAILURE() << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Commits, SessionCut, ::testing::Values(0, 3, 100));

}  // namespace
}  // namespace rq::link

// Streams of corpus/ and transcripts/, as they stand and mutated by a seed, into the frame reader, the
// decoders and a session: whatever comes in, nothing crashes (the sanitizers look on) and what is promised of
// every stream holds. RQ_FUZZ_ROUNDS mutations of each file (200), beginning with the seed RQ_FUZZ_SEED (1);
// a failure names the file, the seed and the bytes, which then belong into corpus/.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "link/session.h"

namespace rq::link {
namespace {

using Random = std::mt19937_64;

std::string ReadHex(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string bytes;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#")) continue;
        std::istringstream words(line);
        for (std::string word; words >> word;)
            bytes.push_back(static_cast<char>(std::stoi(word, nullptr, 16)));
    }
    return bytes;
}

std::string HexOf(std::string_view bytes) {
    std::ostringstream out;
    out << std::hex;
    for (const char c : bytes) out << (static_cast<unsigned char>(c) < 16 ? "0" : "") << (c & 0xFF) << ' ';
    return out.str();
}

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

// Cuts a stream into pieces as a network might.
std::vector<std::string_view> Pieces(std::string_view bytes, Random& random) {
    std::vector<std::string_view> pieces;
    while (!bytes.empty()) {
        const std::size_t size = std::min<std::size_t>(bytes.size(), 1 + random() % (random() % 2 ? 3 : 200));
        pieces.push_back(bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
    return pieces;
}

// ---- the frame reader ----

struct Read {
    std::vector<Frame> frames;
    std::string problem;
    std::size_t rest = 0;
};

Read ReadAll(const std::vector<std::string_view>& pieces) {
    FrameReader reader;
    Read read;
    for (const std::string_view piece : pieces) {
        reader.Feed(piece);
        Frame frame;
        while (reader.Next(&frame) == FrameReader::Status::Ready) read.frames.push_back(frame);
    }
    read.problem = reader.Problem();
    read.rest = reader.Buffered();
    return read;
}

void CheckReader(std::string_view bytes, Random& random) {
    const Read whole = ReadAll({bytes});
    const Read cut = ReadAll(Pieces(bytes, random));
    ASSERT_EQ(whole.frames.size(), cut.frames.size());
    EXPECT_EQ(whole.problem, cut.problem);
    if (whole.problem.empty()) {
        EXPECT_EQ(whole.rest, cut.rest);
    }
    for (std::size_t i = 0; i < whole.frames.size(); ++i)
        EXPECT_EQ(*EncodeFrame(whole.frames[i]), *EncodeFrame(cut.frames[i])) << i;
}

// ---- the decoders ----

// What could be decoded is written in one way, and that is read back as the same.
void CheckDecoders(const std::string& body) {
    for (std::uint32_t id = 4000; id <= 4020; ++id) {
        if (IsWorkerRecordId(id)) {
            if (const Result<WorkerRecord> record = DecodeWorkerRecord(id, body)) {
                const std::string once = *EncodeWorkerRecord(id, *record);
                const Result<WorkerRecord> again = DecodeWorkerRecord(id, once);
                ASSERT_TRUE(again) << id;
                EXPECT_EQ(*EncodeWorkerRecord(id, *again), once) << id;
            }
        }
        if (IsOrderId(id)) {
            if (const Result<Order> order = DecodeOrder(id, body)) {
                const std::string once = *EncodeOrder(id, *order);
                const Result<Order> again = DecodeOrder(id, once);
                ASSERT_TRUE(again) << id;
                EXPECT_EQ(*EncodeOrder(id, *again), once) << id;
            }
        }
    }
    if (const Result<Hello> hello = DecodeHello(body)) {
        EXPECT_EQ(EncodeHello(*DecodeHello(EncodeHello(*hello))), EncodeHello(*hello));
    }
    if (const Result<Welcome> welcome = DecodeWelcome(body)) {
        EXPECT_EQ(EncodeWelcome(*DecodeWelcome(EncodeWelcome(*welcome))), EncodeWelcome(*welcome));
    }
    if (const Result<Refuse> refuse = DecodeRefuse(body)) {
        EXPECT_EQ(EncodeRefuse(*DecodeRefuse(EncodeRefuse(*refuse))), EncodeRefuse(*refuse));
    }
}

// ---- the session ----

// A worker's session under a stream: what it tells, and what it writes meanwhile.
class Driven {
  public:
    Driven() : m_session({1, "t", "a", 1, "v", 0, 0}, {}, m_now, true) {
        m_session.OnConnected(m_now);
        Settle();
    }

    void Feed(std::string_view piece) {
        m_session.OnBytes(piece, m_now);
        Settle();
    }
    void Queue(std::string body) {
        std::string problem;
        m_session.Queue(TCP_WORKER_PROGRESS_ID, std::move(body), &problem);
        Settle();
    }
    void Pass(std::chrono::milliseconds time) {
        m_now += time;
        m_session.OnTime(m_now);
        Settle();
    }
    void HandAll() {
        if (!orders.empty()) m_session.MarkHanded(orders.back().first);
        Settle();
    }
    void End() {
        m_session.End();
        Settle();
    }
    bool IsClosed() const { return m_closed; }

    std::vector<std::pair<std::uint64_t, std::uint32_t>> orders;
    std::string reason;

  private:
    void Settle() {
        const std::string output = m_session.TakeOutput(m_now);
        for (const SessionEvent& event : m_session.TakeEvents()) {
            ASSERT_FALSE(m_closed && !std::holds_alternative<LogNote>(event)) << "an event after the last";
            if (const auto* order = std::get_if<OrderArrived>(&event)) {
                ASSERT_TRUE(m_welcomed) << "an order before WELCOME";
                // 12306 has its number too, and is handed to nobody.
                ASSERT_GT(order->seq, orders.empty() ? 0 : orders.back().first);
                orders.emplace_back(order->seq, order->id);
            } else if (std::holds_alternative<Welcomed>(event)) {
                ASSERT_FALSE(m_welcomed) << "welcomed twice";
                m_welcomed = true;
                EXPECT_NE(m_session.SessionId(), kNoSession);
            } else if (const auto* closed = std::get_if<SessionClosed>(&event)) {
                m_closed = true;
                reason = closed->reason;
                EXPECT_FALSE(reason.empty());
            }
        }
        EXPECT_EQ(m_closed, m_session.CurrentState() == Session::State::Closed);
        m_reader.Feed(output);
        Frame frame;
        FrameReader::Status status = FrameReader::Status::NeedMore;
        while ((status = m_reader.Next(&frame)) == FrameReader::Status::Ready) {
            EXPECT_GE(frame.ack, m_ack);
            m_ack = frame.ack;
            if (frame.seq != 0) {
                EXPECT_EQ(frame.seq, ++m_sent);
            }
        }
        EXPECT_EQ(status, FrameReader::Status::NeedMore) << m_reader.Problem();
        EXPECT_LE(m_session.AcknowledgedByPeer(), m_sent);
        if (!output.empty()) m_session.OnWritten(m_now);
    }

    SteadyTime m_now{std::chrono::hours(100)};
    Session m_session;
    FrameReader m_reader;
    std::uint64_t m_ack = 0;
    std::uint64_t m_sent = 0;
    bool m_welcomed = false;
    bool m_closed = false;
};

// Orders that are dropped by number apart (repeats, 12306), what is handed over does not hang on how the
// bytes came.
void CheckSession(const std::string& bytes, Random& random) {
    Driven whole;
    whole.Feed(bytes);
    Driven cut;
    for (const std::string_view piece : Pieces(bytes, random)) cut.Feed(piece);
    EXPECT_EQ(whole.orders, cut.orders);
    EXPECT_EQ(whole.reason, cut.reason);

    Driven busy;
    for (const std::string_view piece : Pieces(bytes, random)) {
        switch (random() % 16) {
            case 0:
                busy.Queue("x");
                break;
            case 1:
                busy.Pass(std::chrono::milliseconds(random() % 20'000));
                break;
            case 2:
                busy.HandAll();
                break;
            case 3:
                if (random() % 8 == 0) busy.End();
                break;
            default:
                break;
        }
        busy.Feed(piece);
    }
    busy.Pass(std::chrono::hours(1));
    busy.Feed(bytes);
    busy.HandAll();
}

// ---- mutations ----

class Mutator {
  public:
    Mutator(const std::vector<std::string>& corpus, std::uint64_t seed) : m_corpus(corpus), m_random(seed) {}

    std::string Mutate(std::string bytes) {
        for (auto times = 1 + m_random() % 4; times > 0; --times)
            bytes = m_random() % 3 == 0 ? MutateBytes(std::move(bytes)) : MutateFrames(bytes);
        return bytes;
    }

  private:
    std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : m_random() % limit; }
    // Numbers at which something changes.
    std::uint64_t Interesting() {
        static constexpr std::uint64_t kNumbers[] = {
            0,    1,    2,    3,    4,    5,    6,     7,     127,   128,      255,        3999,      4000,
            4002, 4009, 4014, 4015, 4017, 4019, 12306, 65536, 65537, 1u << 24, 0xFFFFFFFF, UINT64_MAX};
        return kNumbers[Below(std::size(kNumbers))];
    }
    std::string MutateBytes(std::string bytes) {
        if (bytes.empty()) return bytes;
        const std::size_t at = Below(bytes.size());
        switch (m_random() % 6) {
            case 0:
                bytes[at] = static_cast<char>(m_random());
                break;
            case 1:
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << m_random() % 8));
                break;
            case 2:
                bytes.insert(at, 1 + Below(4), static_cast<char>(m_random()));
                break;
            case 3:
                bytes.erase(at, 1 + Below(4));
                break;
            case 4:
                bytes.insert(at, bytes.substr(Below(bytes.size()), 1 + Below(16)));
                break;
            default:  // a length that is one off, or far
                bytes[at] = static_cast<char>(bytes[at] + (m_random() % 2 ? 1 : -1));
        }
        return bytes;
    }
    // Frames that stay frames, so that what lies behind the reader is reached.
    std::string MutateFrames(const std::string& bytes) {
        std::vector<Frame> frames = ReadAll({bytes}).frames;
        if (frames.empty()) return MutateBytes(bytes);
        const std::size_t at = Below(frames.size());
        switch (m_random() % 8) {
            case 0:
                frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(at));
                break;
            case 1:
                frames.insert(frames.begin() + static_cast<std::ptrdiff_t>(at), frames[Below(frames.size())]);
                break;
            case 2:
                std::swap(frames[at], frames[Below(frames.size())]);
                break;
            case 3:
                frames[at].seq = m_random() % 2 ? Interesting() : frames[at].seq + 1;
                break;
            case 4:
                frames[at].ack = Interesting();
                break;
            case 5:
                frames[at].id = static_cast<std::uint32_t>(Interesting());
                break;
            case 6:
                frames[at].body = MutateBytes(frames[at].body);
                break;
            default: {
                const std::vector<Frame> others = ReadAll({m_corpus[Below(m_corpus.size())]}).frames;
                if (!others.empty()) frames[at].body = others[Below(others.size())].body;
            }
        }
        std::string out;
        for (const Frame& frame : frames)
            if (const Result<std::string> encoded = EncodeFrame(frame)) out += *encoded;
        return out;
    }

    const std::vector<std::string>& m_corpus;
    Random m_random;
};

struct Corpus {
    std::vector<std::string> names;
    std::vector<std::string> streams;
};

Corpus ReadCorpus() {
    std::vector<std::filesystem::path> paths;
    for (const char* folder : {RQ_CORPUS, RQ_TRANSCRIPTS})
        for (const auto& file : std::filesystem::directory_iterator(folder))
            if (file.path().extension() == ".hex") paths.push_back(file.path());
    std::sort(paths.begin(), paths.end());
    Corpus corpus;
    for (const auto& path : paths) {
        corpus.names.push_back(path.filename().string());
        corpus.streams.push_back(ReadHex(path));
    }
    return corpus;
}

// WELCOME, for streams that do not begin with one.
std::string Opened(const std::string& bytes) {
    return *EncodeFrame({0, 0, kWelcomeId, EncodeWelcome({1, 7, 0, 15'000, 60'000, {}})}) + bytes;
}

void Check(const std::string& bytes, std::uint64_t seed) {
    Random random(seed);
    CheckReader(bytes, random);
    for (const Frame& frame : ReadAll({bytes}).frames) CheckDecoders(frame.body);
    CheckSession(bytes, random);
    CheckSession(Opened(bytes), random);
}

TEST(LinkFuzz, TheCorpusAndItsMutations) {
    const Corpus corpus = ReadCorpus();
    ASSERT_GE(corpus.streams.size(), 30u);
    const std::uint64_t rounds = FromEnvironment("RQ_FUZZ_ROUNDS", 200);
    const std::uint64_t firstSeed = FromEnvironment("RQ_FUZZ_SEED", 1);
    for (std::size_t i = 0; i < corpus.streams.size(); ++i) {
        for (std::uint64_t round = 0; round <= rounds; ++round) {
            const std::uint64_t seed = firstSeed + round;
            const std::string bytes =
                round == 0 ? corpus.streams[i]
                           : Mutator(corpus.streams, seed * 1'000 + i).Mutate(corpus.streams[i]);
            Check(bytes, seed);
            ASSERT_FALSE(HasFailure())
                << corpus.names[i] << ", RQ_FUZZ_SEED=" << seed << ", round " << round << "\n"
                << HexOf(bytes);
        }
    }
}

// The corpus reaches what it is there for: else a mutation of it would not either.
TEST(LinkFuzz, TheCorpusReachesEveryOrderAndEveryReasonToClose) {
    const Corpus corpus = ReadCorpus();
    std::vector<std::uint32_t> orders;
    std::string reasons;
    for (const std::string& bytes : corpus.streams) {
        Driven plain;
        plain.Feed(bytes);
        Driven opened;
        opened.Feed(Opened(bytes));
        for (const Driven* driven : {&plain, &opened}) {
            for (const auto& order : driven->orders) orders.push_back(order.second);
            reasons += driven->reason + "\n";
        }
    }
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4014u, 4015u, 4017u, 4019u})
        EXPECT_NE(std::find(orders.begin(), orders.end(), id), orders.end()) << id;
    for (const char* reason :
         {"the engine ended the session", "refused by the engine, code", "cannot be decoded", "after 0",
          "with seq", "with the id 0", "in an open session", "acknowledged", "answered HELLO with",
          "names more than the 10000 tasks", "bytes, not 16", "protocol version 2",
          "WELCOME with the session ID"})
        EXPECT_NE(reasons.find(reason), std::string::npos) << reason << " not in:\n" << reasons;
}

}  // namespace
}  // namespace rq::link

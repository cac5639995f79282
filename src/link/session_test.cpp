#include "link/session.h"

#include <gtest/gtest.h>

#include "link/session_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

TEST(Session, SaysHelloFirstAndIsOpenAfterWelcome) {
    SessionTest f;
    EXPECT_TRUE(f.Written().empty());
    EXPECT_EQ(f.Queue(), 0u);
    f.session.OnConnected(f.now);
    const std::vector<Frame> first = f.Written();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].id, kHelloId);
    EXPECT_EQ(first[0].seq, 0u);
    EXPECT_EQ(DecodeHello(first[0].body)->token, "t");
    f.Receive({0, 0, kWelcomeId, EncodeWelcome({1, 7, 0, 1, 1, {}})});
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
    EXPECT_EQ(f.session.SessionId(), 7u);
    const std::vector<SessionEvent> events = f.session.TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(std::get<Welcomed>(events[0]).sessionId, 7u);
}

TEST(Session, AHeartbeatThatWaitsStandsForTheNext) {
    SessionTest f;
    f.Open();
    std::string problem;
    const auto beat = [&] { return f.session.Queue(4000, "b", &problem); };
    EXPECT_EQ(f.Queue(), 1u);
    EXPECT_EQ(beat(), 2u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(beat(), 2u);
    EXPECT_EQ(f.Queue(), 3u);
    std::vector<std::uint64_t> written;
    for (const Frame& frame : f.Written()) written.push_back(frame.seq);
    EXPECT_EQ(written, (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(beat(), 4u);  // that one is on its way
    EXPECT_EQ(problem, "");
}

TEST(Session, HandshakeFailuresAreNoLoss) {
    const std::vector<Frame> answers = {{0, 0, kRefuseId, EncodeRefuse({1, "wrong token"})},
                                        {0, 0, kWelcomeId, EncodeWelcome({2, 7, 0, 1, 1, {}})},
                                        {0, 0, kWelcomeId, EncodeWelcome({1, 0, 0, 1, 1, {}})},
                                        {0, 0, kPingId, {}},
                                        {1, 0, 4014, {}}};
    for (const Frame& answer : answers) {
        SessionTest f;
        f.session.OnConnected(f.now);
        f.Written();
        f.Receive(answer);
        bool wasOpen = true;
        EXPECT_NE(f.Closed(&wasOpen), "");
        EXPECT_FALSE(wasOpen);
    }
}

TEST(Session, HandshakeHasATimeAndASizeLimit) {
    SessionTest late;
    EXPECT_EQ(late.session.Deadline(), late.now + 5s);
    late.session.OnTime(late.now + 5s - 1ms);
    EXPECT_EQ(late.Closed(), "");
    late.session.OnTime(late.now + 5s);
    EXPECT_NE(late.Closed().find("no answer"), std::string::npos);
    SessionTest large;
    large.session.OnConnected(large.now);
    large.Written();
    large.Receive({0, 0, kWelcomeId, std::string(70'000, 'w')});
    EXPECT_NE(large.Closed().find("over the limit"), std::string::npos);
}

TEST(Session, NumbersItsFramesAndTakesAcks) {
    SessionTest f;
    f.Open();
    EXPECT_EQ(f.Queue("a"), 1u);
    EXPECT_EQ(f.Queue("b"), 2u);
    const std::vector<Frame> sent = f.Written();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].seq, 1u);
    EXPECT_EQ(sent[1].seq, 2u);
    EXPECT_EQ(sent[1].body, "b");
    f.Receive({0, 2, kAckId, {}});
    EXPECT_EQ(f.session.AcknowledgedByPeer(), 2u);
    f.Receive({0, 1, kAckId, {}});  // an older value is ignored
    EXPECT_EQ(f.session.AcknowledgedByPeer(), 2u);
    EXPECT_EQ(f.Closed(), "");
}

TEST(Session, AnAckOfWhatWasNeverWrittenIsALoss) {
    SessionTest f;
    f.Open();
    f.Queue();  // queued only
    f.Receive({0, 1, kAckId, {}});
    bool wasOpen = false;
    EXPECT_NE(f.Closed(&wasOpen), "");
    EXPECT_TRUE(wasOpen);
}

TEST(Session, AcknowledgesAnOrderWhenItHasBeenHandedAndNotBefore) {
    SessionTest f;
    f.Open();
    f.Order(1);
    f.Order(2);
    EXPECT_TRUE(f.Written().empty());
    f.Queue();
    EXPECT_EQ(f.Written().at(0).ack, 0u);
    f.session.MarkHanded(1);
    std::vector<Frame> ack = f.Written();
    ASSERT_EQ(ack.size(), 1u);
    EXPECT_EQ(ack[0].id, kAckId);
    EXPECT_EQ(ack[0].ack, 1u);
    f.session.MarkHanded(2);
    f.Queue();  // the ack rides on it
    ack = f.Written();
    ASSERT_EQ(ack.size(), 1u);
    EXPECT_EQ(ack[0].id, 4008u);
    EXPECT_EQ(ack[0].ack, 2u);
    EXPECT_TRUE(f.Written().empty());
}

TEST(Session, AnUnknownNumberedFrameIsAcknowledgedInItsTurn) {
    SessionTest f;
    f.Open();
    f.Order(1);
    f.Receive({2, 0, 5000, "?"});
    f.Receive({3, 0, 4009, "an id that only a worker sends"});
    EXPECT_TRUE(f.Written().empty());  // 1 is not handed yet
    f.session.MarkHanded(1);
    EXPECT_EQ(f.Written().at(0).ack, 1u);
    f.session.MarkHanded(3);
    EXPECT_EQ(f.Written().at(0).ack, 3u);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
}

TEST(Session, ARepeatIsIgnored) {
    SessionTest f;
    f.Open();
    f.Order(1);
    f.Order(1);
    std::size_t orders = 0;
    for (const SessionEvent& event : f.session.TakeEvents())
        orders += std::holds_alternative<OrderArrived>(event);
    EXPECT_EQ(orders, 1u);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
}

TEST(Session, ProtocolFaultsAreLosses) {
    TaskCommand tooMany;
    tooMany.taskIds.resize(10'001);
    const std::vector<Frame> faults = {{1, 0, 4002, EncodeTaskCommand(tooMany)},
                                       {2, 0, 4014, {}},        // a gap
                                       {0, 0, 4014, {}},        // an order without a number
                                       {1, 0, kAckId, {}},      // a numbered control frame
                                       {0, 0, 0, "x"},          // no id
                                       {0, 0, kHelloId, {}},    // out of place
                                       {0, 0, kWelcomeId, {}},  //
                                       {0, 0, kRefuseId, {}},   //
                                       {0, 0, kByeId, {}},      // the engine's end
                                       {1, 0, 4002, "\x0A\x01z"},
                                       {1, 0, 4017, "\xFF"}};
    for (const Frame& fault : faults) {
        SessionTest f;
        f.Open();
        f.Receive(fault);
        bool wasOpen = false;
        EXPECT_NE(f.Closed(&wasOpen), "") << fault.id;
        EXPECT_TRUE(wasOpen);
        EXPECT_EQ(f.Queue(), 0u);
    }
}

TEST(Session, DefaultLimits) {
    const SessionLimits limits;
    EXPECT_EQ(limits.connect, 5s);
    EXPECT_EQ(limits.write, 10s);
    EXPECT_EQ(limits.settled, 1s);
    EXPECT_EQ(limits.queue_bytes, 64u << 20);
    EXPECT_EQ(limits.orders_bytes, 64u << 20);
}

// 9,000 empty IDs have 18,000 bytes on the wire and 32 bytes each in the list that waits for the handler.
TEST(Session, TheMemoryOfAListOfTaskIdsCountsAsWaiting) {
    SessionLimits limits;
    limits.orders_bytes = 9'000 * (sizeof(std::string) + 2) + 256;
    TaskCommand command;
    command.taskIds.resize(9'000);
    const std::string list(EncodeTaskCommand(command).substr(18));  // without the UUID
    for (const std::size_t more : {0u, 1u}) {
        SessionTest f(limits);
        f.Open();
        std::string body = list;
        if (more != 0) body += std::string("\x1A\x00", 2);
        f.Receive({1, 0, 4002, body});
        EXPECT_EQ(f.session.CurrentState(), more == 0 ? Session::State::Open : Session::State::Closed);
    }
}

TEST(Session, AnUnknownControlFrameIsIgnored) {
    SessionTest f;
    f.Open();
    f.Receive({0, 0, 77, "?"});
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
    EXPECT_TRUE(f.Written().empty());
}

TEST(Session, PingsAfterItsOwnSilenceAndAnswersPings) {
    SessionTest f;
    f.Open(1'000, 10'000);
    EXPECT_EQ(f.session.Deadline(), f.now + 1s);
    f.now += 1s;
    f.session.OnTime(f.now);
    std::vector<Frame> sent = f.Written();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].id, kPingId);
    f.Receive({0, 0, kPingId, {}});
    sent = f.Written();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].id, kAckId);
}

TEST(Session, SilenceOfTheEngineIsALossAtTheLimitExactly) {
    SessionTest f;
    f.Open(0, 10'000);
    f.now += 5s;
    f.Receive({0, 0, kAckId, {}});
    f.session.OnTime(f.now + 10s - 1ms);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
    f.session.OnTime(f.now + 10s);
    EXPECT_NE(f.Closed().find("silent"), std::string::npos);
}

TEST(Session, ZeroSwitchesTheWatchesOff) {
    SessionTest f;
    f.Open(0, 0);
    EXPECT_FALSE(f.session.Deadline().has_value());
    f.session.OnTime(f.now + 24h);
    EXPECT_TRUE(f.Written().empty());
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
}

TEST(Session, AStuckWriteIsALossAndHoldsBackTheNext) {
    SessionTest f;
    f.Open(0, 0);
    f.Queue();
    EXPECT_EQ(f.Take().size(), 1u);
    f.Queue();
    EXPECT_TRUE(f.Take().empty());
    EXPECT_EQ(f.session.Deadline(), f.now + 10s);
    f.session.OnTime(f.now + 10s - 1ms);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
    f.session.OnTime(f.now + 10s);
    EXPECT_NE(f.Closed().find("write"), std::string::npos);
}

TEST(Session, TheQueueIsBoundedAndOpensAgain) {
    SessionLimits limits;
    limits.queue_bytes = 100;
    SessionTest f(limits);
    f.Open();
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 1u);
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 0u);
    EXPECT_EQ(f.Queue(std::string(40, 'x')), 2u);  // a refused one takes no number
    f.Written();
    EXPECT_EQ(f.Queue(std::string(100, 'x')), 3u);
}

TEST(Session, ABatchIsClosedByTheFrameThatReaches256KiB) {
    constexpr std::size_t kBatch_bytes = std::size_t{256} * 1024;
    const std::size_t head_bytes = EncodeFrameHead(1, 0, 4008, kBatch_bytes).size();
    for (const std::size_t missing_bytes : {0u, 1u}) {
        SessionTest f;
        f.Open();
        f.Queue(std::string(kBatch_bytes - head_bytes - missing_bytes, 'x'));
        f.Queue();
        f.Queue();
        EXPECT_EQ(f.Written().size(), 1 + missing_bytes);
        EXPECT_EQ(f.Written().size(), 2 - missing_bytes);
    }
}

TEST(Session, ABodyThatFitsNoFrameIsRefused) {
    SessionTest f;
    f.Open();
    EXPECT_EQ(f.Queue(std::string(kFrameLimit_bytes, 'x')), 0u);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Open);
}

TEST(Session, OrdersThatPileUpAreALoss) {
    SessionLimits limits;
    limits.orders_bytes = 1'000;
    SessionTest f(limits);
    f.Open();
    std::uint64_t seq = 0;
    while (f.session.CurrentState() == Session::State::Open && seq < 100) f.Order(++seq);
    EXPECT_EQ(seq, 4u);
}

TEST(Session, EndsWithByeAfterWhatIsQueued) {
    SessionTest f;
    f.Open();
    f.Queue();
    f.session.End();
    EXPECT_EQ(f.Queue(), 0u);
    const std::vector<Frame> sent = f.Take();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].seq, 1u);
    EXPECT_EQ(sent[1].id, kByeId);
    f.session.OnWritten(f.now);
    const std::vector<SessionEvent> events = f.session.TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(std::holds_alternative<ByeWritten>(events[0]));
    f.Order(1);  // dropped, not acknowledged
    EXPECT_TRUE(f.session.TakeEvents().empty());
    EXPECT_TRUE(f.Take().empty());
    f.session.OnDisconnected("closed", f.now);
    bool wasOpen = true;
    EXPECT_EQ(f.Closed(&wasOpen), "closed");
    EXPECT_FALSE(wasOpen);
}

TEST(Session, ClosesOnceOnly) {
    SessionTest f;
    f.Open();
    f.session.OnDisconnected("first", f.now);
    f.session.OnDisconnected("second", f.now);
    f.Receive({5, 0, 4014, {}});
    std::size_t closed = 0;
    for (const SessionEvent& event : f.session.TakeEvents())
        closed += std::holds_alternative<SessionClosed>(event);
    EXPECT_EQ(closed, 1u);
}

}  // namespace
}  // namespace rq::link

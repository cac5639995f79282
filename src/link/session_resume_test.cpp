// A session whose connection is lost, and that goes on over another one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "link/session_test_kit.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

struct ResumeTest : SessionTest {
    explicit ResumeTest(std::uint32_t window_ms = 60'000, SessionLimits limits = {}) : SessionTest(limits) {
        welcome.resumeWindow_ms = window_ms;
        OpenWith(welcome);
    }

    // Both with their events left for the test to take.
    void Lose(std::string reason = "cut") { session.OnDisconnected(std::move(reason), now); }
    void Pass(milliseconds time) {
        now += time;
        session.OnTime(now);
    }
    template <class Event>
    std::vector<Event> Events() {
        std::vector<Event> found;
        for (SessionEvent& event : session.TakeEvents())
            if (auto* one = std::get_if<Event>(&event)) found.push_back(std::move(*one));
        return found;
    }
    // Whether the session asks for another connection now.
    bool AsksAgain() { return Events<ConnectAgain>().size() == 1; }
    // The HELLO of a connection that has come about.
    Frame Hail() {
        session.TakeEvents();
        session.OnConnected(now);
        const std::vector<Frame> frames = Written();
        EXPECT_EQ(frames.size(), 1u);
        return frames.empty() ? Frame{} : frames[0];
    }
    void Resume(std::uint64_t ack) {
        Hail();
        Receive({0, ack, kWelcomeId, EncodeWelcome(welcome)});
    }
    bool IsOpen() const { return session.CurrentState() == Session::State::Open; }
    bool IsInterrupted() const { return session.CurrentState() == Session::State::Interrupted; }
    // The seqs of what is written.
    std::vector<std::uint64_t> WrittenSeqs() {
        std::vector<std::uint64_t> seqs;
        for (const Frame& frame : Written()) seqs.push_back(frame.seq);
        return seqs;
    }
    std::uint64_t Beat() {
        std::string problem;
        return session.Queue(TCP_WORKER_HEARTBEAT_ID, "b", &problem);
    }

    Welcome welcome{1, 7, 60'000, 15'000, 60'000, {}, "named"};
};

using Seqs = std::vector<std::uint64_t>;

TEST(SessionResume, WithoutAWindowALossIsTheEnd) {
    ResumeTest f(0);
    f.Queue();
    f.Written();
    f.Lose();
    bool wasOpen = false;
    EXPECT_EQ(f.Closed(&wasOpen), "cut");
    EXPECT_TRUE(wasOpen);
    EXPECT_FALSE(f.session.TakesMessages());
}

TEST(SessionResume, ALossInterruptsAndAsksForAnotherConnectionAtOnce) {
    ResumeTest f;
    f.Queue();
    f.Written();
    f.Queue();
    f.Lose("cut");
    const std::vector<SessionEvent> events = f.session.TakeEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(std::get<ConnectionLost>(events[0]).reason, "cut");
    EXPECT_EQ(std::get<ConnectionLost>(events[0]).window, 60s);
    EXPECT_EQ(std::get<ConnectionLost>(events[0]).kept, 2u);
    EXPECT_TRUE(std::holds_alternative<ConnectAgain>(events[1]));
    EXPECT_TRUE(f.IsInterrupted());
    EXPECT_EQ(f.session.SessionId(), 7u);
    EXPECT_TRUE(f.Take().empty());  // there is no connection yet
}

// Everything of section 7 and 8 that is a loss interrupts, and the connection is to be closed once.
TEST(SessionResume, EveryKindOfLossInterrupts) {
    const std::vector<std::function<void(ResumeTest&)>> losses = {
        [](ResumeTest& f) { f.Lose(); },
        [](ResumeTest& f) { f.Pass(60s); },
        [](ResumeTest& f) {
            f.Queue();
            f.Take();
            f.Pass(10s);
        },
        [](ResumeTest& f) {
            f.Receive({2, 0, 4014, {}});
        },
        [](ResumeTest& f) {
            f.Receive({0, 9, kAckId, {}});
        },
        [](ResumeTest& f) {
            f.Receive({0, 0, 0, "x"});
        },
        [](ResumeTest& f) {
            f.Receive({0, 0, kWelcomeId, {}});
        },
        [](ResumeTest& f) {
            f.Receive({1, 0, 4017, "\xFF"});
        },
        [](ResumeTest& f) { f.session.OnBytes(std::string(4, '\0'), f.now); }};
    for (std::size_t i = 0; i < losses.size(); ++i) {
        ResumeTest f;
        losses[i](f);
        EXPECT_TRUE(f.IsInterrupted()) << i;
        EXPECT_EQ(f.Events<ConnectionLost>().size(), 1u) << i;
        f.Resume(0);
        EXPECT_TRUE(f.IsOpen()) << i;
    }
}

TEST(SessionResume, TheEnginesByeIsTheEnd) {
    ResumeTest f;
    f.Receive({0, 0, kByeId, {}});
    bool wasOpen = false;
    EXPECT_NE(f.Closed(&wasOpen), "");
    EXPECT_TRUE(wasOpen);
}

TEST(SessionResume, HelloSaysWhereTheSessionStands) {
    ResumeTest f;
    for (int i = 0; i < 3; ++i) f.Queue();
    f.Written();
    f.Receive({0, 2, kAckId, {}});
    f.Order(1);
    f.Order(2);
    f.session.MarkHanded(1);
    f.Written();
    f.Lose();
    const Frame frame = f.Hail();
    EXPECT_EQ(frame.id, kHelloId);
    EXPECT_EQ(frame.ack, 1u);  // what it has
    const Hello hello = *DecodeHello(frame.body);
    EXPECT_EQ(hello.token, "t");
    EXPECT_EQ(hello.attempt, "named");  // by WELCOME
    EXPECT_EQ(hello.resumeSessionId, 7u);
    EXPECT_EQ(hello.resumeReceived, 2u);
    EXPECT_EQ(hello.resumeAcknowledged, 2u);
}

TEST(SessionResume, AWelcomeWithoutAnAttemptLeavesTheWorkersOwn) {
    SessionTest f;
    f.OpenWith({1, 7, 60'000, 0, 0, {}, {}});
    EXPECT_EQ(f.session.Attempt(), "a");
}

TEST(SessionResume, WhatTheEngineHasNotIsSentAgainBeforeAnythingNew) {
    ResumeTest f;
    for (const char* body : {"1", "2", "3"}) f.Queue(body);
    f.Written();
    f.Queue("4");  // waits
    f.Lose();
    EXPECT_EQ(f.Queue("5"), 5u);  // numbering goes on
    f.Resume(1);
    EXPECT_EQ(f.session.AcknowledgedByPeer(), 1u);
    EXPECT_EQ(f.Queue("6"), 6u);
    const std::vector<Frame> sent = f.Written();
    ASSERT_EQ(sent.size(), 5u);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].seq, i + 2);
        EXPECT_EQ(sent[i].body, std::to_string(i + 2));
        EXPECT_EQ(sent[i].id, 4008u);
    }
    EXPECT_TRUE(f.Written().empty());
}

TEST(SessionResume, ResumedSaysWhatItTook) {
    ResumeTest f;
    for (int i = 0; i < 3; ++i) f.Queue();
    f.Written();
    f.Queue();
    f.Lose();
    f.Lose("refused");
    f.Pass(100ms);
    f.Resume(1);
    const auto resumed = f.Events<Resumed>();
    ASSERT_EQ(resumed.size(), 1u);
    EXPECT_EQ(resumed[0].away, 100ms);
    EXPECT_EQ(resumed[0].attempts, 2u);
    EXPECT_EQ(resumed[0].acknowledged, 1u);
    EXPECT_EQ(resumed[0].again, 2u);  // 2 and 3; 4 had not been sent
}

// An engine that waits for the commit of what it got by the last connection may acknowledge it before this
// side has written it again.
TEST(SessionResume, AnAckMayOvertakeTheRepetition) {
    ResumeTest f;
    for (int i = 0; i < 3; ++i) f.Queue(std::string(200'000, 'x'));
    f.Written();
    f.Written();
    f.Lose();
    f.Resume(0);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{1, 2}));  // a batch
    f.Receive({0, 3, kAckId, {}});
    EXPECT_TRUE(f.IsOpen());
    EXPECT_TRUE(f.Written().empty());
    EXPECT_EQ(f.Queue(), 4u);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{4}));
}

TEST(SessionResume, AcknowledgedFramesAreForgottenWhileTheConnectionStands) {
    SessionLimits limits;
    limits.queue_bytes = 100;
    ResumeTest f(60'000, limits);
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 1u);
    f.Written();
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 0u);  // what is written counts until it is acknowledged
    f.Receive({0, 1, kAckId, {}});
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 2u);
    EXPECT_EQ(f.Queue(std::string(40, 'x')), 3u);
    f.Written();
    f.Lose();
    EXPECT_EQ(f.Queue("x"), 0u);  // nor may an interruption fill the memory
    f.Resume(2);
    EXPECT_EQ(f.Queue(std::string(60, 'x')), 4u);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{3, 4}));
}

TEST(SessionResume, OrdersThatWereReceivedGoOnAndCountOnce) {
    ResumeTest f;
    f.Order(1);
    f.Order(2);
    EXPECT_EQ(f.Events<OrderArrived>().size(), 2u);
    f.Lose();
    f.session.MarkHanded(1);  // its handler returns meanwhile
    const Frame hello = f.Hail();
    EXPECT_EQ(hello.ack, 1u);
    EXPECT_EQ(DecodeHello(hello.body)->resumeReceived, 2u);
    f.Receive({0, 0, kWelcomeId, EncodeWelcome(f.welcome)});
    EXPECT_TRUE(f.Written().empty());
    f.Order(2);  // a repeat
    EXPECT_TRUE(f.Events<OrderArrived>().empty());
    f.Order(3);
    EXPECT_EQ(f.Events<OrderArrived>().size(), 1u);
    f.session.MarkHanded(2);
    const std::vector<Frame> ack = f.Written();
    ASSERT_EQ(ack.size(), 1u);
    EXPECT_EQ(ack[0].ack, 2u);
}

// One that came in part is not received, nor one that could not be taken: the engine sends it again.
TEST(SessionResume, WhatWasNotTakenIsNotReceived) {
    ResumeTest f;
    const std::string frame = *EncodeFrame({1, 0, 4017, *EncodeTaskText("<a>text</a>")});
    f.session.OnBytes(frame.substr(0, frame.size() - 1), f.now);
    f.Lose();
    EXPECT_EQ(DecodeHello(f.Hail().body)->resumeReceived, 0u);
    f.Receive({0, 0, kWelcomeId, EncodeWelcome(f.welcome)});
    f.session.OnBytes(frame, f.now);  // whole, behind a rest that is forgotten
    EXPECT_EQ(f.Events<OrderArrived>().size(), 1u);
    f.Receive({2, 0, 4002, "\x0A\x01z"});
    EXPECT_TRUE(f.IsInterrupted());
    f.Pass(100ms);
    EXPECT_EQ(DecodeHello(f.Hail().body)->resumeReceived, 1u);
    SessionLimits limits;
    limits.orders_bytes = 1'000;
    ResumeTest full(60'000, limits);
    std::uint64_t seq = 0;
    while (full.IsOpen() && seq < 100) full.Order(++seq);
    EXPECT_EQ(seq, 4u);
    EXPECT_EQ(DecodeHello(full.Hail().body)->resumeReceived, 3u);
}

// A batch that had been taken, and how much of it arrived is not known.
TEST(SessionResume, AWriteThatWasUnderWayIsRepeated) {
    ResumeTest f;
    f.Queue();
    f.Queue();
    EXPECT_EQ(f.Take().size(), 2u);  // never completes
    f.Queue();
    f.Lose();
    f.Resume(1);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{2, 3}));
}

TEST(SessionResume, AHeartbeatThatWasNeverWrittenStandsForTheNext) {
    ResumeTest f;
    EXPECT_EQ(f.Beat(), 1u);
    f.Written();
    f.Lose();
    EXPECT_EQ(f.Beat(), 2u);  // the first has been written, and may have arrived
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(f.Beat(), 2u);
    f.Resume(0);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{1, 2}));
    EXPECT_EQ(f.Beat(), 3u);
}

// ---- attempts ----

TEST(SessionResume, PausesGrowFromTheEndOfEachFailedAttempt) {
    ResumeTest f;
    f.Lose();
    EXPECT_TRUE(f.AsksAgain());
    for (const milliseconds pause : {100ms, 200ms, 400ms, 800ms, 1'000ms, 1'000ms}) {
        f.now += 50ms;  // the attempt took that
        f.Lose("refused");
        EXPECT_EQ(f.Events<AttemptFailed>().at(0).reason, "refused");
        EXPECT_EQ(f.session.Deadline(), f.now + pause);
        f.Pass(pause - 1ms);
        EXPECT_FALSE(f.AsksAgain());
        f.Pass(1ms);
        EXPECT_TRUE(f.AsksAgain());
    }
}

TEST(SessionResume, AnAttemptTakesFiveSecondsAtMost) {
    ResumeTest f;
    f.Lose();
    EXPECT_TRUE(f.AsksAgain());
    EXPECT_EQ(f.session.Deadline(), f.now + 5s);
    f.Pass(2s);
    f.Hail();  // no answer to it
    f.Pass(3s - 1ms);
    EXPECT_TRUE(f.session.TakeEvents().empty());
    f.Pass(1ms);
    EXPECT_EQ(f.Events<AttemptFailed>().at(0).reason, "no answer within 5000 ms");
    EXPECT_TRUE(f.Take().empty());
}

TEST(SessionResume, TheWindowIsCountedFromTheLoss) {
    ResumeTest f;
    f.Lose();
    f.session.TakeEvents();
    while (f.now < SteadyTime(100h) + 59s) {
        f.Lose("refused");
        f.Pass(500ms);
        f.Pass(500ms);
    }
    EXPECT_TRUE(f.IsInterrupted());
    f.Lose("refused");
    EXPECT_EQ(f.session.Deadline(), SteadyTime(100h) + 60s);
    f.session.TakeEvents();
    f.now = SteadyTime(100h) + 60s - 1ms;
    f.session.OnTime(f.now);
    EXPECT_TRUE(f.IsInterrupted());
    f.session.TakeEvents();
    f.Pass(1ms);
    bool wasOpen = false;
    EXPECT_EQ(f.Closed(&wasOpen), "not resumed within 60000 ms, at last: refused");
    EXPECT_TRUE(wasOpen);
    EXPECT_FALSE(f.session.Deadline().has_value());
    EXPECT_EQ(f.Queue(), 0u);
}

TEST(SessionResume, AnAttemptThatIsUnderWayEndsWithTheWindow) {
    ResumeTest f(3'000);
    f.Lose();
    f.Hail();
    EXPECT_EQ(f.session.Deadline(), f.now + 3s);
    f.Pass(3s);
    EXPECT_EQ(f.Closed(), "not resumed within 3000 ms");
}

TEST(SessionResume, AWindowIsAnHourAtMost) {
    ResumeTest f(3'600'001);
    f.Lose();
    EXPECT_EQ(f.Events<ConnectionLost>().at(0).window, 1h);
}

TEST(SessionResume, TheNextLossHasAWindowOfItsOwn) {
    ResumeTest f;
    f.Lose();
    f.Pass(50s);
    f.session.TakeEvents();
    f.Lose("refused");
    f.Pass(1s);
    f.welcome.resumeWindow_ms = 20'000;  // and the terms of the newest WELCOME
    f.welcome.silenceLimit_ms = 30'000;
    f.welcome.pingInterval_ms = 0;
    f.welcome.spoolFolder = "/elsewhere";
    f.Resume(0);
    ASSERT_TRUE(f.IsOpen());
    EXPECT_EQ(f.session.SpoolFolder(), "/elsewhere");
    EXPECT_EQ(f.session.Deadline(), f.now + 30s);  // silence begins anew
    f.Pass(30s);
    EXPECT_TRUE(f.IsInterrupted());
    f.Hail();
    f.Pass(20s - 1ms);
    EXPECT_TRUE(f.IsInterrupted());
    f.Pass(1ms);
    EXPECT_EQ(f.session.CurrentState(), Session::State::Closed);
}

TEST(SessionResume, AResumedSessionWithoutAWindowEndsWithTheNextLoss) {
    ResumeTest f;
    f.Queue();
    f.Written();
    f.Queue();
    f.Lose();
    f.welcome.resumeWindow_ms = 0;
    f.Resume(0);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{1, 2}));
    EXPECT_EQ(f.Queue(), 3u);
    EXPECT_EQ(f.WrittenSeqs(), (Seqs{3}));
    f.Lose();
    bool wasOpen = false;
    EXPECT_EQ(f.Closed(&wasOpen), "cut");
    EXPECT_TRUE(wasOpen);
}

// A fault that comes back with each connection must not have both sides do nothing else.
TEST(SessionResume, ASessionThatIsLostAgainSoonWaitsLonger) {
    ResumeTest f;
    f.Lose();
    EXPECT_TRUE(f.AsksAgain());
    for (const milliseconds pause : {100ms, 200ms, 400ms}) {
        f.Resume(0);
        f.Pass(999ms);
        f.Lose();
        EXPECT_FALSE(f.AsksAgain());
        EXPECT_EQ(f.session.Deadline(), f.now + pause);
        f.Pass(pause);
        EXPECT_TRUE(f.AsksAgain());
    }
    f.Resume(0);
    f.Pass(1s);
    f.Lose();
    EXPECT_TRUE(f.AsksAgain());
}

// ---- answers ----

// Resumes whenever it is asked to, for at most `time`; `break_` is what happens to each connection. The
// number of connections.
int ResumeInVain(ResumeTest& f, milliseconds time, const std::function<void()>& break_) {
    int resumed = 0;
    for (const SteadyTime end = f.now + time; f.now < end && f.session.TakesMessages(); f.Pass(50ms)) {
        if (f.IsInterrupted() && f.AsksAgain()) {
            f.Resume(f.session.AcknowledgedByPeer());
            EXPECT_TRUE(f.IsOpen());
            ++resumed;
            break_();
        }
    }
    return resumed;
}

TEST(SessionResume, AnOrderThatCannotBeTakenEndsTheSessionAfterTheWindow) {
    ResumeTest f;
    f.Order(1);
    const auto bad = [&f] { f.Receive({2, 0, 4017, "\xFF"}); };
    bad();
    EXPECT_GT(ResumeInVain(f, 59s,
                           [&] {
                               // What goes the other way is no progress of this one.
                               f.Queue();
                               f.Written();
                               f.Receive({0, f.session.AcknowledgedByPeer() + 1, kAckId, {}});
                               bad();
                           }),
              40);
    EXPECT_TRUE(f.session.TakesMessages());
    ResumeInVain(f, 5s, bad);
    bool wasOpen = false;
    EXPECT_THAT(f.Closed(&wasOpen), testing::StartsWith("not resumed within 60000 ms, at last: "));
    EXPECT_TRUE(wasOpen);
}

TEST(SessionResume, ARecordThatTheEngineDoesNotTakeEndsTheSessionAfterTheWindow) {
    ResumeTest f;
    f.Queue();
    f.Written();
    f.Lose();
    ResumeInVain(f, 65s, [&] {
        f.Written();
        f.Lose("closed by the engine");
    });
    bool wasOpen = false;
    EXPECT_EQ(f.Closed(&wasOpen), "not resumed within 60000 ms, at last: closed by the engine");
    EXPECT_TRUE(wasOpen);
}

TEST(SessionResume, WhateverGetsThroughBeginsTheWindowAnew) {
    for (const bool isOrder : {true, false}) {
        ResumeTest f;
        std::uint64_t number = 0;
        f.Lose();
        ResumeInVain(f, 300s, [&] {
            f.Queue();
            f.Written();
            ++number;
            if (isOrder) {
                f.Order(number);
                f.Receive({number + 2, 0, 4014, {}});
            } else {
                f.Receive({0, number, kAckId, {}});
                f.Queue();
                f.Written();
                f.Lose();
            }
        });
        EXPECT_TRUE(f.session.TakesMessages()) << isOrder;
        EXPECT_GT(number, 200u);
    }
    // And so does a connection that lasts, or one that had nothing to bring.
    ResumeTest f;
    f.Lose();
    ResumeInVain(f, 300s, [&] { f.Lose(); });
    EXPECT_TRUE(f.session.TakesMessages());
    f.Queue();
    f.Written();
    ResumeInVain(f, 300s, [&] {
        f.Written();
        f.Pass(1s);
        f.Lose();
    });
    EXPECT_TRUE(f.session.TakesMessages());
}

TEST(SessionResume, AnswersThatEndTheSession) {
    const auto ends = [](const Frame& answer) {
        ResumeTest f;
        for (int i = 0; i < 3; ++i) f.Queue();
        f.Written();
        f.Receive({0, 2, kAckId, {}});
        f.Lose();
        f.Queue();  // never sent
        f.Hail();
        f.Receive(answer);
        bool wasOpen = false;
        const bool isClosed = !f.Closed(&wasOpen).empty();
        EXPECT_EQ(wasOpen, isClosed);
        EXPECT_EQ(f.session.CurrentState() == Session::State::Closed, isClosed);
        return isClosed;
    };
    const auto welcome = [](std::uint32_t session, std::uint64_t ack) {
        return Frame{0, ack, kWelcomeId, EncodeWelcome({1, session, 60'000, 0, 0, {}, "named"})};
    };
    EXPECT_FALSE(ends(welcome(7, 2)));
    EXPECT_FALSE(ends(welcome(7, 3)));
    EXPECT_TRUE(ends(welcome(8, 2)));
    EXPECT_TRUE(ends(welcome(0, 2)));
    EXPECT_TRUE(ends(welcome(0xFFFFFFFF, 2)));
    EXPECT_TRUE(ends(welcome(7, 1)));  // less than it has acknowledged
    EXPECT_TRUE(ends(welcome(7, 4)));  // queued, and not sent
    for (const std::uint32_t code : {0u, 1u, 2u, 3u, 6u, 99u})
        EXPECT_TRUE(ends({0, 0, kRefuseId, EncodeRefuse({code, "no"})})) << code;
}

TEST(SessionResume, AnswersThatFailTheAttemptAlone) {
    const std::vector<Frame> answers = {{0, 0, kRefuseId, EncodeRefuse({4, "later"})},
                                        {0, 0, kRefuseId, EncodeRefuse({5, "later"})},
                                        {0, 0, kRefuseId, "\xFF"},
                                        {0, 0, kWelcomeId, "\xFF"},
                                        {0, 0, kWelcomeId, EncodeWelcome({2, 7, 60'000, 0, 0, {}, "named"})},
                                        {0, 0, kPingId, {}},
                                        {0, 0, kByeId, {}},
                                        {1, 0, 4014, {}},
                                        {0, 0, kWelcomeId, std::string(70'000, 'w')}};
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ResumeTest f;
        f.Queue();
        f.Written();
        f.Lose();
        f.Hail();
        f.Receive(answers[i]);
        EXPECT_EQ(f.Events<AttemptFailed>().size(), 1u) << i;
        EXPECT_EQ(f.session.Deadline(), f.now + 100ms) << i;
        f.Receive({0, 0, kWelcomeId, EncodeWelcome(f.welcome)});  // too late
        EXPECT_TRUE(f.IsInterrupted()) << i;
        f.Pass(100ms);
        f.Resume(1);
        EXPECT_TRUE(f.IsOpen()) << i;
    }
}

// ---- the worker's own end ----

TEST(SessionResume, TheWorkersEndDuringAnInterruptionIsAtOnceAndNoLoss) {
    for (const bool isUnderWay : {false, true}) {
        ResumeTest f;
        f.Lose();
        if (isUnderWay)
            f.Hail();
        else
            f.Lose("refused");
        f.session.TakeEvents();
        f.session.End();
        bool wasOpen = true;
        EXPECT_EQ(f.Closed(&wasOpen), "ended by the worker");
        EXPECT_FALSE(wasOpen);
        EXPECT_TRUE(f.Take().empty());
    }
}

TEST(SessionResume, ALossAfterTheWorkersByeIsNotResumed) {
    ResumeTest f;
    f.session.End();
    f.Written();
    f.Lose();
    bool wasOpen = true;
    EXPECT_EQ(f.Closed(&wasOpen), "cut");
    EXPECT_FALSE(wasOpen);
}

TEST(SessionResume, TheByeOfAResumedSessionComesBehindTheRepetition) {
    ResumeTest f;
    f.Queue();
    f.Written();
    f.Lose();
    f.Resume(0);
    f.session.End();
    const std::vector<Frame> sent = f.Written();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].seq, 1u);
    EXPECT_EQ(sent[1].id, kByeId);
}

TEST(SessionResume, AFailureIsNotResumed) {
    for (const bool isInterrupted : {false, true}) {
        ResumeTest f;
        if (isInterrupted) f.Lose();
        f.session.TakeEvents();
        f.session.Fail("odd");
        bool wasOpen = false;
        EXPECT_EQ(f.Closed(&wasOpen), "odd");
        EXPECT_TRUE(wasOpen);
    }
}

}  // namespace
}  // namespace rq::link

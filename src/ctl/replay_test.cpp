#include "ctl/replay.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <future>
#include <thread>

#include "kit/scripted_engine.h"
#include "kit/temp_dir.h"
#include "link/codec.h"
#include "link/engine_client.h"
#include "platform/files.h"

namespace rq::ctl {
namespace {

using namespace std::chrono_literals;

TEST(ParseJournal, TakesConnectionsFramesAndEndings) {
    const auto journal = ParseJournal(
        "{\"time\": \"T1\", \"event\": \"connect\", \"pid\": 7, \"worker\": \"1.2\"}\n"
        "{\"time\": \"T2\", \"way\": \"out\", \"id\": 4001, \"seq\": 1, \"ack\": 0, \"body\": \"0aff\"}\n"
        "{\"time\": \"T3\", \"way\": \"in\", \"id\": 4014, \"seq\": 2, \"ack\": 1, \"body\": \"\", \"new\": "
        "1}\n"
        "{\"time\": \"T4\", \"event\": \"bad\", \"reason\": \"b\"}\n"
        "{\"time\": \"T5\", \"event\": \"close\", \"reason\": \"c\"}\n"
        "{\"time\": \"T5\", \"event\": \"full\", \"reason\": \"d\"}\n"
        "{\"time\": \"T6\", \"event\": \"connect\"}\n"
        "{\"time\": \"T7\", \"way\": \"up\", \"id\": 1}\n"
        "{\"time\": \"T7\", \"way\": \"in\", \"body\": \"0\"}\n"
        "{\"event\": \"later\"}\nnot json\n\n[1]\n{\"time\": \"cut");
    ASSERT_TRUE(journal) << journal.error().message;
    ASSERT_EQ(journal->connections.size(), 2u);
    const JournalConnection& first = journal->connections[0];
    EXPECT_EQ(first.processId, 7);
    EXPECT_EQ(first.workerVersion, "1.2");
    ASSERT_EQ(first.frames.size(), 2u);
    EXPECT_TRUE(first.frames[0].fromWorker);
    EXPECT_EQ(first.frames[0].frame.body, "\x0A\xFF");
    EXPECT_FALSE(first.frames[1].fromWorker);
    EXPECT_EQ(first.frames[1].frame.id, 4014u);
    EXPECT_EQ(first.frames[1].frame.seq, 2u);
    EXPECT_EQ(first.frames[1].frame.ack, 1u);
    EXPECT_EQ(first.endings, (std::vector<std::string>{"bad: b", "close: c", "full: d"}));
    EXPECT_EQ(journal->strangeLines, 6u);
}

TEST(ParseJournal, RefusesWhatIsNoJournal) {
    EXPECT_EQ(ParseJournal("").error().message, "no connection stands in it; is it a link journal?");
    EXPECT_FALSE(ParseJournal("{\"way\": \"in\", \"id\": 4014}\n"));
}

JournalFrame Numbered(bool fromWorker, std::uint64_t seq, std::uint32_t id, std::string body = {}) {
    return {"T", fromWorker, {seq, 0, id, std::move(body)}};
}

std::vector<std::uint64_t> Numbers(const JournalConnection& connection) {
    std::vector<std::uint64_t> numbers;
    for (const JournalFrame& line : connection.frames) numbers.push_back(line.frame.seq);
    return numbers;
}

TEST(JournalSessions, JoinWhatWasResumedAndKeepEachFrameOnce) {
    link::Welcome welcome;
    welcome.sessionId = 7;
    link::Hello again;
    again.resumeSessionId = 7;
    const auto hello = [](const link::Hello& body) {
        return Numbered(true, 0, link::kHelloId, link::EncodeHello(body));
    };
    const auto answer = Numbered(false, 0, link::kWelcomeId, link::EncodeWelcome(welcome));
    Journal journal;
    journal.connections.resize(5);
    journal.connections[0].frames = {hello({}), answer, Numbered(true, 1, 4001), Numbered(true, 2, 4009),
                                     Numbered(false, 1, 4004)};
    journal.connections[0].endings = {"close: lost"};
    // The engine ends: nobody answers, then it refuses, then it goes on.
    journal.connections[1].frames = {hello(again)};
    journal.connections[2].frames = {
        hello(again), Numbered(false, 0, link::kRefuseId, link::EncodeRefuse({link::kRefuseEnding, ""}))};
    journal.connections[3].frames = {hello(again), answer, Numbered(true, 2, 4009), Numbered(true, 3, 4005),
                                     Numbered(false, 2, 4014)};
    journal.connections[3].endings = {"close: left"};
    journal.connections[4].frames = {hello({}), answer, Numbered(true, 1, 4001)};

    const auto sessions = JournalSessions(journal);
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(Numbers(sessions[0]), (std::vector<std::uint64_t>{0, 0, 1, 2, 1, 3, 2}));
    EXPECT_EQ(sessions[0].endings, std::vector<std::string>{"close: left"});
    EXPECT_EQ(Numbers(sessions[1]), (std::vector<std::uint64_t>{0, 0, 1}));

    // Another session than the one that was asked for is a new one.
    welcome.sessionId = 8;
    journal.connections[3].frames[1].frame.body = link::EncodeWelcome(welcome);
    EXPECT_EQ(JournalSessions(journal).size(), 3u);
}

TEST(FrameWords, TellOfAResumedSession) {
    link::Hello hello;
    hello.resumeSessionId = 7;
    hello.resumeReceived = 3;
    hello.resumeAcknowledged = 2;
    EXPECT_NE(FrameWords(1, link::EncodeHello(hello)).find(", resumes session 7 after 3, acknowledged 2"),
              std::string::npos);
    EXPECT_EQ(FrameWords(1, link::EncodeHello({})).find("resumes"), std::string::npos);
    link::Welcome welcome;
    welcome.sessionId = 7;
    welcome.resumeWindow_ms = 60'000;
    EXPECT_NE(FrameWords(2, link::EncodeWelcome(welcome)).find("session 7, resumed within 60000 ms"),
              std::string::npos);
}

TEST(FrameWords, TellEachKind) {
    EXPECT_EQ(FrameWords(4, ""), "ACK");
    EXPECT_EQ(FrameWords(4014, ""), "4014 order to end");
    EXPECT_EQ(FrameWords(4999, "abc"), "4999 3 bytes that this program does not know");
    const TaskNotice notice{"1.0", "g", "任务\n1"};
    EXPECT_EQ(FrameWords(4001, link::EncodeWorkerRecord(4001, &notice).value()),
              "4001 task \"任务 1\" of worker \"g\"");
    const TaskCommandReply reply{"1.0", "g", "T", "0", "\xC8\xCE\xCE\xF1\xD2\xD1\xC8\xA1\xCF\xFB"};
    EXPECT_EQ(FrameWords(4003, link::EncodeWorkerRecord(4003, &reply).value()),
              "4003 reply \"任务已取消\" for task \"T\"");
    EngineStateMessage state{4009, "state", "Worker", "Lite/Agent", {}};
    state.entries.emplace_back().status = 4;
    state.entries[0].errorCode = 0xFFFFFFFB;
    state.entries[0].furtherText = "line 1";
    EXPECT_EQ(
        FrameWords(4009, link::EncodeWorkerRecord(4009, &state).value()),
        "4009 state 4 error, task \"\", error 0xFFFFFFFB \"\", detail 0x00000000 \"\", further \"line 1\"");
    EXPECT_EQ(FrameWords(4015, link::EncodeTaskText(std::string(500, 'x')).value()),
              "4015 task text of 500 bytes \"" + std::string(160, 'x') + "...\"");
    EXPECT_NE(FrameWords(4009, "\xFF").size(), std::string("4009").size());
}

JournalFrame Line(bool fromWorker, std::uint32_t id, std::string body = {}) {
    return {"T", fromWorker, {id >= 4000 ? 1u : 0u, 0, id, std::move(body)}};
}

// Suspended after its first status, then resumed, then told to end.
JournalConnection Sample() {
    JournalConnection connection;
    link::Welcome welcome;
    welcome.sessionId = 77;
    const std::string command = link::EncodeTaskCommand({});
    connection.frames = {
        Line(true, link::kHelloId), Line(false, link::kWelcomeId, link::EncodeWelcome(welcome)),
        Line(true, 4009),           Line(false, link::kAckId),
        Line(false, 4004, command), Line(true, 4005),
        Line(true, 4000),           Line(false, 4006, command),
        Line(true, 4007),           Line(true, 4008),
        Line(true, 4009),           Line(false, 4014)};
    return connection;
}

TEST(ReplayScript, GivesEachOrderWhenWhatStoodBeforeItHasCome) {
    ReplayScript script(Sample());
    ASSERT_NE(script.Answer(), nullptr);
    EXPECT_EQ(script.Answer()->id, link::kWelcomeId);
    EXPECT_FALSE(script.NextDue());
    EXPECT_EQ(script.Missing(), "4009 (0 of 1)");
    script.Took(4000);
    script.Took(4008);
    EXPECT_FALSE(script.NextDue());
    script.Took(4009);
    EXPECT_EQ(script.NextDue()->id, 4004u);
    EXPECT_FALSE(script.NextDue());
    script.Took(4005);
    EXPECT_EQ(script.NextDue()->id, 4006u);
    script.Took(4009);
    EXPECT_FALSE(script.NextDue());
    EXPECT_EQ(script.Missing(), "4007 (0 of 1)");
    EXPECT_FALSE(script.IsDone());
    script.Took(4007);
    EXPECT_EQ(script.NextDue()->id, 4014u);
    EXPECT_FALSE(script.NextDue());
    EXPECT_TRUE(script.IsDone());
    EXPECT_EQ(script.Missing(), "");
}

TEST(ReplayScript, WaitsForTheFarewellThatTheJournalHas) {
    JournalConnection connection = Sample();
    connection.frames.push_back(Line(true, link::kByeId));
    ReplayScript script(connection);
    for (const std::uint32_t id : {4009u, 4005u, 4007u, 4009u}) script.Took(id);
    while (script.NextDue()) {
    }
    EXPECT_FALSE(script.IsDone());
    EXPECT_EQ(script.Missing(), "BYE (0 of 1)");
    script.Took(link::kByeId);
    EXPECT_TRUE(script.IsDone());
}

std::string StateBody(std::uint32_t status, const std::string& taskId) {
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    message.entries.emplace_back().status = status;
    message.entries[0].taskId = taskId;
    return link::EncodeWorkerRecord(4009, &message).value();
}

// A repeat is one only of the status before it: the second task of a package may end as the first did.
TEST(ReplayScript, AFinalStatusThatWasSentAgainIsWaitedForOnce) {
    const std::string running = StateBody(kTaskRunning, "T"), finished = StateBody(kTaskFinished, "T");
    JournalConnection connection;
    for (const std::string& body :
         {running, running, finished, finished, finished, StateBody(kTaskFinished, "U"), running, finished}) {
        connection.frames.push_back(Line(true, 4009, body));
        connection.frames.push_back(Line(true, 4000));
    }
    connection.frames.push_back(Line(false, 4014));
    ReplayScript script(connection);
    EXPECT_EQ(script.Missing(), "4009 (0 of 6)");
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(script.NextDue());
        script.Took(4009);
    }
    EXPECT_EQ(script.NextDue()->id, 4014u);
    EXPECT_TRUE(script.IsDone());
}

// A worker's client that answers suspend and resume, and says its two statuses.
struct Client {
    Client() : client(link::CreateEngineClient(link::EngineClientOptions{})) {
        const EngineClientSetup setup{this, &Client::Handle, L""};
        client->Initialize(&setup);
    }
    ~Client() { DeleteEngineClient(&client); }
    static void Handle(std::uint32_t id, const void*, void* context) {
        auto& self = *static_cast<Client*>(context);
        self.orders.push_back(id);
        const TaskCommandReply reply{"1.0", "g", "T", "0", "x"};
        if (id == 4004 || id == 4006) self.client->SendMessage(self.session, id + 1, &reply);
        if (id == 4006) self.SendState(kTaskFinished);
        if (id == 4014) self.ended.set_value();
    }
    void SendState(std::uint32_t status) {
        EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
        message.entries.emplace_back().status = status;
        client->SendMessage(session, TCP_WORKER_STATE_ID, &message);
    }
    void Connect(std::uint16_t port) {
        const EngineEndpoint endpoint{"127.0.0.1", port};
        session = client->Connect(&endpoint);
    }
    IEngineCommunicate* client;
    std::atomic<std::uint32_t> session = kNoSession;
    std::vector<std::uint32_t> orders;  // the handler's thread, until `ended`
    std::promise<void> ended;
};

TEST(Play, DoesForAWorkerWhatTheEngineDid) {
    std::promise<std::uint16_t> port;
    JournalConnection journal = Sample();
    journal.frames.push_back(Line(true, link::kByeId));
    auto played = std::async(std::launch::async, [&] {
        ReplayOptions options;
        options.wait = 60s;
        return Play(journal, options, [&](std::uint16_t p) { port.set_value(p); });
    });
    Client worker;
    worker.Connect(port.get_future().get());
    EXPECT_EQ(worker.session, 77u);
    worker.SendState(kTaskRunning);
    ASSERT_EQ(worker.ended.get_future().wait_for(kit::ScriptedEngine::kPatience), std::future_status::ready);
    EXPECT_EQ(worker.orders, (std::vector<std::uint32_t>{4004, 4006, 4014}));
    worker.client->Disconnect();
    const auto result = played.get();
    ASSERT_TRUE(result) << result.error().message;
    EXPECT_EQ(*result, kExitFinished);
}

// The player does not come back, and the journal's folder may be another machine's.
TEST(Play, OffersNoResumption) {
    std::promise<std::uint16_t> port;
    JournalConnection journal = Sample();
    link::Welcome welcome;
    welcome.sessionId = 77;
    welcome.resumeWindow_ms = 60'000;
    welcome.spoolFolder = "/nowhere";
    journal.frames[1].frame.body = link::EncodeWelcome(welcome);
    auto played = std::async(std::launch::async, [&] {
        ReplayOptions options;
        options.wait = 60s;
        return Play(journal, options, [&](std::uint16_t p) { port.set_value(p); });
    });
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket worker(io);
    worker.connect({boost::asio::ip::address_v4::loopback(), port.get_future().get()});
    boost::asio::write(
        worker, boost::asio::buffer(*link::EncodeFrame({0, 0, link::kHelloId, link::EncodeHello({})})));
    worker.shutdown(boost::asio::ip::tcp::socket::shutdown_send);
    std::string received;
    boost::system::error_code error;
    boost::asio::read(worker, boost::asio::dynamic_buffer(received), error);
    link::FrameReader reader;
    reader.Feed(received);
    link::Frame frame;
    ASSERT_EQ(reader.Next(&frame), link::FrameReader::Status::Ready);
    const auto answer = link::DecodeWelcome(frame.body);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->sessionId, 77u);
    EXPECT_EQ(answer->resumeWindow_ms, 0u);
    EXPECT_EQ(answer->spoolFolder, "");
    EXPECT_FALSE(played.get());
}

// A journal whose worker was killed ends without BYE. Most of what this one sends is unread when the last
// order goes out: the connection ends in good order all the same, since a reset could take that order away.
TEST(Play, TheLastOrderReachesAWorkerThatStillSends) {
    namespace asio = boost::asio;
    std::promise<std::uint16_t> port;
    JournalConnection journal;
    link::Welcome welcome;
    welcome.sessionId = 77;
    journal.frames = {Line(true, link::kHelloId), Line(false, link::kWelcomeId, link::EncodeWelcome(welcome)),
                      Line(true, 4009), Line(false, 4014)};
    auto played = std::async(std::launch::async, [&] {
        ReplayOptions options;
        options.wait = 60s;
        return Play(journal, options, [&](std::uint16_t p) { port.set_value(p); });
    });
    asio::io_context io;
    asio::ip::tcp::socket worker(io);
    worker.connect({asio::ip::address_v4::loopback(), port.get_future().get()});
    std::string sent = link::EncodeFrame({0, 0, link::kHelloId, link::EncodeHello({})}).value();
    sent += link::EncodeFrame({1, 0, 4009, {}}).value();
    for (std::uint64_t seq = 2; seq < 10; ++seq)
        sent += link::EncodeFrame({seq, 0, 4008, std::string(1 << 20, '\0')}).value();
    boost::system::error_code error;
    asio::write(worker, asio::buffer(sent), error);
    EXPECT_FALSE(error) << error.message();
    worker.shutdown(asio::ip::tcp::socket::shutdown_send, error);
    std::string received;
    asio::read(worker, asio::dynamic_buffer(received), error);
    EXPECT_EQ(error, asio::error::eof) << error.message();
    link::FrameReader reader;
    reader.Feed(received);
    std::vector<std::uint32_t> orders;
    for (link::Frame frame; reader.Next(&frame) == link::FrameReader::Status::Ready;)
        if (frame.seq != 0) orders.push_back(frame.id);
    EXPECT_EQ(orders, std::vector<std::uint32_t>{4014});
    const auto result = played.get();
    ASSERT_TRUE(result) << result.error().message;
}

TEST(Play, SaysWhatAWorkerDidNotSend) {
    std::promise<std::uint16_t> port;
    const JournalConnection journal = Sample();
    auto played = std::async(std::launch::async, [&] {
        ReplayOptions options;
        options.wait = 60s;
        return Play(journal, options, [&](std::uint16_t p) { port.set_value(p); });
    });
    Client worker;
    worker.Connect(port.get_future().get());
    worker.client->Disconnect();
    const auto result = played.get();
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().exitCode, kExitFailed);
    EXPECT_EQ(result.error().message, "the worker left before it sent 4009 (0 of 1)");
}

TEST(Replay, RefusesFilesThatAreNoJournal) {
    kit::TempDir folder;
    EXPECT_EQ(Replay(folder.Utf8("none"), {}).error().exitCode, kExitUsage);
    folder.Write("x", "hello\n");
    EXPECT_EQ(Replay(folder.Utf8("x"), {}).error().message,
              folder.Utf8("x") + ": no connection stands in it; is it a link journal?");
    folder.Write("j", "{\"event\": \"connect\"}\n");
    ReplayOptions options;
    options.connection = 2;
    EXPECT_EQ(Replay(folder.Utf8("j"), options).error().message,
              "--connection: the journal has 1 connection(s)");
}

}  // namespace
}  // namespace rq::ctl

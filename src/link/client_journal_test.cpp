// The journal as the client writes it: what goes through the sockets, in order, and never the token.
#include <gtest/gtest.h>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"

namespace rq::link {
namespace {

constexpr const char* kToken = "journal-token-81f3";

// The lines without what differs from run to run: the event, or way and id; ACK, PING and time left out.
std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string line = text.substr(at, end - at);
        const std::size_t begin = line.find("Z\", ");
        if (begin == std::string::npos) {
            lines.push_back("strange: " + line);
            continue;
        }
        line = line.substr(begin + 4);
        line.resize(line.find(',', line.find("\"id\"") == std::string::npos ? 0 : line.find("\"id\"")));
        if (!line.ends_with("\"id\": 4") && !line.ends_with("\"id\": 5")) lines.push_back(line);
    }
    return lines;
}

std::string Hex(const std::string& text) {
    std::string hex;
    for (const char c : text) {
        hex += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
        hex += "0123456789abcdef"[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

class EngineClientJournal : public ::testing::Test {
  protected:
    EngineClientJournal() {
        m_engineOptions.token = kToken;
        m_options.token = kToken;
        m_options.attempt = "attempt-1";
        m_options.workerVersion = "1.2";
        m_options.journal = m_folder.Utf8("journal");
    }
    std::string Written() { return kit::ReadBytes(m_folder.Path() / "journal"); }

    kit::TempDir m_folder;
    kit::ScriptedEngineOptions m_engineOptions;
    EngineClientOptions m_options;
};

TEST_F(EngineClientJournal, HasEachConnectionOfAResumedSession) {
    m_engineOptions.welcome.resumeWindow_ms = 60'000;
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options);
        ASSERT_NE(test.Connect(engine.Port()), kNoSession);
        engine.ResetConnection();
        EXPECT_TRUE(test.SendState(kTaskFinished));
        test.client->Disconnect();
    }
    ASSERT_EQ(engine.Connections(), 2u);
    const std::string hello = "\"way\": \"out\", \"id\": 1";
    const std::string welcome = "\"way\": \"in\", \"id\": 2";
    const std::string connect = "\"event\": \"connect\"";
    const std::string close = "\"event\": \"close\"";
    std::vector<std::string> lines;
    for (const std::string& line : LinesOf(Written()))
        if (line.find("4009") == std::string::npos)
            lines.push_back(line);  // written before the loss or behind it
    EXPECT_EQ(lines, (std::vector<std::string>{connect, hello, welcome, close, "\"event\": \"interrupted\"",
                                               connect, hello, welcome, "\"event\": \"resumed\"",
                                               "\"way\": \"out\", \"id\": 6", close}));
    EXPECT_EQ(Written().find(Hex(kToken)), std::string::npos);
}

TEST_F(EngineClientJournal, HasEveryFrameOfBothWaysAndNotTheToken) {
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options);
        ASSERT_NE(test.Connect(engine.Port()), kNoSession);
        EXPECT_TRUE(test.SendState(kTaskRunning));
        ASSERT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
        const std::uint64_t order = engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
        ASSERT_TRUE(engine.WaitForAck(order));
        EXPECT_TRUE(test.SendState(kTaskFinished));
        test.client->Disconnect();
    }
    EXPECT_EQ(engine.LastHello().token, kToken);
    const std::string written = Written();
    EXPECT_EQ(LinesOf(written),
              (std::vector<std::string>{"\"event\": \"connect\"", "\"way\": \"out\", \"id\": 1",
                                        "\"way\": \"in\", \"id\": 2", "\"way\": \"out\", \"id\": 4009",
                                        "\"way\": \"in\", \"id\": 4004", "\"way\": \"out\", \"id\": 4009",
                                        "\"way\": \"out\", \"id\": 6", "\"event\": \"close\""}))
        << written;
    EXPECT_EQ(written.find(kToken), std::string::npos);
    EXPECT_EQ(written.find(Hex(kToken)), std::string::npos);
    EXPECT_NE(written.find(Hex("attempt-1")), std::string::npos);
    EXPECT_NE(written.find("\"worker\": \"1.2\""), std::string::npos);
    EXPECT_NE(written.find("\"reason\": \"the engine closed the connection\""), std::string::npos) << written;
}

TEST_F(EngineClientJournal, ARefusedTokenIsNotInItEither) {
    m_options.token = "another-token";
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options);
        EXPECT_EQ(test.Connect(engine.Port()), kNoSession);
    }
    const std::string written = Written();
    EXPECT_EQ(LinesOf(written),
              (std::vector<std::string>{"\"event\": \"connect\"", "\"way\": \"out\", \"id\": 1",
                                        "\"way\": \"in\", \"id\": 3", "\"event\": \"close\""}))
        << written;
    EXPECT_EQ(written.find(Hex("another-token")), std::string::npos);
}

TEST_F(EngineClientJournal, AConnectionThatTheEngineKeepsOpenEndsInItToo) {
    m_engineOptions.closeOnBye = false;
    m_options.disconnectWait = std::chrono::milliseconds(100);
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options);
        ASSERT_NE(test.Connect(engine.Port()), kNoSession);
        engine.StopReading();  // it does not see the end of the connection either
        test.client->Disconnect();
    }
    const std::string written = Written();
    EXPECT_EQ(LinesOf(written),
              (std::vector<std::string>{"\"event\": \"connect\"", "\"way\": \"out\", \"id\": 1",
                                        "\"way\": \"in\", \"id\": 2", "\"way\": \"out\", \"id\": 6",
                                        "\"event\": \"close\""}))
        << written;
    EXPECT_NE(written.find("\"reason\": \"the engine did not close in time\""), std::string::npos) << written;
}

TEST_F(EngineClientJournal, AConnectionThatANewAttemptReplacesEndsInIt) {
    m_engineOptions.answerHello = false;
    LateConnectionClock clock;
    m_options.clock = &clock;
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options);
        ASSERT_TRUE(clock.ConnectInVain(test, engine));
        std::thread answer([&engine] {
            EXPECT_TRUE(engine.WaitForFrame(kHelloId, 2));
            engine.SendControl(kWelcomeId, EncodeWelcome({1, 9, 0, 0, 0, {}}));
        });
        EXPECT_EQ(test.Connect(engine.Port()), 9u);
        answer.join();
    }
    const std::string written = Written();
    EXPECT_EQ(LinesOf(written),
              (std::vector<std::string>{"\"event\": \"connect\"", "\"way\": \"out\", \"id\": 1",
                                        "\"event\": \"close\"", "\"event\": \"connect\"",
                                        "\"way\": \"out\", \"id\": 1", "\"way\": \"in\", \"id\": 2",
                                        "\"way\": \"out\", \"id\": 6", "\"event\": \"close\""}))
        << written;
    EXPECT_NE(written.find("\"reason\": \"a new attempt to connect\""), std::string::npos) << written;
}

// A journal that cannot be written holds nobody up, and the link's log says why there is none.
TEST_F(EngineClientJournal, OneThatCannotBeOpenedIsALineInTheLog) {
    m_options.journal = m_folder.Utf8("none") + "/deeper/journal";
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options, WideFromPath(m_folder.Path() / "link.log"));
        EXPECT_NE(test.Connect(engine.Port()), kNoSession);
    }
    const std::string log = kit::ReadText(m_folder.Path() / "link.log");
    EXPECT_NE(log.find("no link journal: "), std::string::npos) << log;
}

}  // namespace
}  // namespace rq::link

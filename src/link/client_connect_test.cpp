// Connecting, the handshake, the log, the interface's form.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"
#include "platform/process.h"

#define RQ_TEXT_OF_NAME(x) #x
#define RQ_TEXT_OF(x) RQ_TEXT_OF_NAME(x)
// A system header that makes a macro of the name would rename the operation here and nowhere else.
static_assert(std::string_view(RQ_TEXT_OF(SendMessage)) == "SendMessage");
static_assert(std::is_same_v<decltype(&rq::IEngineCommunicate::SendMessage),
                             bool (rq::IEngineCommunicate::*)(std::uint32_t, std::uint32_t, const void*)>);

namespace rq::link {
namespace {

using namespace std::chrono_literals;

std::string LogText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A port on which nobody listens (any more).
std::uint16_t FreePort() {
    return kit::ScriptedEngine().Port();
}

TEST(EngineClientForm, TheFiveOperationsKeepTheirSlots) {
    struct Recorder final : IEngineCommunicate {
        void Initialize(const EngineClientSetup*) override { last = 0; }
        std::uint32_t Connect(const EngineEndpoint*) override { return last = 1; }
        void Disconnect() override { last = 2; }
        void Uninitialize() override { last = 3; }
        bool SendMessage(std::uint32_t, std::uint32_t, const void*) override { return (last = 4) != 0; }
        std::uint32_t last = 99;
    } recorder;
    IEngineCommunicate* object = &recorder;
    void** table = nullptr;
    std::memcpy(&table, static_cast<void*>(object), sizeof(table));
    reinterpret_cast<void (*)(void*, const void*)>(table[0])(object, nullptr);
    EXPECT_EQ(recorder.last, 0u);
    reinterpret_cast<std::uint32_t (*)(void*, const void*)>(table[1])(object, nullptr);
    EXPECT_EQ(recorder.last, 1u);
    reinterpret_cast<void (*)(void*)>(table[2])(object);
    EXPECT_EQ(recorder.last, 2u);
    reinterpret_cast<void (*)(void*)>(table[3])(object);
    EXPECT_EQ(recorder.last, 3u);
    reinterpret_cast<bool (*)(void*, std::uint32_t, std::uint32_t, const void*)>(table[4])(object, 0, 0,
                                                                                           nullptr);
    EXPECT_EQ(recorder.last, 4u);
}

// What the handler gets is read by its offsets.
TEST(EngineClientForm, PayloadsAndDefaults) {
    EXPECT_EQ(offsetof(TaskTextPayload, sessionId), 0u);
    EXPECT_EQ(offsetof(TaskTextPayload, text), 8u);
    EXPECT_EQ(offsetof(TaskCommandPayload, sessionId), 0u);
    EXPECT_EQ(offsetof(TaskCommandPayload, command), 8u);
    EXPECT_EQ(offsetof(DisconnectPayload, sessionId), 0u);
    const EngineClientSetup setup;
    EXPECT_EQ(setup.context, nullptr);
    EXPECT_EQ(setup.handler, nullptr);
    EXPECT_EQ(setup.logFile, L"RQCommunicate.log");
    const EngineClientOptions options;
    EXPECT_EQ(options.finalWait, std::chrono::seconds(5));
    EXPECT_EQ(options.disconnectWait, std::chrono::seconds(1));
    EXPECT_EQ(options.clock, nullptr);
    EXPECT_TRUE(options.journal.empty());
}

TEST(EngineClientForm, TheJournalIsNamedByTheEnvironment) {
    const kit::ScopedEnvironment journal("RQ_LINK_JOURNAL", "somewhere/j-%p");
    EXPECT_EQ(OptionsFromEnvironment().journal, "somewhere/j-%p");
}

TEST(EngineClientForm, DeleteTakesNullAndClearsThePointer) {
    DeleteEngineClient(nullptr);
    IEngineCommunicate* client = nullptr;
    DeleteEngineClient(&client);
    client = rq::CreateEngineClient();
    ASSERT_NE(client, nullptr);
    DeleteEngineClient(&client);
    EXPECT_EQ(client, nullptr);
}

TEST(EngineClientConnect, GivesTheEnginesSessionAndSaysWhoItIs) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.firstSessionId = 4711;
    engineOptions.token = "secret";
    kit::ScriptedEngine engine(engineOptions);
    const kit::ScopedEnvironment token("RQ_ENGINE_TOKEN", "secret");
    const kit::ScopedEnvironment attempt("RQ_ATTEMPT", "attempt-9");
    TestClient test(OptionsFromEnvironment());
    EXPECT_EQ(test.Connect(engine.Port()), 4711u);
    const Hello hello = engine.LastHello();
    EXPECT_EQ(hello.protocolVersion, 1u);
    EXPECT_EQ(hello.token, "secret");
    EXPECT_EQ(hello.attempt, "attempt-9");
    EXPECT_EQ(hello.processId, platform::CurrentProcessId());
    EXPECT_FALSE(hello.workerVersion.empty());
    EXPECT_EQ(hello.resumeSessionId, 0u);
    EXPECT_EQ(test.Connect(engine.Port()), 4711u);  // open already
    EXPECT_EQ(engine.Connections(), 1u);
}

TEST(EngineClientConnect, FailsWithoutAnEngineAndWorksOnceThereIsOne) {
    const std::uint16_t port = FreePort();
    TestClient test;
    EXPECT_EQ(test.Connect(port), kNoSession);
    EXPECT_EQ(test.Connect(port), kNoSession);
    EXPECT_FALSE(test.SendProgress());
    kit::ScriptedEngineOptions options;
    options.port = port;
    kit::ScriptedEngine engine(options);
    EXPECT_EQ(test.Connect(port), 1u);
    test.client->Disconnect();
    EXPECT_TRUE(test.handler.All().empty());  // a failed attempt is no loss
}

TEST(EngineClientConnect, TakesAHostName) {
    kit::ScriptedEngine engine;
    TestClient test;
    const EngineEndpoint endpoint{"localhost", engine.Port()};
    EXPECT_EQ(test.client->Connect(&endpoint), 1u);
}

TEST(EngineClientConnect, NoAddressIsAFailure) {
    TestClient test;
    EXPECT_EQ(test.client->Connect(nullptr), kNoSession);
    const EngineEndpoint endpoint{nullptr, 1};
    EXPECT_EQ(test.client->Connect(&endpoint), kNoSession);
}

TEST(EngineClientConnect, AFailureThatRepeatsIsLoggedAtFirstAndThenEach60th) {
    kit::TempDir folder;
    const std::filesystem::path log = folder.Path() / "x_C.log";
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.token = "right";
    kit::ScriptedEngine engine(engineOptions);
    {
        TestClient test({}, WideFromPath(log));
        for (int attempt = 1; attempt <= 121; ++attempt) ASSERT_EQ(test.Connect(engine.Port()), kNoSession);
    }
    const std::vector<std::string> lines = kit::ReadLines(log);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].ends_with(": wrong token")) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(": wrong token, attempt 61")) << lines[1];
    EXPECT_TRUE(lines[2].ends_with(": wrong token, attempt 121")) << lines[2];
}

TEST(EngineClientConnect, ARefusalIsAFailureThatTheLogNames) {
    kit::TempDir folder;
    const std::filesystem::path log = folder.Path() / PathFromUtf8("日志 dir") / "x_C.log";
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.token = "right";
    kit::ScriptedEngine engine(engineOptions);
    EngineClientOptions options;
    options.token = "not-the-token";
    {
        TestClient test(options, WideFromPath(log));
        EXPECT_EQ(test.Connect(engine.Port()), kNoSession);
        EXPECT_EQ(test.Connect(engine.Port()), kNoSession);  // the same failure: not logged again
        EXPECT_TRUE(test.handler.All().empty());
    }
    const std::string text = LogText(log);
    EXPECT_NE(text.find("refused by the engine, code 1: wrong token"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_EQ(text.find("not-the-token"), std::string::npos);
}

TEST(EngineClientConnect, AnEngineThatDoesNotAnswerIsAFailureInBoundedTime) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.answerHello = false;
    kit::ScriptedEngine engine(engineOptions);
    EngineClientOptions options;
    options.limits.connect = 50ms;
    TestClient test(options);
    EXPECT_EQ(test.Connect(engine.Port()), kNoSession);
    EXPECT_TRUE(engine.WaitForClosed(1));
}

// The engine answers HELLO when the test says so, after Connect has given up.
class EngineClientLateAnswer : public testing::Test {
  protected:
    EngineClientLateAnswer() {
        m_engineOptions.answerHello = false;
        m_options.clock = &m_clock;
    }

    LateConnectionClock m_clock;
    kit::ScriptedEngineOptions m_engineOptions;
    EngineClientOptions m_options;
};

// Nobody would know of the session: it is closed, what the engine orders in it is not handed on, and its end
// is no loss.
TEST_F(EngineClientLateAnswer, OpensNoSession) {
    kit::ScriptedEngine engine(m_engineOptions);
    TestClient test(m_options);
    ASSERT_TRUE(m_clock.ConnectInVain(test, engine));
    const std::string welcome = EncodeWelcome({1, 9, 0, 0, 0, {}});
    engine.SendRaw(EncodeFrame({0, 0, kWelcomeId, welcome}).value() + EncodeFrame({1, 0, 4014, {}}).value());
    ASSERT_TRUE(engine.WaitForClosed(1));

    std::thread answer([&] {
        EXPECT_TRUE(engine.WaitForFrame(kHelloId, 2));
        engine.SendControl(kWelcomeId, welcome);
    });
    EXPECT_EQ(test.Connect(engine.Port()), 9u);
    answer.join();
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.handler.All()[0].id, TCP_TASK_SUSPEND_ID);
}

TEST_F(EngineClientLateAnswer, WithAnEndBehindItLeavesNothingOpen) {
    kit::ScriptedEngine engine(m_engineOptions);
    TestClient test(m_options);
    ASSERT_TRUE(m_clock.ConnectInVain(test, engine));
    engine.SendRaw(EncodeFrame({0, 0, kWelcomeId, EncodeWelcome({1, 9, 0, 0, 0, {}})}).value() +
                   EncodeFrame({0, 0, kByeId, {}}).value());
    EXPECT_TRUE(engine.WaitForClosed(1));  // by the client: the engine waits for that
    EXPECT_TRUE(test.handler.All().empty());
}

TEST(EngineClientConnect, AnEngineThatAnswersSomethingElseIsAFailure) {
    kit::ScriptedEngineOptions engineOptions;
    engineOptions.answerHello = false;
    kit::ScriptedEngine engine(engineOptions);
    TestClient test;
    std::thread answer([&engine] {
        EXPECT_TRUE(engine.WaitForFrame(kHelloId));
        engine.SendRaw("HTTP/1.1 400 Bad Request\r\n\r\n");
    });
    EXPECT_EQ(test.Connect(engine.Port()), kNoSession);
    answer.join();
}

TEST(EngineClientConnect, ConnectsAgainAfterALossAndAfterDisconnect) {
    kit::ScriptedEngine engine;
    TestClient test;
    EXPECT_EQ(test.Connect(engine.Port()), 1u);
    engine.ResetConnection();
    ASSERT_TRUE(test.handler.WaitFor(1));
    EXPECT_EQ(test.Connect(engine.Port()), 2u);
    test.client->Disconnect();
    EXPECT_EQ(test.Connect(engine.Port()), 3u);
    engine.SendOrder(TCP_TASK_ADD_ID, TaskTextOrder{"<t/>", 0});
    ASSERT_TRUE(test.handler.WaitFor(2));
    const std::vector<Handled> handled = test.handler.All();
    EXPECT_EQ(handled[0].id, TCP_SERVER_DISCONNECT_ID);
    EXPECT_EQ(handled[0].sessionId, 1u);
    EXPECT_EQ(handled[1].sessionId, 3u);
}

// How many sockets a program started by this process gets from it.
std::ptrdiff_t InheritedSockets(const kit::TempDir& folder) {
    const std::filesystem::path list = folder.Path() / "handles.txt";
    EXPECT_EQ(std::system(("ls -l /proc/self/fd > '" + list.string() + "'").c_str()), 0);
    const std::string text = LogText(list);
    std::ptrdiff_t count = 0;
    for (std::size_t at = text.find("socket:"); at != std::string::npos; at = text.find("socket:", at + 1))
        ++count;
    return count;
}

TEST(EngineClientConnect, TheConnectionIsNotInheritedByChildren) {
    if (!kit::RootName().empty()) GTEST_SKIP() << "a child inherits what it is given and nothing else here";
    kit::TempDir folder;
    const std::ptrdiff_t before = InheritedSockets(folder);
    kit::ScriptedEngine engine;
    TestClient test;
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    EXPECT_EQ(InheritedSockets(folder), before);
}

TEST(EngineClientConnect, TheLogHoldsConnectsLossesAndAtItsDebugLevelFrames) {
    kit::TempDir folder;
    const std::filesystem::path plain = folder.Path() / "plain_C.log";
    const std::filesystem::path debug = folder.Path() / "debug_C.log";
    kit::ScriptedEngine engine;
    const auto run = [&engine](const std::filesystem::path& log) {
        TestClient test({}, WideFromPath(log));
        ASSERT_NE(test.Connect(engine.Port()), kNoSession);
        EXPECT_TRUE(test.SendState(0));
        engine.SendNumbered(5000, "??");
        engine.CloseConnection();
        ASSERT_TRUE(test.handler.WaitFor(2));  // the unknown id, then the loss
    };
    run(plain);
    {
        const kit::ScopedEnvironment on("RQ_LINK_DEBUG", "1");
        run(debug);
    }
    const std::string plainText = LogText(plain);
    EXPECT_NE(plainText.find("connected to 127.0.0.1:"), std::string::npos) << plainText;
    EXPECT_NE(plainText.find("session 1 lost: "), std::string::npos) << plainText;
    EXPECT_NE(plainText.find("refused: unknown id 5000, 2 bytes"), std::string::npos) << plainText;
    EXPECT_EQ(plainText.find("out 4009"), std::string::npos) << plainText;
    const std::string debugText = LogText(debug);
    EXPECT_NE(debugText.find("out HELLO seq 0 ack 0 body "), std::string::npos) << debugText;
    EXPECT_NE(debugText.find("out 4009 seq 1 "), std::string::npos) << debugText;
    EXPECT_NE(debugText.find("in 5000 seq 1 "), std::string::npos) << debugText;
}

}  // namespace
}  // namespace rq::link

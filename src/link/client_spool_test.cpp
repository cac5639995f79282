// The file of a final status that nobody has acknowledged.
#include <gtest/gtest.h>

#include <filesystem>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"
#include "link/spool_file.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;

class EngineClientSpool : public ::testing::TestWithParam<std::uint32_t> {
  protected:
    EngineClientSpool() {
        std::filesystem::create_directory(m_folder.Path() / "spool");
        m_engineOptions.welcome.resumeWindow_ms = GetParam();
        m_engineOptions.welcome.attempt = "named";
        m_engineOptions.welcome.spoolFolder = m_folder.Utf8("spool");
        m_options.attempt = "own";
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path() / "spool"))
            names.push_back(Utf8FromPath(entry.path().filename()));
        return names;
    }
    // The seq of the status in the file once it is there; 0 for none.
    std::uint64_t WaitForFile() const {
        if (!kit::WaitUntil([this] { return std::filesystem::exists(m_file); })) return 0;
        return SeqInFile();
    }
    std::uint64_t SeqInFile() const {
        const Result<SpooledStatus> status = DecodeSpoolFile(kit::ReadBytes(m_file));
        return status ? status->seq : 0;
    }
    bool WaitUntilGone() const {
        return kit::WaitUntil([this] { return Names().empty(); });
    }
    bool WaitForLog(const std::string& part) const { return kit::WaitForText(m_log, part); }

    kit::TempDir m_folder;
    const std::filesystem::path m_file = m_folder.Path() / "spool" / "named.final";
    const std::filesystem::path m_log = m_folder.Path() / "link_C.log";
    kit::ScriptedEngineOptions m_engineOptions;
    EngineClientOptions m_options;
};

TEST_P(EngineClientSpool, NoFileWhileAcknowledgementsCome) {
    kit::ScriptedEngine engine(m_engineOptions);
    {
        TestClient test(m_options, WideFromPath(m_log));
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        const auto before = std::filesystem::last_write_time(m_folder.Path() / "spool");
        for (int i = 0; i < 20; ++i) ASSERT_TRUE(test.SendState(kTaskFinished));
        EXPECT_EQ(std::filesystem::last_write_time(m_folder.Path() / "spool"), before);
    }
    EXPECT_TRUE(Names().empty());
}

TEST_P(EngineClientSpool, AWaitThatHasRunOutLeavesAFileUntilTheAcknowledgement) {
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 20ms;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    EXPECT_FALSE(test.SendState(kTaskCancelled));
    EXPECT_EQ(WaitForFile(), 1u);
    const Result<SpooledStatus> status = DecodeSpoolFile(kit::ReadBytes(m_file));
    ASSERT_TRUE(status) << status.error().message;
    EXPECT_EQ(status->message.entries.at(0).status, static_cast<std::uint32_t>(kTaskCancelled));
    // The engine goes by the first one; the same again is no other.
    EXPECT_FALSE(test.SendState(kTaskCancelled));
    EXPECT_FALSE(test.SendState(kTaskError));
    EXPECT_EQ(SeqInFile(), 1u);
    EXPECT_EQ(Names(), (std::vector<std::string>{"named.final"}));
    engine.SendRaw(*EncodeFrame({0, 2, kAckId, {}}));  // of the first and its repeat
    EXPECT_TRUE(kit::WaitUntil([this] { return SeqInFile() == 3; }));
    EXPECT_EQ(DecodeSpoolFile(kit::ReadBytes(m_file)).value().previous, 2u);
    engine.AcknowledgeAll();
    EXPECT_TRUE(WaitUntilGone());
    EXPECT_TRUE(WaitForLog("named.final is removed, the status in it is acknowledged"));
}

// So that an engine sees whether it has missed one.
TEST_P(EngineClientSpool, TheFileNamesTheStatusBeforeAndNoRepeatOfIt) {
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 20ms;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    EXPECT_TRUE(test.SendState(kTaskRunning));
    EXPECT_FALSE(test.SendState(kTaskError));
    EXPECT_EQ(WaitForFile(), 2u);
    auto status = DecodeSpoolFile(kit::ReadBytes(m_file));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->previous, 1u);
    EXPECT_FALSE(status->isRepeat);
    EXPECT_FALSE(test.SendState(kTaskError));
    EXPECT_FALSE(test.SendState(kTaskFinished));
    engine.SendRaw(*EncodeFrame({0, 2, kAckId, {}}));
    EXPECT_TRUE(kit::WaitUntil([this] { return SeqInFile() == 3; }));
    status = DecodeSpoolFile(kit::ReadBytes(m_file));
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->isRepeat);
    EXPECT_EQ(status->previous, 2u);
    engine.SendRaw(*EncodeFrame({0, 3, kAckId, {}}));
    EXPECT_TRUE(kit::WaitUntil([this] { return SeqInFile() == 4; }));
    EXPECT_EQ(DecodeSpoolFile(kit::ReadBytes(m_file)).value().previous, 2u);
    engine.AcknowledgeAll();
    EXPECT_TRUE(WaitUntilGone());
}

TEST_P(EngineClientSpool, ALossLeavesAFileForTheEngine) {
    {
        kit::ScriptedEngine engine(m_engineOptions);
        m_options.finalWait = 24h;
        TestClient test(m_options, WideFromPath(m_log));
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        engine.HoldFinals(true);
        bool sent = true;
        std::thread sender([&] { sent = test.SendState(kTaskFinished); });
        EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
        EXPECT_TRUE(Names().empty());
        engine.RefuseToResume(kRefuseSession);
        engine.ResetConnection();
        EXPECT_TRUE(test.handler.WaitFor(1));
        sender.join();
        EXPECT_FALSE(sent);
    }
    // The client's end has waited for it, and left it.
    EXPECT_EQ(Names(), (std::vector<std::string>{"named.final"}));
    EXPECT_EQ(SeqInFile(), 1u);
}

TEST_P(EngineClientSpool, AFolderThatCannotBeWrittenIsALineInTheLog) {
    m_engineOptions.welcome.spoolFolder = m_folder.Utf8("missing");
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 20ms;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    EXPECT_FALSE(test.SendState(kTaskFinished));
    EXPECT_TRUE(WaitForLog("a final status is not kept: create "));
    engine.HoldFinals(false);
    engine.AcknowledgeAll();
    EXPECT_TRUE(kit::WaitUntil([&] { return test.SendState(kTaskFinished); }));
    EXPECT_TRUE(test.handler.All().empty());
}

TEST_P(EngineClientSpool, WhatCouldNotBeKeptIsTriedAgainAtTheEnd) {
    std::filesystem::remove(m_folder.Path() / "spool");
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 20ms;
    std::thread later;
    {
        TestClient test(m_options, WideFromPath(m_log));
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        engine.HoldFinals(true);
        EXPECT_FALSE(test.SendState(kTaskFinished));
        EXPECT_TRUE(WaitForLog("a final status is not kept: create "));
        later = std::thread([this] {
            std::this_thread::sleep_for(500ms);
            std::filesystem::create_directory(m_folder.Path() / "spool");
        });
    }
    later.join();
    EXPECT_EQ(Names(), std::vector<std::string>{"named.final"});
}

TEST_P(EngineClientSpool, AnAttemptThatIsNoNameWritesNothing) {
    for (const char* attempt : {"../named", "a/b", "named.x"}) {
        m_engineOptions.welcome.attempt = attempt;
        kit::ScriptedEngine engine(m_engineOptions);
        m_options.finalWait = 20ms;
        TestClient test(m_options, WideFromPath(m_log));
        ASSERT_EQ(test.Connect(engine.Port()), 1u);
        engine.HoldFinals(true);
        EXPECT_FALSE(test.SendState(kTaskFinished));
        EXPECT_TRUE(WaitForLog(std::string("no file can be named after the attempt \"") + attempt));
    }
    EXPECT_TRUE(Names().empty());
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path() / "named.final"));
}

INSTANTIATE_TEST_SUITE_P(Window_ms, EngineClientSpool, ::testing::Values(0, 60'000));

class EngineClientSpoolAndResume : public EngineClientSpool {};

TEST_P(EngineClientSpoolAndResume, AnInterruptionLeavesAFileUntilTheEngineHasTheStatus) {
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 24h;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    bool sent = false;
    std::thread sender([&] { sent = test.SendState(kTaskFinished); });
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.BeAway(true);
    EXPECT_EQ(WaitForFile(), 1u);
    engine.BeAway(false);
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID, 2));
    EXPECT_EQ(SeqInFile(), 1u);
    engine.AcknowledgeAll();
    sender.join();
    EXPECT_TRUE(sent);
    EXPECT_TRUE(WaitUntilGone());
}

TEST_P(EngineClientSpoolAndResume, AStatusOfTheInterruptionIsInTheFileAtOnce) {
    m_folder.Write("spool/named.tmp", "left by a worker that was killed meanwhile");
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 24h;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.BeAway(true);
    EXPECT_TRUE(WaitForLog("session 1 interrupted"));
    bool sent = false;
    std::thread sender([&] { sent = test.SendState(kTaskFinished); });
    EXPECT_EQ(WaitForFile(), 1u);
    EXPECT_EQ(Names(), (std::vector<std::string>{"named.final"}));
    engine.BeAway(false);
    sender.join();
    EXPECT_TRUE(sent);
    EXPECT_TRUE(WaitUntilGone());
}

TEST_P(EngineClientSpoolAndResume, TheNewestWelcomesFolderCounts) {
    std::filesystem::create_directory(m_folder.Path() / "other");
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 24h;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    std::thread sender([&] { EXPECT_TRUE(test.SendState(kTaskFinished)); });
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.ChangeSpoolFolder(m_folder.Utf8("other"));
    engine.ResetConnection();  // the file may be in the first folder, too: nobody waits for that
    const std::filesystem::path other = m_folder.Path() / "other" / "named.final";
    EXPECT_TRUE(kit::WaitUntil([&] { return std::filesystem::exists(other); }));
    engine.AcknowledgeAll();
    sender.join();
    EXPECT_TRUE(kit::WaitUntil([&] { return !std::filesystem::exists(other); }));
}

// What an earlier session left is not this one's to remove.
TEST_P(EngineClientSpoolAndResume, TheFileOfALostSessionStays) {
    kit::ScriptedEngine engine(m_engineOptions);
    m_options.finalWait = 24h;
    TestClient test(m_options, WideFromPath(m_log));
    ASSERT_EQ(test.Connect(engine.Port()), 1u);
    engine.HoldFinals(true);
    std::thread sender([&] { EXPECT_FALSE(test.SendState(kTaskFinished)); });
    EXPECT_TRUE(engine.WaitForFrame(TCP_WORKER_STATE_ID));
    engine.SendControl(kByeId);
    sender.join();
    EXPECT_EQ(WaitForFile(), 1u);
    engine.HoldFinals(false);
    ASSERT_EQ(test.Connect(engine.Port()), 2u);
    EXPECT_TRUE(test.SendState(kTaskFinished));
    test.client->Disconnect();
    EXPECT_EQ(Names(), (std::vector<std::string>{"named.final"}));
}

INSTANTIATE_TEST_SUITE_P(Window_ms, EngineClientSpoolAndResume, ::testing::Values(60'000));

}  // namespace
}  // namespace rq::link

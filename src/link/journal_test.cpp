#include "link/journal.h"

#include <gtest/gtest.h>

#include "kit/os.h"
#include "kit/temp_dir.h"
#include "link/codec.h"
#include "platform/files.h"
#include "platform/process.h"

namespace rq::link {
namespace {

class Journal : public testing::Test {
  protected:
    Journal() : m_journal([this] { return m_now_us; }) {}

    std::string Text(const std::string& name = "journal") const {
        return platform::ReadWholeFile(m_folder.Utf8(name)).value_or("none");
    }
    static std::string Encoded(std::uint64_t seq, std::uint64_t ack, std::uint32_t id,
                               const std::string& body) {
        return EncodeFrame({seq, ack, id, body}).value();
    }

    kit::TempDir m_folder;
    std::int64_t m_now_us = 1'738'317'600'000'000;  // 2025-01-31 10:00:00 UTC
    LinkJournal m_journal;
};

TEST_F(Journal, HasALineForEachFrameHoweverItCame) {
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    m_journal.Connected("1.13.0");
    const std::string bytes = Encoded(1, 0, 4014, "") + Encoded(2, 5, 4015, std::string("\x01\xFF", 2));
    m_now_us += 1'200;
    m_journal.Received(bytes.substr(0, 7));
    m_journal.Received(bytes.substr(7));
    m_journal.Sent(Encoded(0, 2, kAckId, ""));
    m_now_us += 1'000'000;
    m_journal.Closed("the \"engine\" left\n");
    const std::string pid = std::to_string(platform::CurrentProcessId());
    EXPECT_EQ(Text(),
              "{\"time\": \"2025-01-31T10:00:00.000000Z\", \"event\": \"connect\", \"pid\": " + pid +
                  ", \"worker\": \"1.13.0\"}\n"
                  "{\"time\": \"2025-01-31T10:00:00.001200Z\", \"way\": \"in\", \"id\": 4014, \"seq\": 1, "
                  "\"ack\": 0, \"body\": \"\"}\n"
                  "{\"time\": \"2025-01-31T10:00:00.001200Z\", \"way\": \"in\", \"id\": 4015, \"seq\": 2, "
                  "\"ack\": 5, \"body\": \"01ff\"}\n"
                  "{\"time\": \"2025-01-31T10:00:00.001200Z\", \"way\": \"out\", \"id\": 4, \"seq\": 0, "
                  "\"ack\": 2, \"body\": \"\"}\n"
                  "{\"time\": \"2025-01-31T10:00:01.001200Z\", \"event\": \"close\", \"reason\": \"the "
                  "\\\"engine\\\" left \"}\n");
}

TEST_F(Journal, TellsOfAnInterruption) {
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    m_journal.Interrupted(7, 2, std::chrono::seconds(60));
    m_journal.Failed(1, "connect: \"no\"");
    m_journal.Resumed(7, 1, std::chrono::milliseconds(308));
    const std::string time = "{\"time\": \"2025-01-31T10:00:00.000000Z\", \"event\": ";
    EXPECT_EQ(Text(), time + "\"interrupted\", \"session\": 7, \"kept\": 2, \"window_ms\": 60000}\n" + time +
                          "\"failed\", \"attempt\": 1, \"reason\": \"connect: \\\"no\\\"\"}\n" + time +
                          "\"resumed\", \"session\": 7, \"again\": 1, \"away_ms\": 308}\n");
}

TEST_F(Journal, NeverHoldsTheToken) {
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    Hello hello;
    hello.token = "abc";
    hello.attempt = "x";
    m_journal.Connected("1");
    m_journal.Sent(Encoded(0, 0, kHelloId, EncodeHello(hello)));
    EXPECT_EQ(Text().find("616263"), std::string::npos) << Text();
    hello.token.clear();
    EXPECT_NE(Text().find("\"body\": \"" + std::string("08011a0178") + "\""), std::string::npos) << Text();
}

TEST_F(Journal, SaysWhereBytesAreNoFrameAndReadsNoFurther) {
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    m_journal.Connected("1");
    m_journal.Received(std::string("\0\0\0\0", 4));
    m_journal.Received(Encoded(1, 0, 4014, ""));
    const std::string text = Text();
    EXPECT_NE(text.find("\"event\": \"bad\", \"reason\": \""), std::string::npos) << text;
    EXPECT_EQ(text.find("4014"), std::string::npos) << text;
}

TEST_F(Journal, ContinuesAFileAndPutsTheProcessIdIntoTheName) {
    const std::string pid = std::to_string(platform::CurrentProcessId());
    m_folder.Write("j-" + pid + "-" + pid, "earlier\n");
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("j-%p-%p")), "");
    m_journal.Connected("1");
    EXPECT_EQ(Text("j-" + pid + "-" + pid).rfind("earlier\n{", 0), 0u);
}

TEST_F(Journal, EndsTheLineThatAKilledWorkerLeft) {
    m_folder.Write("journal", "{\"time\": \"20");
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    m_journal.Connected("1");
    EXPECT_TRUE(Text().starts_with("{\"time\": \"20\n{\"time\": \"2025")) << Text();
}

TEST_F(Journal, IsNoFolder) {
    const std::string folder = m_folder.Utf8();
    EXPECT_EQ(m_journal.Open(folder), "no link journal: " + folder + " is no plain file");
    EXPECT_FALSE(m_journal.IsOpen());
}

// Task texts and paths stand in it.
TEST_F(Journal, IsItsOwnersAlone) {
    ASSERT_EQ(m_journal.Open(m_folder.Utf8("journal")), "");
    EXPECT_TRUE(kit::IsOwnersAlone(m_folder.Path() / "journal"));
}

// A worker that runs for weeks must not fill the disk with what is there to look at one fault.
TEST_F(Journal, EndsWithALineWhenItIsFullAndIsNotContinued) {
    LinkJournal journal([this] { return m_now_us; }, 600);
    ASSERT_EQ(journal.Open(m_folder.Utf8("journal")), "");
    journal.Connected("1");
    for (std::uint64_t seq = 1; seq <= 20; ++seq) journal.Received(Encoded(seq, 0, 4014, ""));
    EXPECT_FALSE(journal.IsOpen());
    const std::string text = Text();
    const std::string full =
        "{\"time\": \"2025-01-31T10:00:00.000000Z\", \"event\": \"full\", \"reason\": \"the next line would "
        "pass 600 bytes\"}\n";
    EXPECT_TRUE(text.ends_with("\"body\": \"\"}\n" + full)) << text;
    EXPECT_GT(text.size(), 500 + full.size());
    EXPECT_LE(text.size(), 600 + full.size());
    EXPECT_EQ(journal.Open(m_folder.Utf8("journal")),
              "no link journal: " + m_folder.Utf8("journal") + " is full");
    journal.Connected("1");
    EXPECT_EQ(Text(), text);
    EXPECT_EQ(kJournalLimit_bytes, 512u << 20);
}

TEST_F(Journal, ThatCannotBeOpenedDoesNothing) {
    EXPECT_NE(m_journal.Open(m_folder.Utf8("no/such/folder")).find("no link journal: "), std::string::npos);
    m_journal.Connected("1");
    m_journal.Sent("x");
    m_journal.Closed("y");
    EXPECT_FALSE(m_journal.IsOpen());
}

}  // namespace
}  // namespace rq::link

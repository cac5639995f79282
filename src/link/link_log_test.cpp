#include "link/link_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::link {
namespace {

using namespace std::string_literals;

class LinkLogTest : public testing::Test {
  protected:
    LinkLogTest() : m_noDebug("RQ_LINK_DEBUG", std::nullopt) {}

    std::wstring Wide() const { return WideFromPath(m_path); }
    std::vector<std::string> Lines() const { return kit::ReadLines(m_path); }

    kit::TempDir m_folder;
    const std::filesystem::path m_path = m_folder.Path() / PathFromUtf8("RQWorker/20170531/任务_C.log");
    kit::ScopedEnvironment m_noDebug;
};

TEST_F(LinkLogTest, ALineHasTheFormOfTheWorkersAndIsWrittenAtOnce) {
    LinkLog log;
    log.Open(Wide());
    log.Write(LogLevel::Info, "connected");
    log.Write(LogLevel::Warning, "session 7 lost: reset");
    ASSERT_EQ(Lines().size(), 2u);
    const std::string head = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )";
    EXPECT_TRUE(
        std::regex_match(Lines()[0], std::regex(head + R"(\[2\] \[LINK\] \[LINK\] \[\d+/\d+\] connected)")))
        << Lines()[0];
    EXPECT_TRUE(std::regex_match(
        Lines()[1], std::regex(head + R"(\[3\] \[LINK\] \[LINK\] \[\d+/\d+\] session 7 lost: reset)")))
        << Lines()[1];
}

// A peer's bytes stand in some of the texts: they must neither forge a line nor reach a terminal as controls.
TEST_F(LinkLogTest, WhatAPeerSentIsShownAsOneReadableLine) {
    LinkLog log;
    log.Open(Wide());
    log.Write(LogLevel::Warning, "refused: \x1b[2J\r\nforged\0 \xff end"s);
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_TRUE(Lines()[0].ends_with("] refused: \\x1B[2J\\r\\nforged\\x00 \xEF\xBF\xBD end")) << Lines()[0];
}

TEST_F(LinkLogTest, AVeryLongTextIsCut) {
    LinkLog log;
    log.Open(Wide());
    log.Write(LogLevel::Warning, std::string(3 * 1024 * 1024, 'x'));
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_TRUE(Lines()[0].ends_with("xxx...[2097152 bytes cut]")) << Lines()[0].substr(0, 100);
}

TEST_F(LinkLogTest, DebugLinesOnlyWhenWanted) {
    LinkLog log;
    log.Open(Wide());
    EXPECT_FALSE(log.IsDebug());
    log.Write(LogLevel::Debug, "a frame");
    EXPECT_TRUE(Lines().empty());
    const kit::ScopedEnvironment debug("RQ_LINK_DEBUG", "1");
    log.Open(Wide());
    EXPECT_TRUE(log.IsDebug());
    log.Write(LogLevel::Debug, "a frame");
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_NE(Lines()[0].find(" [1] [LINK] "), std::string::npos) << Lines()[0];
}

TEST_F(LinkLogTest, AFullFileIsContinuedInTheNext) {
    LinkLog log;
    log.Open(Wide());
    // 64 lines of 1 MiB and their heads: the limit is passed with the 64th.
    const std::string text(1024 * 1024, 'x');
    for (int i = 0; i < 64; ++i) log.Write(LogLevel::Info, text);
    log.Write(LogLevel::Info, "the next file's first");
    const auto next = kit::ReadLines(m_path.parent_path() / PathFromUtf8("任务_C.1.log"));
    ASSERT_EQ(next.size(), 1u);
    EXPECT_TRUE(next[0].ends_with("the next file's first"));
}

TEST_F(LinkLogTest, ClosedOrNotToBeOpenedItTakesLinesWithoutHarm) {
    LinkLog log;
    log.Write(LogLevel::Info, "before any file");
    log.Open(Wide());
    log.Close();
    log.Write(LogLevel::Info, "after the last");
    EXPECT_TRUE(Lines().empty());
    m_folder.Write("file", "not a folder");
    testing::internal::CaptureStderr();
    log.Open(WideFromPath(m_folder.Path() / "file" / "x_C.log"));
    log.Write(LogLevel::Info, "lost");
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
}

}  // namespace
}  // namespace rq::link

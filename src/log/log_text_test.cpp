#include "log/log_text.h"

#include <gtest/gtest.h>

#include "base/text.h"

namespace rq {
namespace {

TEST(LogText, OrdinaryTextsStayAsTheyAre) {
    EXPECT_TRUE(IsPlainLogText("==>Worker Begin DoWork\t~"));
    EXPECT_EQ(MakeLogText("C:\\new\\task"), "C:\\new\\task");
    EXPECT_EQ(MakeLogText("任务 已取消"), "任务 已取消");
    EXPECT_EQ(MakeLogText(""), "");
}

TEST(LogText, ControlCharactersAreShown) {
    EXPECT_FALSE(IsPlainLogText("a\nb"));
    EXPECT_EQ(MakeLogText("a\nb\r\n"), "a\\nb\\r\\n");
    EXPECT_EQ(MakeLogText(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(MakeLogText("\x1b[31m\x7f"), "\\x1B[31m\\x7F");
    EXPECT_EQ(MakeLogText("a\tb"), "a\tb");
    EXPECT_EQ(MakeLogText("\xC2\x85\xC2\xA0"), "\\u0085\xC2\xA0");
}

TEST(LogText, WhatIsNotUtf8IsReplaced) {
    EXPECT_FALSE(IsPlainLogText("\xC8\xCE"));
    EXPECT_EQ(MakeLogText("a\xFF"
                          "b"),
              "a\xEF\xBF\xBD"
              "b");
}

TEST(LogText, LongTextsAreCutAtAWholeCharacter) {
    const std::string exact(kLogTextLimit, 'a');
    EXPECT_EQ(MakeLogText(exact), exact);
    std::string longer(kLogTextLimit - 1, 'a');
    longer += "中tail";
    const std::string shown = MakeLogText(longer);
    EXPECT_EQ(shown, std::string(kLogTextLimit - 1, 'a') + "...[7 bytes cut]");
    EXPECT_TRUE(IsValidUtf8(shown));
}

}  // namespace
}  // namespace rq

#include "platform/codepage.h"

#include <gtest/gtest.h>

namespace rq::platform {
namespace {

TEST(CodePage, GbkBytes) {
    EXPECT_EQ(Utf8ToGbk("用法"), "\xD3\xC3\xB7\xA8");
    EXPECT_EQ(Utf8ToGbk("plain\tASCII\n"), "plain\tASCII\n");
    EXPECT_EQ(GbkToUtf8("\xD3\xC3\xB7\xA8"), "用法");
    EXPECT_EQ(Utf8ToGbk(""), "");
    EXPECT_EQ(GbkToUtf8(""), "");
}

TEST(CodePage, CharactersOfGbkThatGb2312LacksSurvive) {
    const std::string text = "鎔鑫";  // traditional and rare characters
    EXPECT_EQ(GbkToUtf8(Utf8ToGbk(text)), text);
}

TEST(CodePage, CharactersThatGbkLacksBecomeQuestionMarks) {
    EXPECT_EQ(Utf8ToGbk("a\xF0\x9F\x8E\xAC"
                        "b"),
              "a?b");
    EXPECT_EQ(Utf8ToGbk("\xF0\x9F\x8E\xAC\xF0\x9F\x8E\xAC转"), "??\xD7\xAA");
}

TEST(CodePage, DamagedUtf8BecomesQuestionMarks) {
    EXPECT_EQ(Utf8ToGbk("a\xFF"
                        "b"),
              "a?b");
    EXPECT_EQ(Utf8ToGbk("a\xE8\xBD"), "a?");
}

TEST(CodePage, BytesThatAreNotGbk) {
    EXPECT_FALSE(GbkToUtf8("\xFF\xFF"));
    EXPECT_FALSE(GbkToUtf8("a\xD3"));  // half a character
}

TEST(CodePage, AnEncodingThatNobodyKnowsLeavesTheText) {
    EXPECT_EQ(Utf8ToEncoding("任务", "NO-SUCH-ENCODING"), "任务");
}

TEST(CodePage, TextsLongerThanTheBuffer) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "转x";
    EXPECT_EQ(GbkToUtf8(Utf8ToGbk(text)), text);
}

}  // namespace
}  // namespace rq::platform

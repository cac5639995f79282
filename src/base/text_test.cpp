#include "base/text.h"

#include <gtest/gtest.h>

namespace rq {
namespace {

const std::string kReplacementUtf8 = "\xEF\xBF\xBD";

TEST(Text, ValidUtf8) {
    EXPECT_TRUE(IsValidUtf8(""));
    EXPECT_TRUE(IsValidUtf8("plain"));
    EXPECT_TRUE(IsValidUtf8("转码 é \xF0\x9F\x8E\xAC"));
    EXPECT_TRUE(IsValidUtf8(std::string_view("a\0b", 3)));
    EXPECT_TRUE(IsValidUtf8("\xF4\x8F\xBF\xBF"));  // U+10FFFF
}

TEST(Text, BytesThatAreNotUtf8) {
    EXPECT_FALSE(IsValidUtf8("\xD7\xAA\xC2\xEB"));  // GBK
    EXPECT_FALSE(IsValidUtf8("\xC0\xAF"));          // overlong "/"
    EXPECT_FALSE(IsValidUtf8("\xE0\x80\xAF"));      // overlong
    EXPECT_FALSE(IsValidUtf8("\xED\xA0\x80"));      // a surrogate
    EXPECT_FALSE(IsValidUtf8("\xF4\x90\x80\x80"));  // above U+10FFFF
    EXPECT_FALSE(IsValidUtf8("\xE8\xBD"));          // cut off
    EXPECT_FALSE(IsValidUtf8("\xF5\x80\x80\x80"));  // no such first byte
    EXPECT_FALSE(IsValidUtf8("a\x80"));             // a following byte alone
}

TEST(Text, WidensAndNarrows) {
    const std::string utf8 = "a转\xF0\x9F\x8E\xAC";
    bool replaced = true;
    const WideText wide = WidenUtf8(utf8, &replaced);
    EXPECT_FALSE(replaced);
    EXPECT_EQ(wide, L"a\u8F6C\U0001F3AC");
    EXPECT_EQ(NarrowUtf8(wide), utf8);
}

TEST(Text, DamageBecomesTheReplacementCharacterAndIsTold) {
    bool replaced = false;
    EXPECT_EQ(WidenUtf8("a\xFF"
                        "b",
                        &replaced),
              L"a\uFFFDb");
    EXPECT_TRUE(replaced);
    EXPECT_EQ(RepairUtf8("a\xE8\xBD"
                         "b",
                         &replaced),
              "a" + kReplacementUtf8 + "b");
    EXPECT_TRUE(replaced);
    EXPECT_EQ(RepairUtf8("转码", &replaced), "转码");
    EXPECT_FALSE(replaced);
}

TEST(Text, OneReplacementForEachDamagedPiece) {
    // A cut-off character is one piece; bytes that can begin nothing are one each.
    EXPECT_EQ(RepairUtf8("\xF0\x9F\x8E"), kReplacementUtf8);
    EXPECT_EQ(RepairUtf8("\xED\xA0\x80"), kReplacementUtf8 + kReplacementUtf8 + kReplacementUtf8);
}

TEST(Text, WideUnitsThatAreNoCharacter) {
    EXPECT_EQ(NarrowUtf8(WideText{L'a', static_cast<wchar_t>(0xD800), L'b'}), "a" + kReplacementUtf8 + "b");
    EXPECT_EQ(NarrowUtf8(WideText{static_cast<wchar_t>(0xDC00)}), kReplacementUtf8);
    if (sizeof(wchar_t) == 4) {
        EXPECT_EQ(NarrowUtf8(WideText{static_cast<wchar_t>(0x110000)}), kReplacementUtf8);
    }
}

TEST(Text, CutsOnlyBetweenCharacters) {
    EXPECT_EQ(CutUtf8("转码", 6), "转码");
    EXPECT_EQ(CutUtf8("转码", 5), "转");
    EXPECT_EQ(CutUtf8("转码", 3), "转");
    EXPECT_EQ(CutUtf8("转码", 2), "");
    EXPECT_EQ(CutUtf8("abc", 2), "ab");
}

}  // namespace
}  // namespace rq

#include "util/file_text.h"

#include <gtest/gtest.h>

#include "kit/temp_dir.h"
#include "util/utility.h"

namespace rq {
namespace {

using namespace std::string_literals;

TEST(FileText, ByItsByteOrderMark) {
    EXPECT_EQ(DecodeFileText("\xEF\xBB\xBF任务"), "任务");
    EXPECT_EQ(DecodeFileText("\xFF\xFE\xFB\x4E\xA1\x52\x0A\x00"s), "任务\n");
    EXPECT_EQ(DecodeFileText("\xFE\xFF\x4E\xFB\x52\xA1"s), "任务");
    EXPECT_EQ(DecodeFileText("\xFE\xFF\xD8\x3C\xDF\xAC"s), "\xF0\x9F\x8E\xAC");
    EXPECT_EQ(DecodeFileText("\xEF\xBB\xBF"), "");
    EXPECT_EQ(DecodeFileText("\xFF\xFE"), "");
}

TEST(FileText, BrokenUtf16IsReplaced) {
    EXPECT_EQ(DecodeFileText("\xFE\xFF\xD8\x3C\x00\x61"s),
              "\xEF\xBF\xBD"
              "a");
    EXPECT_EQ(DecodeFileText("\xFE\xFF\xDF\xAC"s), "\xEF\xBF\xBD");
    EXPECT_EQ(DecodeFileText("\xFE\xFF\x00\x61\x00"s), "a\xEF\xBF\xBD");
    EXPECT_EQ(DecodeFileText("\xEF\xBB\xBF\xC8"), "\xEF\xBF\xBD");
}

TEST(FileText, WithoutAMarkAsUtf8ElseAsGbk) {
    EXPECT_EQ(DecodeFileText("plain"), "plain");
    EXPECT_EQ(DecodeFileText("任务"), "任务");
    EXPECT_EQ(DecodeFileText("\xC8\xCE\xCE\xF1"), "任务");
    EXPECT_EQ(DecodeFileText(""), "");
    EXPECT_EQ(DecodeFileText("a\xFF"), "a\xEF\xBF\xBD");  // neither
}

TEST(ReadFileToString, ReadsTheWholeFile) {
    kit::TempDir folder;
    folder.Write("参数.xml", "<a>\r\n\xC8\xCE\xCE\xF1</a>");
    std::wstring text;
    KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("参数.xml"), text);
    EXPECT_EQ(text, L"<a>\r\n\u4efb\u52a1</a>");
    folder.Write("empty", "");
    KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("empty"), text);
    EXPECT_EQ(text, L"");
}

TEST(ReadFileToString, LeavesTheTextAloneWhenThereIsNoFile) {
    kit::TempDir folder;
    std::wstring text = L"kept";
    KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("absent"), text);
    KWOVL_UTILITY::OVLReadFileToString(folder.Utf8(), text);
    KWOVL_UTILITY::OVLReadFileToString("", text);
    EXPECT_EQ(text, L"kept");
}

}  // namespace
}  // namespace rq

#include "util/file_text.h"

#include <gtest/gtest.h>

#include "kit/sparse_file.h"
#include "kit/temp_dir.h"
#include "util/log_capture.h"
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

TEST(FileText, SaysWhetherAllOfItCouldBeRead) {
    for (const std::string& whole :
         {"任务"s, "\xEF\xBB\xBF任务"s, "\xC8\xCE\xCE\xF1"s, "\xFE\xFF\xD8\x3C\xDF\xAC"s, ""s, "\0"s}) {
        EXPECT_TRUE(DecodeFile(whole).isWhole) << whole;
    }
    for (const std::string& damaged :
         {"a\xFF"s, "\xEF\xBB\xBF\xC8"s, "\xFE\xFF\xDF\xAC"s, "\xFE\xFF\x00\x61\x00"s}) {
        EXPECT_FALSE(DecodeFile(damaged).isWhole) << damaged;
    }
}

TEST(ReadFileToString, LeavesTheTextAloneWhenThereIsNoFileAndSaysSo) {
    const kit::TempDir folder;
    for (const std::string& path : {folder.Utf8("absent"), folder.Utf8(), std::string()}) {
        std::wstring text = L"kept";
        const LogCapture log;
        KWOVL_UTILITY::OVLReadFileToString(path, text);
        EXPECT_EQ(text, L"kept");
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].level, 4);
        const std::string line = log.Lines()[0].text;
        EXPECT_EQ(line.find("The file \"" + path + "\" is not used: "), 0u) << line;
        EXPECT_TRUE(
            line.ends_with(". Give the path of a text file of at most 256 MiB that this user may read."))
            << line;
    }
}

TEST(ReadFileToString, AFileThatIsFarTooLargeIsNotRead) {
    const kit::TempDir folder;
    kit::MakeSparseFile(folder.Path() / "huge.xml", kLargestTextFile_bytes + 1);
    std::wstring text = L"kept";
    const LogCapture log;
    KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("huge.xml"), text);
    EXPECT_EQ(text, L"kept");
    EXPECT_TRUE(log.Contains("huge.xml\" is not used: "));
}

TEST(ReadFileToString, WhatLooksLikeNoTextIsGivenAllTheSameWithALine) {
    const kit::TempDir folder;
    struct Case {
        std::string bytes;
        std::wstring text;
        std::string words;
    };
    const Case cases[] = {{"a\0b"s, L"a\0b"s, "holds zero bytes, as no text does"},
                          {"a\xFF", L"a\ufffd", "is neither UTF-8 nor GBK all through"},
                          {"", L"", "is empty"}};
    for (const Case& each : cases) {
        folder.Write("task.xml", each.bytes);
        std::wstring text = L"before";
        const LogCapture log;
        KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("task.xml"), text);
        EXPECT_EQ(text, each.text);
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].level, 3);
        EXPECT_EQ(log.Lines()[0].text.find("The file \"" + folder.Utf8("task.xml") + "\" " + each.words), 0u)
            << log.Lines()[0].text;
    }
}

TEST(ReadFileToString, AnOrdinaryFileIsReadWithoutAWord) {
    const kit::TempDir folder;
    const LogCapture log;
    for (const std::string& bytes : {"任务"s, "\xEF\xBB\xBF任务"s, "\xC8\xCE\xCE\xF1"s}) {
        folder.Write("task.xml", bytes);
        std::wstring text;
        KWOVL_UTILITY::OVLReadFileToString(folder.Utf8("task.xml"), text);
        EXPECT_EQ(text, L"\u4efb\u52a1");
    }
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
}  // namespace rq

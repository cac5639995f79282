#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <thread>

#include "util/console_capture.h"
#include "util/console_encoding.h"
#include "util/log_capture.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

using namespace KWOVL_UTILITY;

TEST(LogCapture, SeesEveryFormWithoutAnyFile) {
    LogCapture capture;
    Log(3, "Eos Called!");
    Log(2, "progress", "PROG");
    OVLWriteLog("thread_get_status", 2, "status", "MAIN");
    OVLWriteLog(4, "untagged", "MAIN");
    OVLWriteLog("ACT", 1, std::wstring(L"\u4e2d\n"), std::wstring(L"BASE"));
    const std::vector<LogLine> expected{{"ACT", 3, "Eos Called!", "MAIN"},
                                        {"ACT", 2, "progress", "PROG"},
                                        {"thread_get_status", 2, "status", "MAIN"},
                                        {"", 4, "untagged", "MAIN"},
                                        {"ACT", 1, "\xE4\xB8\xAD\n", "BASE"}};
    EXPECT_EQ(capture.Lines(), expected);
    EXPECT_EQ(capture.Count("status"), 1u);
    EXPECT_EQ(capture.Count(3, "status"), 0u);
    EXPECT_TRUE(capture.Contains("tagg"));
    EXPECT_FALSE(capture.Contains("absent"));
    capture.Clear();
    EXPECT_TRUE(capture.Texts().empty());
}

TEST(LogCapture, EachOfSeveralSeesAllAndNoneSeesWhatCameBefore) {
    LogCapture outer;
    Log(1, "one");
    {
        LogCapture inner;
        Log(1, "two");
        EXPECT_EQ(inner.Texts(), std::vector<std::string>{"two"});
    }
    Log(1, "three");
    EXPECT_EQ(outer.Texts(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST(LogCapture, WaitsForALineOfAnotherThread) {
    LogCapture capture;
    std::thread writer([] {
        for (int i = 0; i < 50; ++i) Log(1, "line " + std::to_string(i) + ".");
    });
    EXPECT_TRUE(capture.WaitForText("line 49."));
    EXPECT_TRUE(capture.WaitForText("line 0."));
    writer.join();
    EXPECT_FALSE(capture.WaitForText("never", std::chrono::milliseconds(1)));
}

TEST(ConsoleCapture, TakesWhatIsWritten) {
    testing::internal::CaptureStdout();
    {
        ConsoleCapture capture;
        ConsoleWrite("通信");
        ConsoleWrite("服务端\n");
        EXPECT_EQ(capture.Text(), "通信服务端\n");
        EXPECT_TRUE(capture.Contains("信服"));
        ConsoleWrite("aaa");
        EXPECT_EQ(capture.Count("a"), 3u);
        EXPECT_EQ(capture.Count("aa"), 1u);
        EXPECT_TRUE(capture.WaitForText("服务端"));
        capture.Clear();
        EXPECT_EQ(capture.Text(), "");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// "输入的类型参数不正确" and its bytes in GBK.
TEST(Console, ARedirectedOutputGetsGbkBytes) {
    testing::internal::CaptureStdout();
    ConsoleWrite("输入的类型参数不正确\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\xCA\xE4\xC8\xEB\xB5\xC4\xC0\xE0\xD0\xCD\xB2\xCE\xCA\xFD\xB2\xBB\xD5\xFD\xC8\xB7\n");
}

TEST(Console, TheEncodingIsForcedOrThatOfTheTerminalOrGbk) {
    const std::string Gbk = kConsoleGbk, Utf8 = kConsoleUtf8;
    EXPECT_EQ(ChooseConsoleEncoding(std::nullopt, false, ""), Gbk);
    EXPECT_EQ(ChooseConsoleEncoding("", false, "UTF-8"), Gbk);
    EXPECT_EQ(ChooseConsoleEncoding(std::nullopt, true, "UTF-8"), Utf8);
    EXPECT_EQ(ChooseConsoleEncoding(std::nullopt, true, "GBK"), Gbk);
    EXPECT_EQ(ChooseConsoleEncoding("utf-8", false, ""), Utf8);
    EXPECT_EQ(ChooseConsoleEncoding("gbk", true, "UTF-8"), Gbk);
    for (const char* name : {"GB2312", "gbk", "CP936", "936"}) EXPECT_EQ(EncodingByName(name), Gbk) << name;
    for (const char* name : {"UTF-8", "utf8", "ANSI_X3.4-1968", ""})
        EXPECT_EQ(EncodingByName(name), Utf8) << name;
    EXPECT_EQ(EncodingByName("big5"), "BIG5");
    EXPECT_EQ(ChooseConsoleEncoding(std::nullopt, true, "GB18030"), "GB18030");
    EXPECT_EQ(ChooseConsoleEncoding("gb18030", true, "UTF-8"), Gbk);
    EXPECT_EQ(ChooseConsoleEncoding(std::nullopt, true, "ISO-8859-1"), "ISO-8859-1");
}

TEST(Console, BytesThatAreNotUtf8AreShownAsUnknown) {
    EXPECT_EQ(EncodeForConsole("a\xFF"
                               "b",
                               kConsoleUtf8),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(EncodeForConsole("a\xFF"
                               "b",
                               kConsoleGbk),
              "a?b");
}

TEST(Console, PointersAndNumbersAreWrittenAsANarrowStreamDoes) {
    int value = 0;
    std::ostringstream pointer;
    pointer << static_cast<const void*>(&value);
    EXPECT_EQ(PointerText(&value), pointer.str());
    EXPECT_EQ(StreamText(0), "0");
    EXPECT_EQ(StreamText(12.5), "12.5");
    EXPECT_EQ(StreamText(1234567.0), "1.23457e+06");
    EXPECT_EQ(StreamText(1.0 / 3), "0.333333");
}

}  // namespace
}  // namespace rq

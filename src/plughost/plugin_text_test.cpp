#include "plughost/plugin_text.h"

#include <gtest/gtest.h>

#include <vector>

namespace rq {
namespace {

struct Lines {
    std::vector<std::string> lines;
    PluginLog Sink() {
        return [this](int level, const std::string& text) {
            lines.push_back(std::to_string(level) + " " + text);
        };
    }
};

constexpr const char* kLine = "3 plug-in md5: a text is not UTF-8; what is wrong in it became U+FFFD";

TEST(PluginText, GoodTextsCrossWithoutALine) {
    Lines log;
    EXPECT_EQ(WidenPluginText({"任务 a", 8}, "md5", log.Sink()), L"任务 a");
    EXPECT_EQ(RepairPluginText({"任务 a", 8}, "md5", log.Sink()), "任务 a");
    EXPECT_TRUE(log.lines.empty());
}

TEST(PluginText, LengthCountsAndNotAZero) {
    Lines log;
    EXPECT_EQ(WidenPluginText({"abcdef", 3}, "md5", log.Sink()), L"abc");
    EXPECT_EQ(WidenPluginText({"a\0b", 3}, "md5", log.Sink()), std::wstring(L"a\0b", 3));
}

TEST(PluginText, NullIsEmptyWhateverItsLength) {
    Lines log;
    EXPECT_EQ(WidenPluginText({nullptr, 0}, "md5", log.Sink()), L"");
    EXPECT_EQ(RepairPluginText({nullptr, 7}, "md5", log.Sink()), "");
    EXPECT_TRUE(log.lines.empty());
}

TEST(PluginText, WrongBytesBecomeReplacementsAndOneLine) {
    Lines log;
    EXPECT_EQ(WidenPluginText({"a\xFF\xFE"
                               "b\xFF",
                               5},
                              "md5", log.Sink()),
              L"a\xFFFD\xFFFD"
              L"b\xFFFD");
    EXPECT_EQ(log.lines, std::vector<std::string>{kLine});
    EXPECT_EQ(RepairPluginText({"\xFF", 1}, "md5", log.Sink()), "\xEF\xBF\xBD");
    EXPECT_EQ(log.lines, (std::vector<std::string>{kLine, kLine}));
}

TEST(PluginText, WithoutALogNothingIsLost) {
    EXPECT_EQ(RepairPluginText({"\xFFz", 2}, "md5", {}), "\xEF\xBF\xBDz");
}

TEST(TextKeeper, KeepsEachTextOnceAndInPlace) {
    TextKeeper keeper;
    const RQText first = keeper.Keep("Analyze Task Info Failed!");
    for (int i = 0; i < 1000; ++i) keeper.Keep(std::to_string(i));
    const RQText again = keeper.Keep("Analyze Task Info Failed!");
    EXPECT_EQ(first.p, again.p);
    EXPECT_EQ(PluginTextView(first), "Analyze Task Info Failed!");
    EXPECT_EQ(PluginTextView(keeper.Keep("")), "");
}

}  // namespace
}  // namespace rq

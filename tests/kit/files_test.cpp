#include "kit/files.h"

#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/temp_dir.h"
#include "platform/environment.h"

namespace rq::kit {
namespace {

TEST(TempDir, IsThereForItsScope) {
    std::filesystem::path path;
    {
        const TempDir dir;
        path = dir.Path();
        dir.Write("子 folder/file", "x");
        EXPECT_TRUE(std::filesystem::is_directory(path));
        EXPECT_NE(dir.Utf8().find("测试"), std::string::npos);
        EXPECT_NE(dir.Utf8().find(' '), std::string::npos);
        EXPECT_EQ(ReadBytes(PathFromUtf8(dir.Utf8("子 folder/file"))), "x");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ScopedEnvironment, PutsBackWhatWasThere) {
    const ScopedEnvironment outer("RQ_KIT_TEST", "before");
    {
        const ScopedEnvironment inner("RQ_KIT_TEST", "inside");
        EXPECT_EQ(platform::GetEnvironment("RQ_KIT_TEST"), "inside");
        const ScopedEnvironment removed("RQ_KIT_TEST", std::nullopt);
        EXPECT_FALSE(platform::GetEnvironment("RQ_KIT_TEST"));
    }
    EXPECT_EQ(platform::GetEnvironment("RQ_KIT_TEST"), "before");
}

TEST(Files, SplitsLinesOfBothKinds) {
    const TempDir dir;
    EXPECT_EQ(ReadLines(dir.Write("f", "a\r\n\nb")), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_TRUE(ReadLines(dir.Path() / "missing").empty());
}

TEST(Files, WaitUntilGivesUpAtItsBound) {
    EXPECT_FALSE(WaitUntil([] { return false; }, std::chrono::milliseconds(30)));
    int looks = 0;
    EXPECT_TRUE(WaitUntil([&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
}

TEST(Files, FindsByEnding) {
    const TempDir dir;
    dir.Write("b/x_W.log", "");
    dir.Write("a/y_W.log", "");
    dir.Write("a/other.log", "");
    const auto found = FindFiles(dir.Path(), "_W.log");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].filename(), "y_W.log");
    EXPECT_EQ(found[1].filename(), "x_W.log");
}

TEST(Files, ReplacesAnElementsText) {
    const TempDir dir;
    const auto file = dir.Write("p.xml", "<r><A>1</A><B>2</B></r>");
    EXPECT_TRUE(ReplaceElementText(file, "B", "30"));
    EXPECT_EQ(ReadBytes(file), "<r><A>1</A><B>30</B></r>");
    EXPECT_FALSE(ReplaceElementText(file, "C", "x"));
}

}  // namespace
}  // namespace rq::kit

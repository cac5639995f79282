// Junctions, long paths and names on Windows.
#include "delete_task.h"
#include "delete_test_folder.h"

namespace rq::del {
namespace {

namespace fs = std::filesystem;

bool MakeJunction(const std::string& at, const std::string& to) {
    std::string native = to;
    std::replace(native.begin(), native.end(), '/', '\\');
    std::string link = at;
    std::replace(link.begin(), link.end(), '/', '\\');
    kit::Child command("C:\\windows\\system32\\cmd.exe", {"/c", "mklink", "/J", link, native});
    // Wine's command ends well and makes nothing.
    return command.ExitCode() == 0 && fs::exists(PathFromUtf8(at) / "x");
}

TEST_F(DeleteTest, NeverThroughAJunction) {
    Write("other/x", "1");
    fs::create_directories(At("allowed/tree"));
    if (!MakeJunction(PathOf("allowed/out"), PathOf("other")) ||
        !MakeJunction(PathOf("allowed/tree/out"), PathOf("other")))
        GTEST_SKIP() << "this system makes no junctions";
    EXPECT_EQ(Do(Text(Item("allowed/out/x"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100031u);
    EXPECT_EQ(Do(Text(Item("allowed/out", true) + Item("allowed/tree", true))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(Names("allowed").empty());
    EXPECT_TRUE(Exists("other/x"));
}

// Windows deletes no file that is marked as read-only; nor does this plug-in take the mark away.
TEST_F(DeleteTest, WhatTheSystemRefusesIsNamedAndTheRestGoes) {
    Write("allowed/tree/locked", "1");
    Write("allowed/tree/free", "1");
    fs::permissions(At("allowed/tree/locked"), fs::perms::owner_read);
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100032u);
    EXPECT_NE(m_info->detailErrorCode, 0u);
    EXPECT_EQ(Names("allowed/tree"), std::vector<std::string>{"locked"});
    fs::permissions(At("allowed/tree/locked"), fs::perms::owner_all);
}

TEST_F(DeleteTest, DeletesPathsLongerThan260Characters) {
    std::string name = "allowed/tree";
    for (int i = 0; i < 6; ++i) name += "/" + std::string(60, 'd');
    const std::string folder = PathOf(name);
    Allow({PathOf("allowed")});
    std::wstring native = L"\\\\?\\" + fs::path(PathFromUtf8(folder)).make_preferred().wstring();
    fs::create_directories(fs::path(native));
    EXPECT_EQ(Do(Text(Item("allowed/tree", true))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(Exists("allowed/tree"));
}

TEST(DeletePathsOnWindows, AreTakenApart) {
    using Parts = std::vector<std::string>;
    EXPECT_EQ(SplitPath("C:\\a/b\\").parts, (Parts{"C:", "a", "b"}));
    EXPECT_EQ(SplitPath("\\\\server\\share\\a").parts, (Parts{"\\\\server\\share", "a"}));
    EXPECT_NE(SplitPath("\\\\?\\C:\\a").refusal, "");
    EXPECT_NE(SplitPath("\\\\server").refusal, "");
    EXPECT_NE(SplitPath("C:\\a.\\b").refusal, "");
    EXPECT_NE(SplitPath("C:\\a \\b").refusal, "");
    EXPECT_NE(SplitPath("C:\\a\\b:stream").refusal, "");
    EXPECT_NE(SplitPath("C:\\a\\..\\b").refusal, "");
    EXPECT_EQ(SplitPath("C:\\a.b\\c d").refusal, "");
}

}  // namespace
}  // namespace rq::del

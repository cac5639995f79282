#include "plugin_common/win_text.h"
#include "publish_test_folder.h"

namespace rq::task {
namespace {

using PublishOnWindows = PublishTest;

TEST_F(PublishOnWindows, BothSeparators) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(Utf8FromPath(m_dir.Path()) + "/输出.bin", {}, false));
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Names(), Strings{"输出.bin"});
}

// As libraries open what they are given the name of: for reading or writing, and without letting it be
// deleted.
TEST_F(PublishOnWindows, TheTemporaryOpensForWhoDoesNotShareItsDeletion) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    publication.WriteAt(0, "x", 1);
    const HANDLE file = ::CreateFileW(WideOf(publication.TemporaryPath()).c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    char byte = 0;
    DWORD got = 0;
    EXPECT_TRUE(::ReadFile(file, &byte, 1, &got, nullptr));
    EXPECT_EQ(byte, 'x');
    ::CloseHandle(file);
    EXPECT_FALSE(publication.Publish(Agree));
}

TEST_F(PublishOnWindows, ATargetThatSomebodyHoldsIsNotReplaced) {
    Write("out", "old");
    const HANDLE file =
        ::CreateFileW(Path("out").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, true));
    const auto failure = publication.Publish(Agree);
    ::CloseHandle(file);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kRename);
    EXPECT_EQ(Read("out"), "old");
    EXPECT_EQ(Names(), Strings{"out"});
}

TEST_F(PublishOnWindows, NamesThatAreNotTheFilesOwnAreRefused) {
    const auto refusal = [&](const std::string& name) {
        Publication publication;
        const auto failure = publication.Begin(PathOf(name), {}, true);
        if (!failure) return std::string();
        EXPECT_EQ(failure->problem, PublishProblem::kCreate);
        return failure->words.substr(PathOf(name).size());
    };
    for (const char* device :
         {"CON", "con.mp4", "Nul", "aux .mkv", "LPT1.mp4", "com0", "COM¹.mp4", "conout$"})
        EXPECT_TRUE(refusal(device).starts_with(": Windows keeps the name ")) << device << refusal(device);
    for (const char* cut : {"a.mp4.", "a.mp4 ", "..."})
        EXPECT_EQ(refusal(cut), ": Windows drops the dot or blank at the end of the name") << cut;
    EXPECT_EQ(refusal("a.mp4:b"), ": Windows allows no colon in a file name");
    for (const char* fine : {"console.mp4", "com10.mp4", "com", "COM中.mp4", " con.mp4", ".con", "a. b"})
        EXPECT_EQ(refusal(fine), "") << fine;
    EXPECT_EQ(Names(), Strings{});
}

}  // namespace
}  // namespace rq::task

#include "plugin_common/publish.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "plugin_common/codes.h"

namespace fs = std::filesystem;
using rq::task::Publication;
using rq::task::PublishProblem;

namespace {

bool Agree(const std::string&) {
    return true;
}

class PublishTest : public testing::Test {
  protected:
    PublishTest() {
        std::string name = (fs::temp_directory_path() / "plugin-publish-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
    }
    ~PublishTest() override { fs::remove_all(m_folder); }

    std::string PathOf(const std::string& name) const { return (m_folder / name).string(); }
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(PathOf(name), std::ios::binary) << bytes;
        return PathOf(name);
    }
    static std::string Read(const std::string& path) {
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    }
    // The names in the folder, in order.
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_folder))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    using Strings = std::vector<std::string>;

    fs::path m_folder;
};

}  // namespace

TEST_F(PublishTest, TheTargetAppearsAtTheEnd) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out.bin"), {}, false));
    EXPECT_EQ(publication.WriteAt(0, "hello", 5), 0u);
    EXPECT_EQ(publication.WriteAt(5, " world", 6), 0u);
    EXPECT_EQ(publication.WriteAt(0, "H", 1), 0u);
    EXPECT_EQ(publication.SizeBytes(), 11u);
    const std::string temporary = publication.TemporaryPath();
    EXPECT_EQ(fs::path(temporary).parent_path(), m_folder);
    EXPECT_TRUE(rq::task::IsTemporaryName(fs::path(temporary).filename().string())) << temporary;
    EXPECT_EQ(Names().size(), 1u);
    std::string seen;
    ASSERT_FALSE(publication.Publish([&](const std::string& path) {
        EXPECT_EQ(path, temporary);
        EXPECT_FALSE(fs::exists(PathOf("out.bin")));
        seen = Read(path);
        return true;
    }));
    EXPECT_EQ(seen, "Hello world");
    EXPECT_EQ(Names(), Strings{"out.bin"});
    EXPECT_EQ(Read(PathOf("out.bin")), "Hello world");
}

TEST_F(PublishTest, NothingStaysOfWhatIsDiscardedOrForgotten) {
    {
        Publication publication;
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
        publication.WriteAt(0, "x", 1);
        publication.Discard();
        EXPECT_TRUE(Names().empty());
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
        EXPECT_EQ(Names().size(), 1u);
        const auto failure = publication.Publish([](const std::string&) { return false; });
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->problem, PublishProblem::kCheck);
        EXPECT_TRUE(Names().empty());
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
    }
    EXPECT_TRUE(Names().empty());
}

TEST_F(PublishTest, RefusesATargetThatIsThere) {
    const std::string target = Write("out", "old");
    Publication publication;
    const auto failure = publication.Begin(target, {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
    EXPECT_EQ(failure->words, target + ": the target exists already");
    EXPECT_EQ(rq::task::TaskErrorOf(failure->problem), static_cast<std::int32_t>(0x84100000));
    fs::create_symlink("nowhere", PathOf("dangling"));
    EXPECT_TRUE(publication.Begin(PathOf("dangling"), {}, false));
    EXPECT_EQ(Read(target), "old");
}

TEST_F(PublishTest, OverwritesWhenAsked) {
    const std::string target = Write("out", "old");
    Publication publication;
    ASSERT_FALSE(publication.Begin(target, {}, true));
    publication.WriteAt(0, "new", 3);
    EXPECT_EQ(Read(target), "old");
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Read(target), "new");
    EXPECT_EQ(Names(), Strings{"out"});
}

TEST_F(PublishTest, OverwritingReplacesALinkAndNotWhatItLeadsTo) {
    const std::string other = Write("other", "kept");
    fs::create_symlink("other", PathOf("out"));
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, true));
    publication.WriteAt(0, "new", 3);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Read(other), "kept");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(PathOf("out"))));
}

TEST_F(PublishTest, DoesNotOverwriteWhatIsNoPlainFile) {
    fs::create_directory(PathOf("folder"));
    ASSERT_EQ(mkfifo(PathOf("pipe").c_str(), 0600), 0);
    Publication publication;
    for (const char* name : {"folder", "pipe"}) {
        const auto failure = publication.Begin(PathOf(name), {}, true);
        ASSERT_TRUE(failure) << name;
        EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
    }
}

// Between the beginning and the end another process makes the target: it wins.
TEST_F(PublishTest, ATargetThatComesIntoBeingMeanwhileIsLeftAlone) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    publication.WriteAt(0, "mine", 4);
    const auto failure = publication.Publish([&](const std::string&) {
        Write("out", "theirs");
        return true;
    });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
    EXPECT_EQ(Read(PathOf("out")), "theirs");
    EXPECT_EQ(Names(), Strings{"out"});
}

TEST_F(PublishTest, RefusesTheSourceInEveryGuise) {
    const std::string source = Write("source", "s");
    fs::create_symlink("source", PathOf("link"));
    fs::create_hard_link(source, PathOf("second name"));
    fs::create_directory(PathOf("sub"));
    fs::create_directory_symlink("..", PathOf("sub/up"));
    Publication publication;
    for (const std::string& target : {source, PathOf("link"), PathOf("second name"), PathOf("./source"),
                                      PathOf("sub/up/source"), PathOf("sub/../source")}) {
        const auto failure = publication.Begin(target, {PathOf("missing"), source}, true);
        ASSERT_TRUE(failure) << target;
        EXPECT_EQ(failure->problem, PublishProblem::kTargetIsSource) << target;
        EXPECT_EQ(rq::task::TaskErrorOf(failure->problem), static_cast<std::int32_t>(0x84100001));
    }
    EXPECT_TRUE(publication.Begin(PathOf("missing"), {PathOf("missing")}, true));
    EXPECT_EQ(Read(source), "s");
    EXPECT_EQ(Names().size(), 4u);
}

TEST_F(PublishTest, SaysWhyTheFolderDoesNotDo) {
    Publication publication;
    auto failure = publication.Begin(PathOf("no such/out"), {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kCreate);
    EXPECT_EQ(failure->systemCode, static_cast<std::uint32_t>(ENOENT));
    EXPECT_EQ(failure->words,
              PathOf("no such") + ": no file can be made in the target's folder: No such file or directory");
    Write("file", "");
    failure = publication.Begin(PathOf("file/out"), {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->systemCode, static_cast<std::uint32_t>(ENOTDIR));
}

TEST_F(PublishTest, AWriteThatFailsIsTold) {
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    const rlimit small{1000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string bytes(2000, 'x');
    EXPECT_EQ(publication.WriteAt(0, bytes.data(), bytes.size()), static_cast<std::uint32_t>(EFBIG));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    publication.Discard();
    EXPECT_TRUE(Names().empty());
}

TEST_F(PublishTest, WritesFarMoreThanTheSystemIsToldAbout) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    const std::string bytes(1 << 20, 'y');
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(publication.WriteAt(static_cast<std::uint64_t>(i) << 20, bytes.data(), bytes.size()), 0u);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(fs::file_size(PathOf("out")), 40u << 20);
}

TEST_F(PublishTest, LongNamesAreCutBetweenCharacters) {
    std::string name;
    for (int i = 0; i < 83; ++i) name += "中";  // 249 bytes
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf(name), {}, false));
    const std::string temporary = fs::path(publication.TemporaryPath()).filename().string();
    EXPECT_EQ(temporary.substr(0, 199), "." + name.substr(0, 198));
    EXPECT_EQ(temporary.substr(199, 1), ".");
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Names(), Strings{name});
}

TEST(TemporaryNames, AreRecognised) {
    EXPECT_TRUE(rq::task::IsTemporaryName(".clip.mp4.0123456789abcdef.rqpart"));
    EXPECT_TRUE(rq::task::IsTemporaryName(".x.0123456789abcdef.rqpart"));
    for (const char* other : {"clip.mp4.0123456789abcdef.rqpart", ".clip.mp4.0123456789abcdeg.rqpart",
                              ".clip.0123456789abcde.rqpart", ".0123456789abcdef.rqpart", "..rqpart",
                              ".clip.mp4", ".clip.mp4.0123456789abcdef.rqparts", ""})
        EXPECT_FALSE(rq::task::IsTemporaryName(other)) << other;
}

// What a killed process leaves is removed by the next one that publishes there; what belongs to a living one
// stays, and so does everything else.
TEST_F(PublishTest, RemovesWhatDeadProcessesLeft) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        Publication publication;
        const bool isBegun = !publication.Begin(PathOf("dead.mp4"), {}, false);
        (void)!write(ready[1], isBegun ? "y" : "n", 1);
        for (;;) pause();
    }
    ASSERT_GT(child, 0);
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    const Strings left = Names();
    ASSERT_EQ(left.size(), 1u);

    Publication first;
    ASSERT_FALSE(first.Begin(PathOf("a"), {}, false));
    EXPECT_EQ(Names().size(), 2u);  // its owner lives

    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    close(ready[0]);
    close(ready[1]);
    Write(".other.0123456789abcdef.part", "");
    fs::create_directory(PathOf(".folder.0123456789abcdef.rqpart"));
    fs::create_symlink("a", PathOf(".link.0123456789abcdef.rqpart"));
    Publication second;
    ASSERT_FALSE(second.Begin(PathOf("b"), {}, false));
    const Strings names = Names();
    EXPECT_EQ(names.size(), 5u);
    EXPECT_EQ(std::find(names.begin(), names.end(), left[0]), names.end());
    ASSERT_FALSE(first.Publish(Agree));
    ASSERT_FALSE(second.Publish(Agree));
    EXPECT_TRUE(fs::exists(PathOf("a")));
    EXPECT_TRUE(fs::exists(PathOf("b")));
}

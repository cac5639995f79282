// Links, pipes and limits.
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>

#include "publish_test_folder.h"

namespace rq::task {
namespace {

namespace fs = std::filesystem;
using PublishOnLinux = PublishTest;

TEST_F(PublishOnLinux, AFileThatIsKeptPrivateIsUntilItGetsItsRights) {
    Write("source", "abc");
    fs::permissions(Path("source"), fs::perms(0640));
    InputFile input;
    ASSERT_EQ(input.Open(PathOf("source")), 0u);
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {PathOf("source")}, false));
    publication.KeepPrivate();
    int found = 0;
    for (const auto& entry : fs::directory_iterator(Path(""))) {
        if (entry.path().extension() != ".rqpart") continue;
        ++found;
        EXPECT_EQ(entry.status().permissions(), fs::perms(0600));
    }
    EXPECT_EQ(found, 1);
    publication.WriteAt(0, "abc", 3);
    publication.TakeFactsOf(input);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(fs::status(Path("out")).permissions(), fs::perms(0640));
}

TEST_F(PublishOnLinux, OverwritingReplacesALinkAndNotWhatItLeadsTo) {
    Write("other", "kept");
    fs::create_symlink("other", PathOf("out"));
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, true));
    publication.WriteAt(0, "new", 3);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Read("other"), "kept");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(PathOf("out"))));
}

TEST_F(PublishOnLinux, DoesNotOverwriteWhatIsNoPlainFile) {
    ASSERT_EQ(mkfifo(PathOf("pipe").c_str(), 0600), 0);
    Publication publication;
    const auto failure = publication.Begin(PathOf("pipe"), {}, true);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
}

TEST_F(PublishOnLinux, ALinkToNowhereIsThere) {
    fs::create_symlink("nowhere", PathOf("dangling"));
    Publication publication;
    EXPECT_TRUE(publication.Begin(PathOf("dangling"), {}, false));
}

TEST_F(PublishOnLinux, RefusesTheSourceBehindALink) {
    const std::string source = Write("source", "s");
    fs::create_symlink("source", PathOf("link"));
    fs::create_directory(PathOf("sub"));
    fs::create_directory_symlink("..", PathOf("sub/up"));
    Publication publication;
    for (const std::string& target : {source, PathOf("link"), PathOf("sub/up/source")}) {
        const auto failure = publication.Begin(target, {PathOf("missing"), source}, true);
        ASSERT_TRUE(failure) << target;
        EXPECT_EQ(failure->problem, PublishProblem::kTargetIsSource) << target;
        EXPECT_EQ(TaskErrorOf(failure->problem), static_cast<std::int32_t>(0x84100001));
    }
    EXPECT_EQ(Read("source"), "s");
    EXPECT_EQ(Names().size(), 3u);
}

TEST_F(PublishOnLinux, AWriteThatFailsIsTold) {
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

TEST_F(PublishOnLinux, LeavesALinkWithATemporarysName) {
    fs::create_symlink("a", PathOf(".link.0123456789abcdef.rqpart"));
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("b"), {}, false));
    EXPECT_EQ(Names().size(), 2u);
}

}  // namespace
}  // namespace rq::task

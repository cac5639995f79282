// Pipes, links, rights and limits: what only a POSIX system has.
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeOnLinux = TranscodeDriver;

constexpr std::uint32_t kUnreadable = 0x84100010;
constexpr std::uint32_t kUnwritable = 0x84100013;

TEST_F(TranscodeOnLinux, ASourceThatIsNoFile) {
    std::filesystem::create_directory(PathOf("folder"));
    ASSERT_EQ(mkfifo(PathOf("pipe").c_str(), 0600), 0);
    ExpectFailure(TaskText(PathOf("folder"), Target("made.mp4")), kUnreadable, 0x80000100);
    EXPECT_EQ(Detail(), PathOf("folder") + ": Is a directory");
    ExpectFailure(TaskText(PathOf("pipe"), Target("made.mp4")), kUnreadable, 0x80000100);
}

TEST_F(TranscodeOnLinux, TheTargetIsALinkToTheSource) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    std::filesystem::create_symlink(clip, PathOf("link.mp4"));
    ExpectFailure(TaskText(clip, PathOf("link.mp4"), "<Overwrite>true</Overwrite>"), 0x84100001, 0);
    EXPECT_EQ(Detail(), PathOf("link.mp4") + ": the target is the source " + clip);
}

TEST_F(TranscodeOnLinux, AReplacedFileKeepsItsRights) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    for (const mode_t mode : {0640u, 0600u, 0666u}) {
        std::ofstream(Target("made.mp4")) << "old";
        ASSERT_EQ(chmod(Target("made.mp4").c_str(), mode), 0);
        ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("h264")));
        struct stat facts {};
        ASSERT_EQ(stat(Target("made.mp4").c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777u, mode);
        ExpectPlayable(Target("made.mp4"));
    }
}

TEST_F(TranscodeOnLinux, AFolderThatIsClosed) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    std::filesystem::permissions(m_dir.Path(), std::filesystem::perms(0755));
    std::filesystem::permissions(clip, std::filesystem::perms(0644));
    std::filesystem::create_directory(PathOf("closed"));
    std::filesystem::permissions(PathOf("closed"), std::filesystem::perms(0555));
    ASSERT_EQ(Analyse(TaskText(clip, PathOf("closed/made.mp4"))), 0);
    // Rights bind root only as somebody else; this call touches the files of this thread alone.
    const bool isRoot = geteuid() == 0;
    if (isRoot) setfsuid(65534);
    Perform();
    if (isRoot) setfsuid(0);
    std::filesystem::permissions(PathOf("closed"), std::filesystem::perms(0755));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(static_cast<std::uint32_t>(m_info->errorCode), kUnwritable);
    EXPECT_EQ(m_info->detailErrorCode, 0x80000104u);
    EXPECT_EQ(Detail(), PathOf("closed") + ": no file can be made in the target's folder: Permission denied");
}

// Sound that does not fit: 2 s of it is 384 kB.
const char* const kLoud = "<Audio><Codec>pcm_s16le</Codec><SampleRate_Hz>192000</SampleRate_Hz></Audio>";

// Needs the right to mount (root, in most containers); the next test needs none.
TEST_F(TranscodeOnLinux, AFullDisk) {
    const std::string clip = MakeClip("clip.wav", "2", "-vn");
    const std::string disk = PathOf("out");
    if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0)
        GTEST_SKIP() << "a small disk cannot be mounted here (" << std::strerror(errno)
                     << "); the test with a limited file size stands in for it";
    ExpectFailure(TaskText(clip, Target("made.mkv"), kLoud), kUnwritable, 0x80000108);
    EXPECT_EQ(Detail(), Target("made.mkv") + ": No space left on device");
    EXPECT_EQ(umount(disk.c_str()), 0);
}

TEST_F(TranscodeOnLinux, AFileThatMustNotGrow) {
    const std::string clip = MakeClip("clip.wav", "2", "-vn");
    ASSERT_EQ(Analyse(TaskText(clip, Target("made.mkv"), kLoud)), 0);
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{100'000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    Perform();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(static_cast<std::uint32_t>(m_info->errorCode), kUnwritable);
    EXPECT_EQ(m_info->detailErrorCode, 0x80000108u);
    EXPECT_EQ(Detail(), Target("made.mkv") + ": File too large");
    EXPECT_TRUE(Made().empty());
}

}  // namespace
}  // namespace rq::transcode

// What the transcode plug-in says to damaged sources, targets that cannot be written, and a disk that is
// full; and that nothing stays behind.
#include <fstream>
#include <iostream>

#include "encoder.h"
#include "kit/os.h"
#include "plugin_common/codes.h"
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeDamage = TranscodeDriver;

constexpr std::uint32_t kUnreadable = 0x84100010;
constexpr std::uint32_t kUnwritable = 0x84100013;
constexpr std::uint32_t kNotMedia = 0x84100014;
constexpr std::uint32_t kDamaged = 0x84100015;
constexpr std::uint32_t kLacksStream = 0x84100016;
constexpr std::uint32_t kProcessing = 0x84100017;

TEST_F(TranscodeDamage, NoSource) {
    ExpectFailure(TaskText(PathOf("missing.mp4"), Target("made.mp4")), kUnreadable, 0x80000100);
    EXPECT_EQ(Detail(), PathOf("missing.mp4") + ": " + kit::Words(kit::Codes().notFound));
    EXPECT_EQ(Further(), Detail());
}

TEST_F(TranscodeDamage, ASourceThatIsNoFile) {
    std::filesystem::create_directory(m_dir.Path() / "folder");
    ExpectFailure(TaskText(PathOf("folder"), Target("made.mp4")), kUnreadable, 0x80000100);
    EXPECT_EQ(Detail().find(PathOf("folder") + ": "), 0u) << Detail();
    EXPECT_NE(Detail().find("irectory"), std::string::npos) << Detail();
}

TEST_F(TranscodeDamage, NoByteAtAll) {
    ExpectFailure(TaskText(Write("empty.mp4", ""), Target("made.mp4")), kNotMedia, 0x80000102);
    EXPECT_EQ(Detail(), PathOf("empty.mp4") + ": the file is empty");
}

TEST_F(TranscodeDamage, NoMedia) {
    std::string noise;
    std::uint32_t state = 1;
    for (int i = 0; i < 100'000; ++i)
        noise += static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
    std::string prose;
    for (int i = 0; i < 2000; ++i) prose += "This is a text and no clip, line " + std::to_string(i) + ".\n";
    for (const std::string& path : {Write("noise.mp4", noise), Write("prose.txt", prose),
                                    Write("zeros.mkv", std::string(100'000, '\0'))}) {
        ExpectFailure(TaskText(path, Target("made.mp4")), kNotMedia, 0x80000200);
        EXPECT_EQ(Detail(), path + ": Invalid data found when processing input");
    }
}

// A playlist must not make the worker read what it names.
TEST_F(TranscodeDamage, APlaylistPullsNothingIn) {
    const std::string clip = MakeClip("clip.ts", "1", "-c:v libx264 -preset ultrafast -c:a aac");
    const std::string playlist =
        Write("list.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1.0,\n" + clip + "\n#EXT-X-ENDLIST\n");
    EXPECT_EQ(Do(TaskText(playlist, Target("made.mp4"))), RQ_STATUS_ERROR);
    EXPECT_NE(m_info->errorCode, 0);
    EXPECT_TRUE(Made().empty());
    Write("list.txt", "ffconcat version 1.0\nfile clip.ts\n");
    EXPECT_EQ(Do(TaskText(PathOf("list.txt"), Target("made.mp4"))), RQ_STATUS_ERROR);
    EXPECT_TRUE(Made().empty());
}

TEST_F(TranscodeDamage, AnMp4WithoutItsIndex) {
    const std::string clip = MakeClip("clip.mp4", "2");
    Resize(clip, SizeOf(clip) / 2);
    ExpectFailure(TaskText(clip, Target("made.mp4")), kNotMedia, 0x80000200);
    EXPECT_NE(Detail().find(": Invalid data found when processing input ("), std::string::npos) << Detail();
    EXPECT_NE(Detail().find("moov atom not found"), std::string::npos) << Detail();
}

TEST_F(TranscodeDamage, AFileThatIsCutOff) {
    const std::string sound = "-c:v libx264 -preset ultrafast -g 25 -c:a aac ";
    for (const std::string& clip :
         {MakeClip("clip.mkv", "4"), MakeClip("front.mp4", "4", sound + "-movflags +faststart"),
          MakeClip("clip.avi", "4", "-c:v mpeg4 -c:a pcm_s16le")}) {
        Resize(clip, SizeOf(clip) * 6 / 10);
        ExpectFailure(TaskText(clip, Target("made.mp4")), kDamaged, 0x80000107);
        EXPECT_EQ(Detail().substr(0, clip.size() + 2), clip + ": ");
        ExpectFailure(TaskText(clip, Target("made.mkv"), Video("copy") + Audio("copy")), kDamaged,
                      0x80000107);
    }
}

TEST_F(TranscodeDamage, AFileThatIsCutOffSaysWhere) {
    const std::string clip = MakeClip("clip.mkv", "4", "-c:v libx264 -preset ultrafast -an");
    Resize(clip, SizeOf(clip) / 2);
    ExpectFailure(TaskText(clip, Target("made.mkv"), Video("copy")), kDamaged, 0x80000107);
    EXPECT_NE(Detail().find(": the source is cut short: it tells a length of 4.00 s, but ends after "),
              std::string::npos)
        << Detail();
    // Whoever wants what is there says so.
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264"), "<IgnoreDamage>true</IgnoreDamage>"));
    ExpectPlayable(Target("made.mp4"));
    EXPECT_GT(Output().frames, 20u);
    EXPECT_LT(Output().frames, 90u);
    // And an out point before the cut is none of its business.
    Remove(Target("made.mp4"));
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264"), "<Out_s>1</Out_s>"));
    EXPECT_EQ(Output().frames, 25u);
}

TEST_F(TranscodeDamage, BytesThatWereChanged) {
    const std::string clip = MakeClip("clip.mkv", "4", "-c:v mpeg2video -b:v 1M -g 12 -an");
    std::string bytes = ReadWhole(clip);
    for (std::size_t i = bytes.size() / 2; i < bytes.size() / 2 + 6000; ++i)
        bytes[i] = static_cast<char>(i * 7 + 3);
    Write("clip.mkv", bytes);
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"), Video("h264"))), RQ_STATUS_ERROR);
    EXPECT_EQ(static_cast<std::uint32_t>(m_info->errorCode), kDamaged) << Detail();
    EXPECT_EQ(m_info->detailErrorCode, 0x8000030Au) << Detail();
    EXPECT_EQ(Detail().substr(0, clip.size() + 24), clip + ": the video is damaged: ") << Detail();
    EXPECT_TRUE(Made().empty());
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264"), "<IgnoreDamage>true</IgnoreDamage>"));
    ExpectPlayable(Target("made.mp4"));
    EXPECT_NEAR(Output().frames, 100, 3);
}

TEST_F(TranscodeDamage, AStreamThatIsNotThere) {
    const std::string silent = MakeClip("silent.mp4", "0.4", "-an -c:v libx264 -preset ultrafast");
    const std::string dark = MakeClip("dark.m4a", "0.4", "-vn -c:a aac");
    for (const char* codec : {"aac", "copy"}) {
        ExpectFailure(TaskText(silent, Target("made.mp4"), Audio(codec)), kLacksStream, 0x80000404);
        EXPECT_EQ(Detail(), silent + ": the source has no audio");
    }
    for (const char* codec : {"h264", "copy"}) {
        ExpectFailure(TaskText(dark, Target("made.mp4"), Video(codec)), kLacksStream, 0x80000305);
        EXPECT_EQ(Detail(), dark + ": the source has no video");
    }
    ExpectFailure(TaskText(dark, Target("made.mp4"), Audio("none")), kLacksStream, 0x80000305);
    ExpectFailure(TaskText(silent, Target("made.mp4"), Video("none")), kLacksStream, 0x80000404);
}

TEST_F(TranscodeDamage, ACopyThatTheContainerDoesNotTake) {
    const std::string clip = MakeClip("clip.mkv", "0.4", "-c:v ffv1 -c:a pcm_s16le");
    ExpectFailure(TaskText(clip, Target("made.mp4"), Video("copy")), kProcessing, 0x80000602);
    EXPECT_EQ(Detail(),
              Target("made.mp4") + ": mp4 does not take ffv1; encode it, or choose another container");
    ExpectFailure(TaskText(clip, Target("made.mp4"), Video("none") + Audio("copy")), kProcessing, 0x80000603);
    EXPECT_EQ(Detail(),
              Target("made.mp4") + ": mp4 does not take pcm_s16le; encode it, or choose another container");
}

TEST_F(TranscodeDamage, AnInPointBehindTheEnd) {
    const std::string clip = MakeClip("clip.mp4", "1");
    ExpectFailure(TaskText(clip, Target("made.mp4"), "", "<In_s>5</In_s>"), kProcessing, 0x80000803);
    EXPECT_NE(Detail().find(": the in point lies at 5.00 s, but the source ends at 1.0"), std::string::npos)
        << Detail();
}

TEST_F(TranscodeDamage, AStreamThatHasNothingBetweenInAndOutPoint) {
    Make("v.mp4", "-f lavfi -i testsrc2=s=64x64:r=25:d=2 -c:v libx264 -preset ultrafast");
    Make("a.m4a", "-f lavfi -i sine=sample_rate=48000:d=6 -c:a aac");
    const std::string cut = "<In_s>3</In_s><Out_s>4</Out_s>";
    for (const char* name : {"clip.mp4", "clip.mkv", "clip.ts"}) {
        const std::string clip = Make(name, "-i v.mp4 -i a.m4a -c copy");
        for (const std::string& more : {Video("h264"), Video("copy"), Video("h264") + Audio("copy")}) {
            ExpectFailure(TaskText(clip, Target("made.mkv"), more, cut), kProcessing, 0x80000803);
            EXPECT_EQ(Detail().substr(0, Detail().find(';')),
                      clip + ": no video lies between 3.00 s and 4.00 s");
        }
        EXPECT_EQ(Do(TaskText(clip, Target("made.mkv"), Video("none"), cut)), RQ_STATUS_FINISHED) << Detail();
        Remove(Target("made.mkv"));
    }
    // Of an MP4 it is known before the work: nothing was counted.
    ExpectFailure(TaskText(PathOf("clip.mp4"), Target("made.mkv"), "", cut), kProcessing, 0x80000803);
    EXPECT_NE(Detail().find("; it ends at 2.0"), std::string::npos) << Detail();
    EXPECT_TRUE(m_progress.empty());
    const std::string late = Make("late.mp4", "-i a.m4a -itsoffset 3 -i v.mp4 -map 0 -map 1 -c copy");
    ExpectFailure(TaskText(late, Target("made.mkv"), "", "<Out_s>2</Out_s>"), kProcessing, 0x80000803);
    EXPECT_NE(Detail().find("no video lies between 0.00 s and 2.00 s; it begins at 3.0"), std::string::npos)
        << Detail();
    const std::string quiet = Make("quiet.mkv",
                                   "-f lavfi -i testsrc2=s=64x64:r=25:d=6 -f lavfi -i sine=d=2 -c:v "
                                   "libx264 -preset ultrafast -g 25 -c:a pcm_s16le");
    for (const char* codec : {"aac", "copy"})
        ExpectFailure(TaskText(quiet, Target("made.mkv"), Video("h264") + Audio(codec), "<In_s>5</In_s>"),
                      kProcessing, 0x80000803);
}

TEST_F(TranscodeDamage, AHeadWithoutABody) {
    for (const char* name : {"clip.mkv", "clip.avi", "clip.wav", "clip.mp4", "clip.ogg"}) {
        const std::string clip = Make(
            name, "-f lavfi -i sine=d=1" + std::string(name == std::string("clip.ogg") ? " -c:a flac" : ""));
        for (const std::uintmax_t size : {12u, 40u}) {
            Resize(clip, 40);
            Resize(clip, size);
            EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"))), RQ_STATUS_ERROR);
            EXPECT_NE(static_cast<std::uint32_t>(m_info->errorCode), kUnreadable) << Detail();
        }
    }
}

TEST_F(TranscodeDamage, SettingsThatTheEncoderRefuses) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    // A picture of 8192 by 16 pixels is wide enough to make the other side too high.
    ExpectFailure(TaskText(clip, Target("made.mp4"), Video("h264", "<Height_px>8192</Height_px>")),
                  kProcessing, 0x80000520);
    EXPECT_NE(Detail().find("at most 8192"), std::string::npos) << Detail();
}

// As in a build of FFmpeg without libx264.
TEST(TranscodeEncoder, OneThatIsMissingIsNamed) {
    task::Publication publication;
    Target target("/out.mp4", publication);
    plugin::Run run(nullptr, nullptr, nullptr, nullptr);
    Watch watch(run);
    Encoder encoder(target, watch);
    const Problem problem = encoder.Find("libx264-of-another-build", Detail::kH264EncoderMissing);
    ASSERT_TRUE(problem);
    EXPECT_EQ(static_cast<std::uint32_t>(problem->errorCode), kProcessing);
    EXPECT_EQ(static_cast<std::uint32_t>(problem->detail), 0x8000050Fu);
    EXPECT_EQ(problem->words, "/out.mp4: this build of FFmpeg has no encoder \"libx264-of-another-build\"");
}

// ---- the target ----

TEST_F(TranscodeDamage, TheTargetIsTheSource) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    std::filesystem::create_hard_link(PathFromUtf8(clip), m_dir.Path() / "second.mp4");
    const std::string before = ReadWhole(clip);
    const std::string words = ": the target is the source " + clip;
    for (const std::string& target : {clip, PathOf("second.mp4"), PathOf("./clip.mp4")}) {
        ExpectFailure(TaskText(clip, target, "<Overwrite>true</Overwrite>"), 0x84100001, 0);
        EXPECT_EQ(Detail(), target + words);
    }
    EXPECT_EQ(ReadWhole(clip), before);
}

TEST_F(TranscodeDamage, TheTargetIsThere) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    const std::string target = Write("there.mp4", "old");
    ExpectFailure(TaskText(clip, target), 0x84100000, 0);
    EXPECT_EQ(Detail(), target + ": the target exists already");
    EXPECT_EQ(ReadWhole(target), "old");
    EXPECT_EQ(Do(TaskText(clip, target, "<Overwrite>true</Overwrite>" + Video("h264"))), RQ_STATUS_FINISHED);
    ExpectPlayable(target);
}

TEST_F(TranscodeDamage, ANameThatCannotBeGivenIsFoundBeforeTheWork) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    const std::string target = Target(std::string(252, 'x') + ".mp4");
    ExpectFailure(TaskText(clip, target), kUnwritable, 0x80000104);
    EXPECT_EQ(Detail(), target + ": " + kit::Words(kit::Codes().nameTooLong));
    EXPECT_TRUE(m_progress.empty());
    ExpectDone(TaskText(clip, Target(std::string(251, 'x') + ".mp4"), Video("h264")));
}

TEST_F(TranscodeDamage, TheTargetComesIntoBeingMeanwhile) {
    const std::string clip = MakeClip("clip.mp4", "5");
    bool isMade = false;
    m_onProgress = [&] {
        if (isMade || m_progress.empty() || m_progress.back().done < 5) return;
        Write("out/made.mp4", "theirs");
        isMade = true;
    };
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>medium</Preset>"))),
              RQ_STATUS_ERROR);
    ASSERT_TRUE(isMade);
    EXPECT_EQ(static_cast<std::uint32_t>(m_info->errorCode), 0x84100000u);
    EXPECT_EQ(Made(), std::vector<std::string>{"made.mp4"});
    EXPECT_EQ(ReadWhole(Target("made.mp4")), "theirs");
}

TEST_F(TranscodeDamage, AFolderThatIsNotThere) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    ExpectFailure(TaskText(clip, PathOf("no such/made.mp4")), kUnwritable, 0x80000104);
    EXPECT_EQ(Detail(), PathOf("no such") + ": no file can be made in the target's folder: " +
                            kit::Words(kit::Codes().folderNotFound));
    ExpectFailure(TaskText(clip, clip + "/made.mp4"), kUnwritable, 0x80000104);
}

TEST_F(TranscodeDamage, ASourceThatChangesMeanwhile) {
    const std::string clip = MakeClip("clip.mkv", "20");
    bool isChanged = false;
    m_onProgress = [&] {
        if (isChanged || m_progress.empty() || m_progress.back().done < 5) return;
        std::ofstream(PathFromUtf8(clip), std::ios::app) << "more";
        isChanged = true;
    };
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>medium</Preset>"))),
              RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceChanged) << Detail();
    EXPECT_EQ(Detail(), clip + ": the file changed while it was read");
    EXPECT_TRUE(Made().empty());
}

TEST_F(TranscodeDamage, FFmpegsLinesAreLoggedButNotEndless) {
    const std::string clip = MakeClip("clip.mkv", "20", "-c:v mpeg2video -b:v 1M -g 12 -an");
    std::string bytes = ReadWhole(clip);
    for (std::size_t i = 20'000; i + 100 < bytes.size(); i += 3000)
        for (std::size_t k = 0; k < 100; ++k) bytes[i + k] = static_cast<char>(k * 7 + 3);
    Write("clip.mkv", bytes);
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"), Video("h264"), "<IgnoreDamage>true</IgnoreDamage>")),
              RQ_STATUS_FINISHED)
        << Detail();
    const auto isFFmpegs = [](const std::string& line) {
        return line.rfind("3 transcode: FFmpeg: ", 0) == 0;
    };
    EXPECT_EQ(std::count_if(m_log.begin(), m_log.end(), isFFmpegs), 51);
    EXPECT_NE(m_log.back().find(" more lines are left out"), std::string::npos) << m_log.back();
}

}  // namespace
}  // namespace rq::transcode

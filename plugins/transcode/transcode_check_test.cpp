// The look at the written file: what containers tell in ways of their own is no difference, and what is wrong
// is found. And what copies and encoders put into the containers, which it rests on.
#include "av_log.h"
#include "probe.h"
#include "source.h"
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeCheck = TranscodeDriver;

// An encoder's run-in is longer in time at a low rate: Matroska moves everything by it.
TEST_F(TranscodeCheck, AacAtEveryRate) {
    for (const char* rate : {"8000", "11025", "48000"}) {
        const std::string clip =
            Make("clip.mkv", std::string("-f lavfi -i testsrc2=s=64x64:r=25:d=2 -f lavfi -i "
                                         "sine=d=2:sample_rate=") +
                                 rate + " -c:v libx264 -preset ultrafast -c:a pcm_s16le");
        for (const char* name : {"made.mp4", "made.mkv"}) {
            for (const std::string& video : {Video("none"), Video("h264")}) {
                ExpectDone(TaskText(clip, Target(name), video + Audio("aac")));
                ExpectPlayable(Target(name));
                EXPECT_NEAR(Output().audio_ms, 2000, 130);
                Remove(Target(name));
            }
        }
    }
    for (const std::string& line : m_log) EXPECT_EQ(line.find("Too many bits"), std::string::npos) << line;
}

TEST_F(TranscodeCheck, Mpeg1SoundInMp4) {
    const std::string clip = MakeClip("clip.ts", "2", "-c:v libx264 -preset ultrafast -c:a mp2 -b:a 128k");
    for (const char* name : {"made.mp4", "made.mkv"}) {
        ExpectDone(TaskText(clip, Target(name), Video("copy") + Audio("copy")));
        ExpectPlayable(Target(name));
        EXPECT_EQ(plugin::View(Output().format->streams[1]->codec), "mp2");
        Remove(Target(name));
    }
}

TEST_F(TranscodeCheck, MatroskaDecidesItselfWhatItTakes) {
    const std::string clip = Make("clip.wav", "-f lavfi -i sine=d=1 -c:a pcm_mulaw");
    ExpectDone(TaskText(clip, Target("made.mkv"), Audio("copy")));
    ExpectPlayable(Target("made.mkv"));
    EXPECT_EQ(Probe(Target("made.mkv"))["streams.stream.0.codec_name"], "pcm_mulaw");
}

TEST_F(TranscodeCheck, ATurnThatMatroskaDoesNotKeepIsSaid) {
    Make("flat.mp4", "-f lavfi -i testsrc2=s=128x72:r=25:d=0.4 -c:v libx264 -preset ultrafast");
    const std::string clip = Make("turned.mp4", "-i flat.mp4 -c copy -metadata:s:v rotate=90");
    const auto hasLine = [this] {
        return std::any_of(m_log.begin(), m_log.end(), [](const std::string& line) {
            return line.rfind("3 transcode: ", 0) == 0 &&
                   line.find("mkv does not keep that") != std::string::npos;
        });
    };
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("copy")));
    Remove(Target("made.mp4"));
    EXPECT_FALSE(hasLine());
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("copy")));
    EXPECT_TRUE(hasLine());
}

TEST_F(TranscodeCheck, PicturesThatAreMissingAreFound) {
    const std::string clip = MakeClip("clip.mp4", "2", "-an -c:v libx264 -preset ultrafast");
    Source source([] { return false; });
    ASSERT_FALSE(source.Open(clip));
    const task::MediaFormat found = Describe(source, SizeOf(clip));
    const std::int64_t frames = source.Video()->nb_frames;
    Expected expected;
    expected.container = "mp4";
    expected.video = Expected::Video{"h264", 128, 72, 50};
    expected.duration_us = 2'000'000;
    EXPECT_EQ(Difference(found, frames, expected), "");
    expected.video->frames = 51;
    EXPECT_EQ(Difference(found, frames, expected), "it has 50 pictures, not 51");
    EXPECT_EQ(Difference(found, 0, expected), "");
    expected.video->frames = 50;
    expected.duration_us = 2'200'000;
    EXPECT_EQ(Difference(found, frames, expected), "it lasts 2.000 s, not 2.200 s");
}

TEST_F(TranscodeCheck, FFmpegsLinesAreWholeAndSayWhoSpeaks) {
    const plugin::Host host(&m_host);
    const AvLog log(host);
    av_log(nullptr, AV_LOG_WARNING, "one ");
    av_log(nullptr, AV_LOG_WARNING, "line");
    EXPECT_TRUE(m_log.empty());
    av_log(nullptr, AV_LOG_WARNING, ".\n");
    av_log(nullptr, AV_LOG_WARNING, "\n");
    AVCodecContext* const nameless = avcodec_alloc_context3(nullptr);
    av_log(nameless, AV_LOG_ERROR, "broken\n");
    AVCodecContext* named = avcodec_alloc_context3(avcodec_find_encoder_by_name("aac"));
    av_log(named, AV_LOG_ERROR, "too\n");
    EXPECT_EQ(m_log,
              (std::vector<std::string>{"3 transcode: FFmpeg: one line.", "3 transcode: FFmpeg: broken",
                                        "3 transcode: FFmpeg: aac: too"}));
    EXPECT_EQ(AvLog::TakeError(), "broken");
    const Codec first(nameless);
    const Codec second(named);
}

}  // namespace
}  // namespace rq::transcode

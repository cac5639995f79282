// What the progress counts, and that it moves: sources of which one stream is longer, begins late, or is left
// out.
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeProgress = TranscodeDriver;

// The worker divides the count by the rate that the analysis told, also when no picture is made.
TEST_F(TranscodeProgress, CountsSoundAtTheRateThatTheAnalysisTold) {
    const std::string clip =
        Make("clip.mp4",
             "-f lavfi -i testsrc2=s=64x64:r=50:d=2 -f lavfi -i sine=sample_rate=48000:d=2 "
             "-c:v libx264 -preset ultrafast -c:a aac");
    for (const std::string& audio : {Audio("aac"), Audio("copy")}) {
        ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("none") + audio));
        EXPECT_EQ(Data().sources[0]->frameRateNumerator, 50u);
        EXPECT_NEAR(static_cast<double>(m_progress.back().done), 100, 2);
        EXPECT_NEAR(Output().audio_ms, 2000, 50);
    }
    const std::string sound = Make("sound.wav", "-f lavfi -i sine=d=2");
    ExpectDone(TaskText(sound, Target("made.mp4"), "<Overwrite>true</Overwrite>"));
    EXPECT_EQ(Data().sources[0]->hasVideo, 0u);
    EXPECT_EQ(m_progress.back().done, 50);
    ExpectWholeProgress();
}

// How far the count has come when the work is behind all but the last twentieth.
TEST_F(TranscodeProgress, GoesOnWithTheSoundBehindThePictures) {
    const std::string clip = Make("clip.mkv",
                                  "-f lavfi -i testsrc2=s=64x64:r=25:d=2 -f lavfi -i "
                                  "\"anoisesrc=d=120:r=48000:a=0.1\" -c:v libx264 -preset ultrafast "
                                  "-c:a pcm_s16le");
    for (const std::string& more : {Video("h264") + Audio("aac"), Video("copy") + Audio("aac")}) {
        ExpectDone(TaskText(clip, Target("made.mkv"), "<Overwrite>true</Overwrite>" + more));
        ExpectWholeProgress();
        EXPECT_EQ(m_progress.back().total, 3000);
        const auto behindPictures = std::count_if(m_progress.begin(), m_progress.end(), [](const auto& call) {
            return call.done > 100 && call.done < 2700;
        });
        EXPECT_GE(behindPictures, 2);
    }
}

TEST_F(TranscodeProgress, PicturesThatBeginLateEndLate) {
    Make("v.mp4", "-f lavfi -i testsrc2=s=64x64:r=25:d=2 -c:v libx264 -preset ultrafast -g 5");
    Make("a.m4a", "-f lavfi -i sine=sample_rate=48000:d=2 -c:a aac");
    const std::string clip =
        Make("late.mp4", "-i a.m4a -itsoffset 1.5 -i v.mp4 -map 1:v -map 0:a -c copy -movflags +faststart");
    EXPECT_NEAR(std::stod(Probe(clip)["streams.stream.0.start_time"]), 1.5, 0.05);
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264") + Audio("none"), "<In_s>3.2</In_s>"));
    EXPECT_NEAR(Output().frames, 8, 1);
    EXPECT_NEAR(static_cast<double>(m_progress.back().total), 8, 1);
    ExpectWholeProgress();
    ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("h264")));
    EXPECT_NEAR(Output().frames, 88, 1);
    EXPECT_NEAR(static_cast<double>(m_progress.back().total), 88, 1);
    ExpectWholeProgress();
}

}  // namespace
}  // namespace rq::transcode

// Which pictures and samples of the source come into the target: all of them, those of a changed frame rate,
// those between in and out points, and those of copies.
#include <cmath>

#include "source.h"
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeCut = TranscodeDriver;

// Each picture of this clip has its number as its grey.
constexpr const char* kNumbered = "-f lavfi -i \"color=s=32x32:r=25:d=4,geq=lum=N+50:cb=128:cr=128\" ";

TEST_F(TranscodeCut, EveryPictureComesThroughOnceAndInOrder) {
    for (const char* name : {"n.mp4", "n.mkv", "n.ts"}) {
        const std::string clip =
            Make(name, std::string(kNumbered) + "-c:v libx264 -crf 1 -g 30 -bf 3 -x264-params b-adapt=0");
        ExpectDone(TaskText(clip, Target("made.mkv"),
                            "<Overwrite>true</Overwrite>" + Video("h264", "<Quality>0</Quality>")));
        const std::vector<int> greys = Greys(Target("made.mkv"));
        ASSERT_EQ(greys.size(), 100u) << name;
        for (int i = 0; i < 100; ++i)
            EXPECT_NEAR(greys[static_cast<std::size_t>(i)], 50 + i, 1) << name << " " << i;
    }
}

// In Matroska the pictures begin after AAC's run-in, here half a picture.
TEST_F(TranscodeCut, ARunInOfTheSoundMovesNoPicture) {
    const std::string clip =
        Make("n.mkv",
             std::string(kNumbered) + "-f lavfi -i sine=sample_rate=48000:d=4 -c:v libx264 -crf 0 -c:a aac");
    EXPECT_NEAR(std::stod(Probe(clip)["streams.stream.0.start_time"]), 0.021, 0.001);
    const std::string quality = Video("h264", "<Quality>0</Quality>");
    for (const std::string& more :
         {quality + Audio("aac"), Video("copy") + Audio("copy"), quality + Audio("copy")}) {
        ExpectDone(TaskText(clip, Target("made.mkv"), "<Overwrite>true</Overwrite>" + more));
        ExpectPlayable(Target("made.mkv"));
        const std::vector<int> greys = Greys(Target("made.mkv"));
        ASSERT_EQ(greys.size(), 100u);
        for (int i = 0; i < 100; ++i) EXPECT_NEAR(greys[static_cast<std::size_t>(i)], 50 + i, 1) << i;
        const auto samples =
            OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mkv") + "' -f s16le -map 0:a -");
        EXPECT_NEAR(static_cast<double>(samples.size()) / 2 / 48000, 4, 0.06);
    }
}

TEST_F(TranscodeCut, HalfTheRateShowsEverySecondPicture) {
    const std::string clip = Make("n.mkv", std::string(kNumbered) + "-c:v libx264 -crf 0");
    ExpectDone(TaskText(clip, Target("made.mkv"),
                        Video("h264", "<Quality>0</Quality><FrameRate_fps>12.5</FrameRate_fps>")));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    ASSERT_EQ(greys.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_NEAR(greys[static_cast<std::size_t>(i)], 50 + 2 * i, 1) << i;
}

// ---- in and out points ----

TEST_F(TranscodeCut, CutsAtTheFrame) {
    const struct {
        const char* in;
        const char* out;
        int first;
        int count;
    } cases[] = {{"0", "0.04", 0, 1},    {"1", "2", 25, 25},           {"1.48", "3", 37, 38},
                 {"2.52", "2.6", 63, 2}, {"1.4732", "3.0133", 37, 38}, {"3.2", "", 80, 20},
                 {"", "1.6", 0, 40},     {"3.96", "9", 99, 1}};
    for (const char* name : {"n.mp4", "n.mkv", "n.ts"}) {
        const std::string clip =
            Make(name, std::string(kNumbered) +
                           "-c:v libx264 -crf 1 -g 30 -bf 3 -x264-params open-gop=1:b-adapt=0");
        for (const auto& expected : cases) {
            const std::string in = expected.in;
            const std::string out = expected.out;
            ExpectDone(TaskText(clip, Target("made.mkv"),
                                "<Overwrite>true</Overwrite>" + Video("h264", "<Quality>0</Quality>"),
                                (in.empty() ? "" : "<In_s>" + in + "</In_s>") +
                                    (out.empty() ? "" : "<Out_s>" + out + "</Out_s>")));
            const std::vector<int> greys = Greys(Target("made.mkv"));
            ASSERT_EQ(greys.size(), static_cast<std::size_t>(expected.count))
                << name << " " << in << " " << out;
            EXPECT_NEAR(greys.front(), 50 + expected.first, 1) << name << " " << in << " " << out;
            EXPECT_NEAR(greys.back(), 50 + expected.first + expected.count - 1, 1)
                << name << " " << in << " " << out;
            ExpectWholeProgress();
        }
    }
}

TEST_F(TranscodeCut, CutsSoundAtTheSample) {
    // The sound's value is its time: sample n of 8000 a second is n.
    const std::string clip = Make("ramp.mkv", "-f lavfi -i \"aevalsrc=n/32768:s=8000:d=3\" -c:a pcm_s16le");
    ExpectDone(
        TaskText(clip, Target("made.mkv"), Audio("pcm_s16le"), "<In_s>1.2345</In_s><Out_s>2.5</Out_s>"));
    const std::string bytes = OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mkv") + "' -f s16le -");
    ASSERT_EQ(bytes.size(), 2u * 10124u);  // (2.5 - 1.2345) * 8000
    const auto sample = [&](std::size_t i) {
        return static_cast<int>(static_cast<unsigned char>(bytes[2 * i])) +
               256 * static_cast<signed char>(bytes[2 * i + 1]);
    };
    EXPECT_NEAR(sample(0), 9876, 2);
    EXPECT_NEAR(sample(10123), 19999, 2);
    EXPECT_EQ(sample(5000) - sample(4000), 1000);
    // The progress counts 25 a second when there is no video, as the worker expects it.
    EXPECT_EQ(m_progress.back().total, 32);
}

TEST_F(TranscodeCut, SoundStaysWithThePicture) {
    // A tone in the second second only, and white pictures with it.
    const std::string clip =
        Make("flash.mp4",
             "-f lavfi -i \"color=s=32x32:r=25:d=3,geq=lum='if(between(T,1,1.99),235,16)':cb=128:cr=128\" "
             "-f lavfi -i \"aevalsrc='if(between(t,1,2),sin(880*PI*t),0)':s=48000:d=3\" "
             "-c:v libx264 -crf 10 -g 75 -c:a aac");
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("h264") + Audio("pcm_s16le"), "<In_s>0.6</In_s>"));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    std::size_t white = 0;
    while (white < greys.size() && greys[white] < 128) ++white;
    EXPECT_EQ(white, 10u);  // 0.4 s after the in point
    const std::string bytes =
        OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mkv") + "' -f s16le -map 0:a -");
    std::size_t loud = 0;
    while (2 * loud + 1 < bytes.size() && std::abs(static_cast<signed char>(bytes[2 * loud + 1])) < 32)
        ++loud;
    EXPECT_NEAR(static_cast<double>(loud) / 48000, 0.4, 0.003);
}

TEST_F(TranscodeCut, PicturesThatBeginLateAreNotEarly) {
    Make("v.mkv", std::string(kNumbered) + "-c:v libx264 -crf 0");
    Make("a.mkv", "-f lavfi -i sine=d=5 -c:a pcm_s16le");
    const std::string clip = Make("late.mkv", "-i a.mkv -itsoffset 1 -i v.mkv -map 1:v -map 0:a -c copy");
    ExpectDone(
        TaskText(clip, Target("made.mkv"), Video("h264", "<Quality>0</Quality>") + Audio("pcm_s16le")));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    ASSERT_EQ(greys.size(), 125u);
    EXPECT_NEAR(greys[0], 50, 1);  // the first picture fills what is missing
    EXPECT_NEAR(greys[25], 50, 1);
    EXPECT_NEAR(greys[26], 51, 1);
    EXPECT_NEAR(greys[124], 149, 1);
}

// ---- frame rates ----

TEST(TranscodeRate, IsThatOfEvenPicturesAndHasAPlaceForUnevenOnes) {
    const auto rate = [](AVRational average, AVRational real, bool isInterlaced = false) {
        const AVRational found = RateOf(average, real, isInterlaced);
        return std::to_string(found.num) + "/" + std::to_string(found.den);
    };
    EXPECT_EQ(rate({25, 1}, {25, 1}), "25/1");
    EXPECT_EQ(rate({2997, 100}, {30000, 1001}), "30000/1001");
    EXPECT_EQ(rate({1, 2}, {1, 2}), "1/2");
    EXPECT_EQ(rate({29, 2}, {25, 1}), "25/1");      // pictures were left out
    EXPECT_EQ(rate({50, 167}, {25, 3}), "25/3");    // slides
    EXPECT_EQ(rate({50, 167}, {1000, 1}), "25/1");  // slides on no grid
    EXPECT_EQ(rate({2975, 100}, {90000, 1}), "119/4");
    EXPECT_EQ(rate({25, 1}, {50, 1}), "50/1");
    EXPECT_EQ(rate({25, 1}, {50, 1}, true), "25/1");  // fields
    EXPECT_EQ(rate({0, 0}, {0, 0}), "25/1");
    EXPECT_EQ(rate({0, 0}, {24, 1}), "24/1");
    EXPECT_EQ(rate({0, 0}, {90000, 1}), "25/1");
}

TEST_F(TranscodeCut, NoPictureOfAnUnevenSourceIsLost) {
    const std::string clip = Make("uneven.mp4", std::string(kNumbered) +
                                                    "-vf \"select='not(between(n,10,20)+between(n,40,70))'\" "
                                                    "-vsync vfr -c:v libx264 -crf 0");
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("h264", "<Quality>0</Quality>")));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    ASSERT_EQ(greys.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        const int shown = i >= 10 && i <= 20 ? 9 : i >= 40 && i <= 70 ? 39 : i;
        EXPECT_NEAR(greys[static_cast<std::size_t>(i)], 50 + shown, 1) << i;
    }
    EXPECT_EQ(m_log.size(), 2u);
    // Matroska says an even rate of the same pictures, which is too low for some.
    const std::string even = Make("even.mkv", "-i uneven.mp4 -c copy");
    ExpectDone(TaskText(even, Target("made.mkv"), "<Overwrite>true</Overwrite>" + Video("h264")));
    EXPECT_NE(m_log[3].find("pictures that found no place at the target's frame rate: "), std::string::npos)
        << m_log[3];
    ExpectDone(TaskText(even, Target("made.mkv"),
                        "<Overwrite>true</Overwrite>" + Video("h264", "<FrameRate_fps>25</FrameRate_fps>")));
    EXPECT_NEAR(Output().frames, 100, 1);
    EXPECT_EQ(m_log.size(), 7u);
}

TEST_F(TranscodeCut, PicturesThatStandForSecondsAreShownForThem) {
    const std::string slow = "-f lavfi -i testsrc2=s=64x64:r=1/2:d=10 -c:v libx264 -preset ultrafast";
    for (const char* name : {"slow.mp4", "slow.mkv"}) {
        const std::string clip = Make(name, slow);
        ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("h264")));
        EXPECT_EQ(Output().frames, 5u);
        EXPECT_EQ(Output().format->duration_us, 10'000'000);
        EXPECT_EQ(Data().sources[0]->frameRateNumerator, Data().sources[0]->frameRateDenominator);
        EXPECT_EQ(m_progress.back().total, 10);
        ExpectWholeProgress();
        ExpectDone(
            TaskText(clip, Target("made.mp4"),
                     "<Overwrite>true</Overwrite>" + Video("h264", "<FrameRate_fps>25</FrameRate_fps>")));
        EXPECT_EQ(Output().frames, 250u);
        ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("copy")));
        EXPECT_EQ(Output().frames, 5u);
    }
    Remove(Target("made.mp4"));
    const std::string slides =
        Make("slides.mp4",
             std::string(kNumbered) +
                 "-vf \"select='eq(n,0)+eq(n,13)+eq(n,14)+eq(n,60)'\" -vsync vfr -c:v libx264 -crf 0");
    for (const std::string& clip : {slides, Make("slides.mkv", "-i slides.mp4 -c copy")}) {
        ExpectDone(TaskText(clip, Target("made.mkv"),
                            "<Overwrite>true</Overwrite>" +
                                Video("h264", "<Quality>0</Quality><FrameRate_fps>25</FrameRate_fps>")));
        const std::vector<int> greys = Greys(Target("made.mkv"));
        ASSERT_GE(greys.size(), 61u);
        EXPECT_NEAR(greys[12], 50, 1);
        EXPECT_NEAR(greys[13], 63, 1);
        EXPECT_NEAR(greys[14], 64, 1);
        EXPECT_NEAR(greys[59], 64, 1);
        EXPECT_NEAR(greys[60], 110, 1);
    }
}

TEST_F(TranscodeCut, TheLastPictureIsShownForItsOwnTime) {
    Make("n.mp4", std::string(kNumbered) + "-c:v libx264 -crf 0 -bf 0");
    const std::string clip =
        Make("long.mp4", "-i n.mp4 -c copy -bsf:v \"setts=duration='if(eq(N,99),2/TB,DURATION)'\"");
    ASSERT_NEAR(std::stod(Probe(clip)["format.duration"]), 5.96, 0.001);
    ExpectDone(TaskText(clip, Target("made.mkv"),
                        Video("h264", "<Quality>0</Quality><FrameRate_fps>25</FrameRate_fps>")));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    ASSERT_EQ(greys.size(), 149u);
    EXPECT_NEAR(greys[98], 148, 1);
    EXPECT_NEAR(greys[99], 149, 1);
    EXPECT_NEAR(greys[148], 149, 1);
}

TEST_F(TranscodeCut, Mpeg2TakesTheNearestOfItsRates) {
    const struct {
        const char* rate;
        const char* words;
    } cases[] = {{"15", "24000/1001"}, {"5", "24000/1001"}, {"48", "50/1"}, {"28", "30000/1001"}};
    for (const auto& expected : cases) {
        const std::string clip = Make("clip.mkv", std::string("-f lavfi -i testsrc2=s=64x64:d=2:r=") +
                                                      expected.rate + " -c:v libx264 -preset ultrafast");
        ExpectDone(TaskText(clip, Target("made.mkv"), "<Overwrite>true</Overwrite>" + Video("mpeg2video")));
        EXPECT_EQ(Probe(Target("made.mkv"))["streams.stream.0.r_frame_rate"], expected.words);
    }
}

// ---- copies ----

TEST_F(TranscodeCut, CopiesStreams) {
    const std::string clip = MakeClip("clip.mp4");
    for (const char* name : {"made.mp4", "made.mkv"}) {
        ExpectDone(TaskText(clip, Target(name), Video("copy") + Audio("copy")));
        ExpectPlayable(Target(name));
        auto facts = Probe(Target(name));
        EXPECT_EQ(facts["streams.stream.0.nb_read_packets"], "50");
        EXPECT_EQ(Output().frames, 50u);
        EXPECT_EQ(facts["streams.stream.0.codec_name"], "h264");
        EXPECT_EQ(facts["streams.stream.1.codec_name"], "aac");
        // The very bits: decoded, both are the same.
        EXPECT_EQ(PictureMd5(clip), PictureMd5(Target(name)));
        ExpectWholeProgress();
        Remove(Target(name));
    }
}

TEST_F(TranscodeCut, CopiesTransportStreamsIntoMp4) {
    const std::string clip = MakeClip("clip.ts", "2", "-c:v libx264 -preset ultrafast -c:a aac");
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("copy") + Audio("copy")));
    ExpectPlayable(Target("made.mp4"));
    EXPECT_EQ(Probe(Target("made.mp4"))["streams.stream.0.nb_read_packets"], "50");
}

TEST_F(TranscodeCut, ACopyBeginsWithThePictureThatStandsAlone) {
    const std::string clip =
        Make("n.mp4", std::string(kNumbered) + "-c:v libx264 -crf 0 -g 30 -keyint_min 30 -sc_threshold 0");
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("copy"), "<In_s>1.5</In_s><Out_s>3</Out_s>"));
    ExpectPlayable(Target("made.mkv"));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    ASSERT_GE(greys.size(), 45u);
    EXPECT_NEAR(greys[0], 80, 1);  // number 30, at 1.2 s
    EXPECT_NEAR(greys[44], 124, 1);
    EXPECT_LE(greys.size(), 49u);  // and what the last pictures refer to
}

TEST_F(TranscodeCut, CopiedPicturesAndEncodedSoundStayTogether) {
    const std::string clip =
        Make("flash.mp4",
             "-f lavfi -i \"color=s=32x32:r=25:d=3,geq=lum='if(between(T,1,1.99),235,16)':cb=128:cr=128\" "
             "-f lavfi -i \"aevalsrc='if(between(t,1,2),sin(880*PI*t),0)':s=48000:d=3\" "
             "-c:v libx264 -crf 10 -g 10 -keyint_min 10 -sc_threshold 0 -c:a aac");
    // The picture before 0.6 s that stands alone lies at 0.4 s.
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("copy") + Audio("pcm_s16le"), "<In_s>0.64</In_s>"));
    const std::vector<int> greys = Greys(Target("made.mkv"));
    std::size_t white = 0;
    while (white < greys.size() && greys[white] < 128) ++white;
    EXPECT_EQ(white, 15u);
    const std::string bytes =
        OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mkv") + "' -f s16le -map 0:a -");
    std::size_t loud = 0;
    while (2 * loud + 1 < bytes.size() && std::abs(static_cast<signed char>(bytes[2 * loud + 1])) < 32)
        ++loud;
    EXPECT_NEAR(static_cast<double>(loud) / 48000, 0.6, 0.003);
}

}  // namespace
}  // namespace rq::transcode

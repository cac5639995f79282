// Sources whose times are not simply told and steady: packets without decoding times, time stamps that jump,
// gaps, bare streams.
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodeTimes = TranscodeDriver;

constexpr std::uint32_t kDamaged = 0x84100015;
constexpr std::uint32_t kProcessing = 0x84100017;

// Each picture of this clip has its number as its grey.
constexpr const char* kNumbered = "-f lavfi -i \"color=s=32x32:r=25:d=4,geq=lum=N+50:cb=128:cr=128\" ";

// Of the pictures in the order of the file: "dts_time" or "pts_time".
std::vector<double> Times(const std::string& path, const std::string& kind) {
    std::istringstream lines(OutputOf("ffprobe -v error -select_streams v -show_entries packet=" + kind +
                                      " -of csv=p=0 '" + path + "'"));
    std::vector<double> times;
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != 'N') times.push_back(std::stod(line));
    return times;
}

// Matroska does not tell when the first pictures are to be decoded.
TEST_F(TranscodeTimes, CopiesPicturesThatAreShownInAnotherOrder) {
    for (const char* frames :
         {"bframes=3:b-pyramid=none", "bframes=1", "bframes=3:b-pyramid=normal:open-gop=1"}) {
        const std::string clip = Make(
            "n.mkv", std::string(kNumbered) +
                         "-f lavfi -i sine=sample_rate=48000:d=4 -c:a aac -c:v libx264 -crf 1 -x264-params "
                         "b-adapt=0:keyint=30:min-keyint=30:scenecut=0:" +
                         frames);
        ASSERT_NE(Probe(clip)["streams.stream.0.has_b_frames"], "0") << frames;
        for (const char* name : {"made.mp4", "made.mkv"}) {
            ExpectDone(TaskText(clip, Target(name), Video("copy") + Audio("copy")));
            ExpectPlayable(Target(name));
            EXPECT_EQ(Output().frames, 100u);
            EXPECT_EQ(PictureMd5(clip), PictureMd5(Target(name))) << name << frames;
            // Shown when the source shows them, and decoded before that, one after the other.
            const std::vector<double> shown = Times(Target(name), "pts_time");
            const std::vector<double> wanted = Times(clip, "pts_time");
            ASSERT_EQ(shown.size(), wanted.size());
            for (std::size_t i = 0; i < shown.size(); ++i)
                EXPECT_NEAR(shown[i] - shown[0], wanted[i] - wanted[0], 0.002) << name << " " << i;
            const std::vector<double> times = Times(Target(name), "dts_time");
            for (std::size_t i = 1; i < times.size(); ++i) {
                EXPECT_GT(times[i], times[i - 1]) << name << " " << i;
                // Matroska's are guessed by who reads.
                if (name == std::string("made.mkv")) continue;
                EXPECT_NEAR(times[i] - times[i - 1], 0.04, 0.002) << i;
            }
            // At the in point stands no picture that stands alone; the one before is number 30.
            ExpectDone(TaskText(clip, Target(name),
                                "<Overwrite>true</Overwrite>" + Video("copy") + Audio("aac"),
                                "<In_s>1.5</In_s>"));
            const std::vector<int> greys = Greys(Target(name));
            ASSERT_GE(greys.size(), 70u);
            EXPECT_NEAR(greys[greys.size() - 70], 80, 2) << name << frames;
            EXPECT_NEAR(greys.back(), 149, 2) << name << frames;
            Remove(Target(name));
        }
    }
}

// Two recordings of 2 s in one file, of which the second begins at `offset`.
class TranscodeJumps : public TranscodeDriver, public testing::WithParamInterface<const char*> {};

TEST_P(TranscodeJumps, AreJoined) {
    const std::string codecs = " -c:v libx264 -preset ultrafast -crf 5 -bf 0 -g 25 -c:a mp2 -b:a 128k ";
    const auto part = [&](const char* name, const std::string& numbers, const std::string& more) {
        return Make(name, "-f lavfi -i \"color=s=32x32:r=25:d=2,geq=lum=" + numbers +
                              ":cb=128:cr=128\" -f lavfi -i sine=sample_rate=48000:d=2" + codecs + more);
    };
    const std::string first = part("a.ts", "N+50", "-output_ts_offset 2000");
    const std::string second = part("b.ts", "N+100", std::string("-output_ts_offset ") + GetParam());
    const std::string clip = Write("both.ts", ReadWhole(first) + ReadWhole(second));
    for (const char* video : {"h264", "copy"}) {
        const std::string audio = video == std::string("copy") ? "copy" : "aac";
        const std::string target = Target("made.mkv");
        ExpectDone(TaskText(clip, target, Video(video) + Audio(audio)));
        ExpectPlayable(target);
        const std::vector<int> greys = Greys(target);
        ASSERT_NEAR(static_cast<double>(greys.size()), 100, 3) << video;
        EXPECT_NEAR(greys.front(), 50, 2);
        EXPECT_NEAR(greys[49], 99, 3);
        EXPECT_NEAR(greys.back(), 149, 2);
        EXPECT_NEAR(static_cast<double>(Output().format->duration_us), 4e6, 0.2e6);
        EXPECT_NEAR(Output().audio_ms, 4000, 200);
        ExpectWholeProgress();
        EXPECT_NEAR(static_cast<double>(m_progress.back().total), 100, 6);
        EXPECT_NE(m_log[m_log.size() - 2].find("the time stamps jump, times: 1, "), std::string::npos)
            << m_log[m_log.size() - 2];
        Remove(target);
    }
}

INSTANTIATE_TEST_SUITE_P(All, TranscodeJumps, testing::Values("2000", "2000.5", "3000", "1000", "0"));

TEST_F(TranscodeTimes, AGapIsFilledUpToALimit) {
    const auto clip = [&](const std::string& gap_s) {
        return Make("gap.mkv", "-f lavfi -i \"color=s=32x32:r=25:d=2,setpts='PTS+gte(N,25)*" + gap_s +
                                   "/TB'\" -c:v libx264 -preset ultrafast -vsync passthrough");
    };
    ExpectDone(TaskText(clip("20"), Target("made.mkv"), Video("h264")));
    EXPECT_EQ(Output().frames, 550u);
    Remove(Target("made.mkv"));
    const std::string wide = clip("700");
    for (const char* codec : {"h264", "copy"}) {
        ExpectFailure(TaskText(wide, Target("made.mkv"), Video(codec)), kDamaged, 0x80000107);
        EXPECT_EQ(Detail(), wide +
                                ": the source has nothing between 1.00 s and 701.00 s; gaps of more than "
                                "600 s are not filled");
        ExpectDone(TaskText(wide, Target("made.mkv"), Video(codec), "<IgnoreDamage>true</IgnoreDamage>"));
        EXPECT_EQ(Output().frames, 50u);
        Remove(Target("made.mkv"));
    }
}

TEST_F(TranscodeTimes, ABareStreamIsNotCopied) {
    const std::string clip =
        Make("bare.h264", std::string(kNumbered) + "-c:v libx264 -preset ultrafast -bf 2");
    for (const char* name : {"made.mp4", "made.mkv"}) {
        ExpectFailure(TaskText(clip, Target(name), Video("copy")), kProcessing, 0x80000602);
        EXPECT_EQ(Detail(), clip +
                                ": the source is a bare stream of h264 that tells no times, and cannot be "
                                "copied; encode it");
    }
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("h264")));
    EXPECT_EQ(Output().frames, 100u);
    const std::string sound = Make("bare.aac", "-f lavfi -i sine=sample_rate=48000:d=2 -c:a aac");
    Remove(Target("made.mkv"));
    ExpectDone(TaskText(sound, Target("made.mp4"), Audio("copy")));
}

}  // namespace
}  // namespace rq::transcode

// The transcode plug-in through its exported functions: what it makes, and what it tells about it. Every
// target is looked at with ffprobe or decoded by the ffmpeg command.

#include <cmath>
#include <thread>

#include "platform/library.h"
#include "plugin_common/codes.h"
#include "transcode_test_driver.h"

namespace rq::transcode {
namespace {

using TranscodePlugin = TranscodeDriver;

double Seconds(const std::map<std::string, std::string>& facts) {
    return std::stod(facts.at("format.duration"));
}

TEST_F(TranscodePlugin, DescribesItself) {
    ASSERT_NE(m_description, nullptr);
    EXPECT_EQ(m_description->contractVersion, RQ_CONTRACT_VERSION);
    EXPECT_EQ(plugin::View(m_description->name), "transcode");
    ASSERT_EQ(m_description->typeCount, 1u);
    EXPECT_EQ(m_description->types[0], RQ_TYPE_TRANSCODE);
    EXPECT_EQ(m_description->abilities, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH);
}

TEST(TranscodeLibrary, LoadsAndExportsTheContract) {
    platform::OsError error;
    void* library = platform::LoadLibraryAltered(RQ_PLUGIN_FILE, &error);
    ASSERT_NE(library, nullptr) << error.message;
    for (const char* name : {"RQWorkerAnalyseTask", "RQWorkerPerformTask", "RQWorkerInit", "RQWorkerRelease"})
        EXPECT_NE(platform::FindSymbol(library, name), nullptr) << name;
    auto describe =
        reinterpret_cast<decltype(&RQWorkerDescribe)>(platform::FindSymbol(library, "RQWorkerDescribe"));
    ASSERT_NE(describe, nullptr);
    EXPECT_EQ(plugin::View(describe(nullptr)->name), "transcode");
    // As in the worker, it stays loaded until the process ends.
}

TEST_F(TranscodePlugin, AnalysisTellsTheRealFrameRate) {
    const struct {
        const char* rate;
        std::uint32_t numerator, denominator;
    } cases[] = {{"25", 25, 1}, {"30000/1001", 30000, 1001}, {"50", 50, 1}};
    for (const auto& expected : cases) {
        const std::string path = Make("rate.mp4", std::string("-f lavfi -i testsrc2=s=64x64:d=1:r=") +
                                                      expected.rate + " -c:v libx264 -preset ultrafast");
        ASSERT_EQ(Analyse(TaskText(path, Target("x.mp4"))), 0);
        EXPECT_EQ(plugin::View(m_info->taskId), "t 1");
        EXPECT_EQ(m_info->taskType, RQ_TYPE_TRANSCODE);
        ASSERT_EQ(Data().sourceCount, 1u);
        const RQSourceDescription& source = *Data().sources[0];
        EXPECT_EQ(source.size, sizeof source);
        EXPECT_EQ(source.hasVideo, 1u);
        EXPECT_EQ(source.frameRateNumerator, expected.numerator);
        EXPECT_EQ(source.frameRateDenominator, expected.denominator);
    }
    EXPECT_TRUE(m_log.empty()) << m_log[0];
}

TEST_F(TranscodePlugin, AnalysisTakesSourcesWithoutVideoOrThere) {
    const std::string sound = Make("sound.wav", "-f lavfi -i sine=d=1");
    ASSERT_EQ(Analyse(TaskText(sound, Target("x.mp4"))), 0);
    EXPECT_EQ(Data().sources[0]->hasVideo, 0u);
    ASSERT_EQ(Analyse(TaskText(PathOf("missing"), Target("x.mp4"))), 0);
    EXPECT_EQ(Data().sources[0]->hasVideo, 0u);
}

TEST_F(TranscodePlugin, RefusedTextsLeaveARecordAndALogLine) {
    EXPECT_EQ(Analyse("<TranscodeTask><ID>known</ID></TranscodeTask>"), task::kAnalysisTaskText);
    ASSERT_NE(m_info, nullptr);
    EXPECT_EQ(plugin::View(m_info->taskId), "known");
    EXPECT_EQ(
        LastLog(),
        "4 transcode: the task text is refused: line 1: <TranscodeTask> has no <Source>; say what is to be "
        "transcoded");
    const std::string reason = "line 1: <TranscodeTask> has no <Source>; say what is to be transcoded";
    EXPECT_EQ(plugin::View(m_info->furtherText), reason);
    Perform();  // nobody should, but then it is an error and no crash
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kAnalysisTaskText);
    EXPECT_EQ(plugin::View(m_info->furtherText), reason);
}

// ---- every pair of codecs and containers ----

struct Pair {
    const char* container;
    const char* video;
    const char* audio;
};
class TranscodePairs : public TranscodeDriver, public testing::WithParamInterface<Pair> {};

TEST_P(TranscodePairs, GoThrough) {
    const Pair& pair = GetParam();
    const std::string target = Target(std::string("made.") + pair.container);
    ExpectDone(TaskText(MakeClip("clip.mp4"), target, Video(pair.video) + Audio(pair.audio)));
    ExpectPlayable(target);
    auto facts = Probe(target);
    EXPECT_EQ(facts["format.nb_streams"], "2");
    EXPECT_EQ(facts["streams.stream.0.codec_name"], pair.video);
    EXPECT_EQ(facts["streams.stream.0.width"], "128");
    EXPECT_EQ(facts["streams.stream.0.height"], "72");
    EXPECT_EQ(facts["streams.stream.0.pix_fmt"], "yuv420p");
    EXPECT_EQ(facts["streams.stream.0.avg_frame_rate"], "25/1");
    EXPECT_EQ(facts["streams.stream.0.nb_read_packets"], "50");
    EXPECT_EQ(facts["streams.stream.1.codec_name"], pair.audio);
    EXPECT_EQ(facts["streams.stream.1.sample_rate"], "48000");
    EXPECT_EQ(facts["streams.stream.1.channels"], "1");
    EXPECT_NEAR(Seconds(facts), 2.0, 0.1);
    ExpectWholeProgress();
    EXPECT_GE(m_progress.back().total, 50);
    EXPECT_LE(m_progress.back().total, 51);  // the sound of the clip is a little longer

    const RQTranscodeOutput& output = Output();
    EXPECT_EQ(output.size, sizeof output);
    EXPECT_EQ(output.frames, 50u);
    EXPECT_NEAR(output.audio_ms, 2000, 50);
    EXPECT_EQ(output.size_bytes, SizeOf(target));
    EXPECT_EQ(plugin::View(output.first), target);
    EXPECT_EQ(plugin::View(output.second), pair.container);
    ASSERT_NE(output.format, nullptr);
    EXPECT_EQ(plugin::View(output.format->container), pair.container);
    EXPECT_EQ(output.format->size_bytes, output.size_bytes);
    EXPECT_NEAR(static_cast<double>(output.format->duration_us), Seconds(facts) * 1e6, 2);
    ASSERT_EQ(output.format->streamCount, 2u);
    const RQMediaStream& video = *output.format->streams[0];
    EXPECT_EQ(video.kind, RQ_STREAM_VIDEO);
    EXPECT_EQ(plugin::View(video.codec), pair.video);
    EXPECT_EQ(video.width_px, 128u);
    EXPECT_EQ(video.height_px, 72u);
    EXPECT_EQ(video.frameRateNumerator, 25u);
    EXPECT_EQ(video.frameRateDenominator, 1u);
    const RQMediaStream& audio = *output.format->streams[1];
    EXPECT_EQ(audio.kind, RQ_STREAM_AUDIO);
    EXPECT_EQ(plugin::View(audio.codec), pair.audio);
    EXPECT_EQ(audio.sampleRate_Hz, 48000u);
    EXPECT_EQ(audio.channels, 1u);

    const auto& verification = *static_cast<const RQVerification*>(Data().verifications->items[0]);
    EXPECT_EQ(plugin::View(verification.first), PathOf("clip.mp4"));
    EXPECT_EQ(plugin::View(verification.second), target);
    EXPECT_EQ(verification.has, 0u);
}

INSTANTIATE_TEST_SUITE_P(All, TranscodePairs,
                         testing::Values(Pair{"mp4", "h264", "aac"}, Pair{"mp4", "mpeg2video", "aac"},
                                         Pair{"mkv", "h264", "aac"}, Pair{"mkv", "h264", "pcm_s16le"},
                                         Pair{"mkv", "h264", "pcm_s24le"}, Pair{"mkv", "mpeg2video", "aac"},
                                         Pair{"mkv", "mpeg2video", "pcm_s16le"},
                                         Pair{"mkv", "mpeg2video", "pcm_s24le"}),
                         [](const auto& pair) {
                             return std::string(pair.param.container) + "_" + pair.param.video + "_" +
                                    pair.param.audio;
                         });

// ---- picture ----

TEST_F(TranscodePlugin, ScalesAndKeepsTheShape) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    const struct {
        const char* settings;
        const char* size;
    } cases[] = {{"<Width_px>64</Width_px>", "64x36"},
                 {"<Height_px>144</Height_px>", "256x144"},
                 {"<Width_px>80</Width_px><Height_px>80</Height_px>", "80x80"}};
    for (const auto& expected : cases) {
        const std::string target = Target("made.mp4");
        ExpectDone(TaskText(clip, target, "<Overwrite>true</Overwrite>" + Video("h264", expected.settings)));
        auto facts = Probe(target);
        EXPECT_EQ(facts["streams.stream.0.width"] + "x" + facts["streams.stream.0.height"], expected.size);
        // Shown as wide as before, however many pixels there are.
        EXPECT_EQ(facts["streams.stream.0.display_aspect_ratio"], "16:9") << expected.size;
    }
}

TEST_F(TranscodePlugin, MakesOddSidesEven) {
    const std::string clip = Make("odd.mkv", "-f lavfi -i testsrc=s=65x51:r=25:d=0.4 -c:v ffv1");
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264")));
    auto facts = Probe(Target("made.mp4"));
    EXPECT_EQ(facts["streams.stream.0.width"] + "x" + facts["streams.stream.0.height"], "66x52");
}

TEST_F(TranscodePlugin, TurnsPicturesThatWereTakenTurned) {
    Make("flat.mp4", "-f lavfi -i testsrc2=s=128x72:r=25:d=0.4 -c:v libx264 -preset ultrafast");
    const std::string clip = Make("turned.mp4", "-i flat.mp4 -c copy -metadata:s:v rotate=90");
    auto before = Probe(clip);
    ASSERT_NE(before["streams.stream.0.side_data_list.side_data.0.rotation"], "");
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264")));
    auto facts = Probe(Target("made.mp4"));
    EXPECT_EQ(facts["streams.stream.0.width"] + "x" + facts["streams.stream.0.height"], "72x128");
    EXPECT_EQ(facts["streams.stream.0.side_data_list.side_data.0.rotation"], "");
    // As another player shows it.
    const std::string shown = " -frames:v 1 -vf scale=8:8:flags=area,format=gray -f rawvideo - ";
    const std::string a = OutputOf("ffmpeg -nostdin -v error -i '" + clip + "'" + shown);
    const std::string b = OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mp4") + "'" + shown);
    ASSERT_EQ(a.size(), 64u);
    ASSERT_EQ(b.size(), 64u);
    for (std::size_t i = 0; i < a.size(); ++i)
        EXPECT_NEAR(static_cast<unsigned char>(a[i]), static_cast<unsigned char>(b[i]), 6) << i;

    // A copy keeps the turn.
    ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("copy")));
    EXPECT_NE(Probe(Target("made.mp4"))["streams.stream.0.side_data_list.side_data.0.rotation"], "");
}

TEST_F(TranscodePlugin, ChangesTheFrameRate) {
    const std::string clip = MakeClip("clip.mp4", "2", "-c:v libx264 -preset ultrafast -an");
    const struct {
        const char* rate;
        const char* words;
        const char* frames;
    } cases[] = {{"50", "50/1", "100"},
                 {"12.5", "25/2", "25"},
                 {"29.97", "30000/1001", "60"},
                 {"10", "10/1", "20"},
                 {"24000/1001", "24000/1001", "48"}};
    for (const auto& expected : cases) {
        ExpectDone(
            TaskText(clip, Target("made.mp4"),
                     "<Overwrite>true</Overwrite>" +
                         Video("h264", std::string("<FrameRate_fps>") + expected.rate + "</FrameRate_fps>")));
        auto facts = Probe(Target("made.mp4"));
        EXPECT_EQ(facts["streams.stream.0.avg_frame_rate"], expected.words);
        EXPECT_EQ(facts["streams.stream.0.nb_read_packets"], expected.frames) << expected.rate;
        EXPECT_NEAR(Seconds(facts), 2.0, 0.05);
        EXPECT_EQ(Output().frames, std::stoul(expected.frames));
        // The progress counts the source's frames, so that frames a second over its rate is the speed.
        EXPECT_EQ(m_progress.back().total, 50);
        ExpectWholeProgress();
    }
}

// ---- what is there and what is wanted ----

TEST_F(TranscodePlugin, TakesWhatTheSourceHasWhenNothingIsSaid) {
    const std::string sound = Make("sound.wav", "-f lavfi -i sine=sample_rate=44100:d=1");
    ExpectDone(TaskText(sound, Target("made.mp4")));
    auto facts = Probe(Target("made.mp4"));
    EXPECT_EQ(facts["format.nb_streams"], "1");
    EXPECT_EQ(facts["streams.stream.0.codec_name"], "aac");
    EXPECT_EQ(Output().frames, 0u);
    EXPECT_NEAR(Output().audio_ms, 1000, 30);
    ExpectWholeProgress();
    EXPECT_EQ(m_progress.back().total, 25);

    const std::string silent = MakeClip("silent.mp4", "1", "-an -c:v libx264 -preset ultrafast");
    ExpectDone(TaskText(silent, Target("made.mp4"), "<Overwrite>true</Overwrite>"));
    facts = Probe(Target("made.mp4"));
    EXPECT_EQ(facts["format.nb_streams"], "1");
    EXPECT_EQ(facts["streams.stream.0.codec_name"], "h264");
}

TEST_F(TranscodePlugin, LeavesOutWhatIsNotWanted) {
    const std::string clip = MakeClip("clip.mp4", "1");
    ExpectDone(TaskText(clip, Target("made.mkv"), Video("none") + Audio("pcm_s16le")));
    auto facts = Probe(Target("made.mkv"));
    EXPECT_EQ(facts["format.nb_streams"], "1");
    EXPECT_EQ(facts["streams.stream.0.codec_name"], "pcm_s16le");
    ExpectDone(
        TaskText(clip, Target("made.mkv"), "<Overwrite>true</Overwrite>" + Audio("none") + Video("h264")));
    facts = Probe(Target("made.mkv"));
    EXPECT_EQ(facts["format.nb_streams"], "1");
    EXPECT_EQ(facts["streams.stream.0.codec_name"], "h264");
}

TEST_F(TranscodePlugin, ACoverPictureIsNoVideo) {
    Make("cover.png", "-f lavfi -i testsrc2=s=64x64 -frames:v 1");
    const std::string song = Make(
        "song.m4a",
        "-f lavfi -i sine=d=1 -i cover.png -map 0 -map 1 -c:a aac -c:v copy -disposition:v attached_pic");
    ExpectDone(TaskText(song, Target("made.mp4")));
    EXPECT_EQ(Probe(Target("made.mp4"))["format.nb_streams"], "1");
}

TEST_F(TranscodePlugin, EncodersTakeTheirSettings) {
    const std::string clip = MakeClip("clip.mp4", "2", "-c:v libx264 -preset ultrafast -crf 5 -an");
    const auto made = [&](const std::string& video) {
        ExpectDone(TaskText(clip, Target("made.mkv"), "<Overwrite>true</Overwrite>" + video));
        return SizeOf(Target("made.mkv"));
    };
    const auto keys = [&] {
        const std::string lines =
            OutputOf("ffprobe -v error -select_streams v -show_entries packet=flags -of csv=p=0 '" +
                     Target("made.mkv") + "'");
        return std::count(lines.begin(), lines.end(), 'K');
    };
    EXPECT_GT(made(Video("h264", "<Quality>10</Quality>")), 3 * made(Video("h264", "<Quality>40</Quality>")));
    EXPECT_GT(made(Video("mpeg2video", "<Quality>2</Quality>")),
              2 * made(Video("mpeg2video", "<Quality>31</Quality>")));
    EXPECT_GT(made(Video("h264", "<BitRate_kbps>1500</BitRate_kbps>")),
              2 * made(Video("h264", "<BitRate_kbps>150</BitRate_kbps>")));
    EXPECT_GT(made(Video("mpeg2video", "<BitRate_kbps>4000</BitRate_kbps>")),
              made(Video("mpeg2video", "<BitRate_kbps>400</BitRate_kbps>")));
    made(Video("h264", "<KeyFrameInterval_frames>10</KeyFrameInterval_frames>"));
    EXPECT_EQ(keys(), 5);
    made(Video("mpeg2video", "<KeyFrameInterval_frames>5</KeyFrameInterval_frames>"));
    EXPECT_EQ(keys(), 10);
    made(Video("h264", "<Preset>medium</Preset><BFrames>2</BFrames>"));
    EXPECT_NE(Probe(Target("made.mkv"))["streams.stream.0.has_b_frames"], "0");
    made(Video("h264", "<Preset>medium</Preset><BFrames>0</BFrames>"));
    EXPECT_EQ(Probe(Target("made.mkv"))["streams.stream.0.has_b_frames"], "0");
    EXPECT_NE(made(Video("h264", "<Preset>veryslow</Preset>")),
              made(Video("h264", "<Preset>ultrafast</Preset>")));
}

TEST_F(TranscodePlugin, SoundTakesRateChannelsAndBitRate) {
    const std::string clip = Make("clip.wav", "-f lavfi -i \"aevalsrc=sin(2000*t)|cos(3000*t):s=44100:d=2\"");
    ExpectDone(TaskText(clip, Target("made.mkv"),
                        Audio("pcm_s24le", "<SampleRate_Hz>32000</SampleRate_Hz><Channels>1</Channels>")));
    auto facts = Probe(Target("made.mkv"));
    EXPECT_EQ(facts["streams.stream.0.sample_rate"], "32000");
    EXPECT_EQ(facts["streams.stream.0.channels"], "1");
    EXPECT_EQ(Output().audio_ms, 2000u);
    ExpectDone(TaskText(clip, Target("made.mkv"),
                        "<Overwrite>true</Overwrite>" + Audio("aac", "<Channels>6</Channels>")));
    facts = Probe(Target("made.mkv"));
    EXPECT_EQ(facts["streams.stream.0.channels"], "6");
    EXPECT_EQ(facts["streams.stream.0.sample_rate"], "44100");
    const auto made = [&](const std::string& rate) {
        ExpectDone(TaskText(
            clip, Target("made.mkv"),
            "<Overwrite>true</Overwrite>" + Audio("aac", "<BitRate_kbps>" + rate + "</BitRate_kbps>")));
        return SizeOf(Target("made.mkv"));
    };
    EXPECT_GT(made("256"), made("48"));
}

TEST_F(TranscodePlugin, ARateThatAacHasNotIsRefusedAndADefaultIsChosen) {
    const std::string clip = Make("clip.wav", "-f lavfi -i sine=sample_rate=192000:d=1");
    ExpectDone(TaskText(clip, Target("made.mp4")));
    EXPECT_EQ(Probe(Target("made.mp4"))["streams.stream.0.sample_rate"], "96000");
    Remove(Target("made.mp4"));
    ExpectFailure(TaskText(clip, Target("made.mp4"), Audio("aac", "<SampleRate_Hz>44000</SampleRate_Hz>")),
                  0x84100017, 0x80000203);
    EXPECT_EQ(Detail(), Target("made.mp4") + ": aac has no sample rate of 44000 Hz; the next one is 44100");
}

TEST_F(TranscodePlugin, AGapInTheSoundBecomesSilence) {
    Make("one.mkv", "-f lavfi -i \"aevalsrc=0.5:s=8000:d=1\" -c:a pcm_s16le");
    const std::string clip = Make("gap.mkv",
                                  "-f lavfi -i \"aevalsrc=0.5:s=8000:d=2,aselect='not(between(t,0.5,1.0))'\" "
                                  "-c:a pcm_s16le");
    ExpectDone(TaskText(clip, Target("made.mkv"), Audio("pcm_s16le")));
    const std::string bytes = OutputOf("ffmpeg -nostdin -v error -i '" + Target("made.mkv") + "' -f s16le -");
    EXPECT_NEAR(static_cast<double>(bytes.size()) / 16000, 2.0, 0.01);
    const auto loud = [&](double time) {
        return std::abs(static_cast<signed char>(bytes[static_cast<std::size_t>(time * 8000) * 2 + 1])) > 32;
    };
    EXPECT_TRUE(loud(0.25));
    EXPECT_FALSE(loud(0.8));
    EXPECT_TRUE(loud(1.75));
}

TEST_F(TranscodePlugin, FollowsASourceThatChangesItsForm) {
    Make("a.ts",
         "-f lavfi -i testsrc2=s=128x72:r=25:d=1 -f lavfi -i sine=sample_rate=48000:d=1 -c:v mpeg2video -c:a "
         "mp2 -ac 1");
    Make("b.ts",
         "-f lavfi -i testsrc2=s=64x64:r=25:d=1 -f lavfi -i sine=sample_rate=44100:d=1 -c:v mpeg2video -c:a "
         "mp2 -ac 2 "
         "-output_ts_offset 1");
    const std::string clip = Write("both.ts", ReadWhole(PathOf("a.ts")) + ReadWhole(PathOf("b.ts")));
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264") + Audio("aac"),
                        "<IgnoreDamage>true</IgnoreDamage>"));
    ExpectPlayable(Target("made.mp4"));
    auto facts = Probe(Target("made.mp4"));
    EXPECT_EQ(facts["streams.stream.0.width"] + "x" + facts["streams.stream.0.height"], "128x72");
    EXPECT_NEAR(std::stod(facts["streams.stream.0.nb_read_packets"]), 50, 1);
    EXPECT_NEAR(Seconds(facts), 2, 0.1);
}

// ---- progress, stop, pause, update ----

TEST_F(TranscodePlugin, ProgressWithoutAKnownLengthFollowsTheBytes) {
    // A raw stream has no times and no length.
    const std::string clip =
        Make("raw.m2v", "-f lavfi -i testsrc2=s=320x180:r=25:d=20 -c:v mpeg2video -f mpeg2video");
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>medium</Preset>")));
    ExpectWholeProgress();
    EXPECT_EQ(Output().frames, 500u);
    EXPECT_GE(m_progress.size(), 3u);
    ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("h264"),
                        "<In_s>1</In_s><Out_s>3</Out_s>"));
    EXPECT_EQ(Output().frames, 50u);
}

TEST_F(TranscodePlugin, TellsProgressOften) {
    const std::string clip = MakeClip("clip.mp4", "10");
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
    int late = 0;
    m_onProgress = [&] {
        const auto now = std::chrono::steady_clock::now();
        if (now - last > std::chrono::seconds(1)) ++late;
        last = now;
    };
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>medium</Preset>")));
    ExpectWholeProgress();
    EXPECT_EQ(late, 0);  // a suspended task is held within a second
    EXPECT_GE(m_progress.size(), 3u);
    // The last unit is not told before the target is there.
    for (std::size_t i = 0; i + 1 < m_progress.size(); ++i)
        EXPECT_LT(m_progress[i].done, m_progress[i].total);
}

// An encoder that looks far ahead holds this whole clip until the end: what then takes its time is told too.
TEST_F(TranscodePlugin, TellsProgressAndTakesACancelWhileTheEncoderEmpties) {
    const std::string clip =
        Make("clip.mkv", "-f lavfi -i testsrc2=s=640x360:r=25:d=1.6 -c:v libx264 -preset ultrafast");
    const std::string text = TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>veryslow</Preset>"));
    ExpectDone(text);
    ExpectWholeProgress();
    const auto between =
        std::count_if(m_progress.begin(), m_progress.end(),
                      [](const task::ProgressCall& call) { return call.done > 0 && call.done < call.total; });
    EXPECT_GE(between, 3);
    Remove(Target("made.mp4"));
    m_onProgress = [&] {
        if (!m_progress.empty() && m_progress.back().done > 0) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    EXPECT_EQ(Do(text), RQ_STATUS_CANCELLED);
    EXPECT_LT(m_progress.back().done, 30);
    EXPECT_TRUE(Made().empty());
}

TEST_F(TranscodePlugin, CancelLeavesNothing) {
    const std::string clip = MakeClip("clip.mp4", "20");
    m_onProgress = [&] {
        if (!m_progress.empty() && m_progress.back().done > 5) {
            EXPECT_EQ(Made().size(), 1u);  // the temporary
            RQStore32(&m_stop, RQ_STOP_CANCEL);
        }
    };
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"), Video("h264", "<Preset>medium</Preset>"))),
              RQ_STATUS_CANCELLED);
    EXPECT_TRUE(Made().empty());
    EXPECT_EQ(m_info->errorCode, 0);
    EXPECT_EQ(Count(Data().outputs), 0u);
    EXPECT_LT(m_progress.back().done, 500);
}

TEST_F(TranscodePlugin, CancelBeforeTheBeginningTouchesNothing) {
    const std::string clip = MakeClip("clip.mp4", "1");
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"))), RQ_STATUS_CANCELLED);
    EXPECT_TRUE(Made().empty());
}

TEST_F(TranscodePlugin, ACancelledOverwriteKeepsTheOldTarget) {
    const std::string clip = MakeClip("clip.mp4", "20");
    Write("out/made.mp4", "old");
    m_onProgress = [&] {
        if (!m_progress.empty() && m_progress.back().done > 5) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"),
                          "<Overwrite>true</Overwrite>" + Video("h264", "<Preset>medium</Preset>"))),
              RQ_STATUS_CANCELLED);
    EXPECT_EQ(Made(), std::vector<std::string>{"made.mp4"});
    EXPECT_EQ(ReadWhole(Target("made.mp4")), "old");
}

TEST_F(TranscodePlugin, FinishClosesAPlayableFile) {
    const std::string clip = MakeClip("clip.mp4", "20");
    for (const char* name : {"made.mp4", "made.mkv"}) {
        RQStore32(&m_stop, RQ_STOP_NONE);
        m_onProgress = [&] {
            if (!m_progress.empty() && m_progress.back().done > 60) RQStore32(&m_stop, RQ_STOP_FINISH);
        };
        EXPECT_EQ(Do(TaskText(clip, Target(name), Video("h264", "<Preset>medium</Preset>") + Audio("aac"))),
                  RQ_STATUS_FINISHED);
        EXPECT_EQ(m_info->errorCode, 0);
        EXPECT_EQ(Made(), std::vector<std::string>{name});
        ExpectPlayable(Target(name));
        const double seconds = Seconds(Probe(Target(name)));
        EXPECT_GT(seconds, 2.0);
        EXPECT_LT(seconds, 19.0);
        EXPECT_EQ(Output().frames, std::stoul(Probe(Target(name))["streams.stream.0.nb_read_packets"]));
        EXPECT_EQ(Further().substr(0, 13), "ended early: ");
        EXPECT_NEAR(std::stod(Further().substr(13)), seconds, 0.1) << Further();
        EXPECT_NE(Further().find(" s written of 20.0"), std::string::npos) << Further();
        Remove(Target(name));
    }
}

TEST_F(TranscodePlugin, FinishBeforeTheBeginningWritesNothing) {
    const std::string clip = MakeClip("clip.mp4", "1");
    RQStore32(&m_stop, RQ_STOP_FINISH);
    EXPECT_EQ(Do(TaskText(clip, Target("made.mp4"))), RQ_STATUS_FINISHED);
    EXPECT_TRUE(Made().empty());
    EXPECT_EQ(Count(Data().outputs), 0u);
    EXPECT_EQ(Further(), "ended early: nothing is written");
}

TEST_F(TranscodePlugin, AnUpdateLeavesTheRecordInUseAlone) {
    const std::string clip = MakeClip("clip.mp4", "5");
    std::int32_t updateCode = 0;
    TaskInfo* updated = nullptr;
    m_onProgress = [&] {
        if (updated != nullptr) return;
        // From another thread, as the worker does.
        std::thread([&] {
            const std::string text = TaskText(clip, Target("other.mp4"));
            updateCode = RQWorkerAnalyseTask(plugin::Borrow(text), &updated);
        }).join();
    };
    ExpectDone(TaskText(clip, Target("made.mp4"), Video("h264")));
    EXPECT_EQ(updateCode, plugin::kUpdateNotTaken);
    EXPECT_EQ(updated, m_info);
    EXPECT_EQ(Made(), std::vector<std::string>{"made.mp4"});
}

TEST_F(TranscodePlugin, OneProcessDoesManyTasks) {
    const std::string clip = MakeClip("clip.mp4", "0.4");
    for (int i = 0; i < 5; ++i)
        ExpectDone(TaskText(clip, Target("made.mp4"), "<Overwrite>true</Overwrite>" + Video("h264")));
    EXPECT_EQ(m_log.size(), 10u);  // plan and result of each
}

TEST_F(TranscodePlugin, TakesNamesAsTheyStand) {
    const std::string clip = MakeClip("新闻  联播 %03d.mp4", "0.4");
    ExpectDone(TaskText(clip, Target("结果  1.mp4"), Video("h264")));
    EXPECT_EQ(Made(), std::vector<std::string>{"结果  1.mp4"});
}

}  // namespace
}  // namespace rq::transcode

// Task texts, and the documentation's examples: each is checked with xmllint against the schema and with the
// plug-in's own reader.
#include "transcode_task.h"

#include <gtest/gtest.h>

#include "kit/os.h"
#include "plugin_common/task_documentation.h"

namespace rq::transcode {
namespace {

// The text, or what is said about one, with absolute paths as this system has them.
std::string ForThisSystem(std::string text) {
    const std::string root = kit::RootName();
    for (const std::string before : {"<Path>", "\""}) {
        const std::string path = before + "/";
        for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path, at + 1))
            text.insert(at + before.size(), root);
    }
    return text;
}

std::string ErrorOf(const std::string& text) {
    TranscodeTask task;
    task::XmlError error;
    const bool taken = ReadTranscodeTask(ForThisSystem(text), task, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

TranscodeTask TaskOf(const std::string& text) {
    TranscodeTask task;
    task::XmlError error;
    EXPECT_TRUE(ReadTranscodeTask(ForThisSystem(text), task, error)) << error.Text();
    return task;
}

std::string Text(const std::string& inTarget, const std::string& container = "mkv",
                 const std::string& inSource = "") {
    return "<TranscodeTask><ID>x</ID><Source><Path>/a</Path>" + inSource +
           "</Source>\n<Target><Path>/b</Path><Container>" + container + "</Container>\n" + inTarget +
           "</Target></TranscodeTask>";
}

TEST(TranscodeTaskText, ReadsWhatItSays) {
    const TranscodeTask task = TaskOf(
        "<TranscodeTask><Target><Audio><Channels>2</Channels><BitRate_kbps> 192 "
        "</BitRate_kbps><Codec>aac</Codec>"
        "<SampleRate_Hz>44100</SampleRate_Hz></Audio><Video><Codec>mpeg2video</Codec><Width_px>720</Width_px>"
        "<Height_px>576</Height_px><FrameRate_fps>25</FrameRate_fps><BitRate_kbps>6000</BitRate_kbps>"
        "<KeyFrameInterval_frames>12</KeyFrameInterval_frames><BFrames>2</BFrames></Video><Container>mp4</"
        "Container>"
        "<Overwrite>true</Overwrite><Path>/b  c "
        "</Path></Target><Source><Out_s>12.5</Out_s><In_s>1.000001</In_s>"
        "<IgnoreDamage>true</IgnoreDamage><Path>/a</Path></Source><ID>i d</ID></TranscodeTask>");
    EXPECT_EQ(task.id, "i d");
    EXPECT_EQ(task.source, kit::RootName() + "/a");
    EXPECT_EQ(task.in_us, 1'000'001);
    EXPECT_EQ(task.out_us, 12'500'000);
    EXPECT_TRUE(task.ignoreDamage);
    EXPECT_EQ(task.target, kit::RootName() + "/b  c ");
    EXPECT_EQ(task.container, "mp4");
    EXPECT_TRUE(task.overwrite);
    EXPECT_EQ(task.video.handling, Handling::kEncode);
    EXPECT_EQ(task.video.codec, "mpeg2video");
    EXPECT_EQ(task.video.width_px, 720);
    EXPECT_EQ(task.video.height_px, 576);
    ASSERT_TRUE(task.video.frameRate_fps);
    EXPECT_EQ(task.video.frameRate_fps->numerator, 25);
    EXPECT_EQ(task.video.frameRate_fps->denominator, 1);
    EXPECT_EQ(task.video.bitRate_kbps, 6000);
    EXPECT_FALSE(task.video.quality);
    EXPECT_EQ(task.video.keyFrameInterval_frames, 12);
    EXPECT_EQ(task.video.bFrames, 2);
    EXPECT_EQ(task.audio.handling, Handling::kEncode);
    EXPECT_EQ(task.audio.sampleRate_Hz, 44100);
    EXPECT_EQ(task.audio.channels, 2);
    EXPECT_EQ(task.audio.bitRate_kbps, 192);
}

TEST(TranscodeTaskText, LeavesOpenWhatItDoesNotSay) {
    const TranscodeTask task = TaskOf(Text(""));
    EXPECT_EQ(task.in_us, 0);
    EXPECT_FALSE(task.out_us);
    EXPECT_FALSE(task.overwrite);
    EXPECT_FALSE(task.ignoreDamage);
    EXPECT_EQ(task.video.handling, Handling::kDefault);
    EXPECT_EQ(task.video.codec, "h264");
    EXPECT_EQ(task.audio.handling, Handling::kDefault);
    EXPECT_EQ(task.audio.codec, "aac");
    EXPECT_EQ(TaskOf(Text("<Video><Codec>copy</Codec></Video>")).video.handling, Handling::kCopy);
    EXPECT_EQ(TaskOf(Text("<Audio><Codec>none</Codec></Audio>")).audio.handling, Handling::kNone);
    EXPECT_EQ(TaskOf(Text("<Audio><Codec>pcm_s24le</Codec></Audio>")).audio.codec, "pcm_s24le");
}

TEST(TranscodeTaskText, ReadsFrameRates) {
    const struct {
        const char* text;
        int numerator, denominator;
    } cases[] = {{"25", 25, 1},
                 {"29.97", 30000, 1001},
                 {"23.976", 24000, 1001},
                 {"59.94", 60000, 1001},
                 {"23.98", 24000, 1001},
                 {"30000/1001", 30000, 1001},
                 {"12.5", 25, 2},
                 {"50.0", 50, 1},
                 {"240", 240, 1},
                 {"1", 1, 1},
                 {"119.88", 120000, 1001},
                 {"25/1", 25, 1}};
    for (const auto& expected : cases) {
        const TranscodeTask task = TaskOf(Text(std::string("<Video><Codec>h264</Codec><FrameRate_fps>") +
                                               expected.text + "</FrameRate_fps></Video>"));
        EXPECT_EQ(task.video.frameRate_fps->numerator, expected.numerator) << expected.text;
        EXPECT_EQ(task.video.frameRate_fps->denominator, expected.denominator) << expected.text;
    }
    for (const char* wrong :
         {"0", "0.5", "241", "25 fps", "25/0", "-25", "1/2", "25,5", "25.", ".5", "1e3", "25/1/1", "9999999"})
        EXPECT_EQ(ErrorOf(Text(std::string("<Video><Codec>h264</Codec><FrameRate_fps>") + wrong +
                               "</FrameRate_fps></Video>")),
                  std::string("line 3: <FrameRate_fps> is \"") + wrong +
                      "\"; give frames per second between 1 and 240, as 25, 23.976 or 30000/1001");
}

TEST(TranscodeTaskText, RefusesWhatDoesNotFit) {
    const auto video = [](const std::string& more) {
        return Text("<Video><Codec>h264</Codec>" + more + "</Video>");
    };
    EXPECT_EQ(ErrorOf(video("<Width_px>15</Width_px>")),
              "line 3: <Width_px> is \"15\"; give a whole number between 16 and 8192");
    EXPECT_EQ(ErrorOf(video("<Width_px>wide</Width_px>")),
              "line 3: <Width_px> is \"wide\"; give a whole number between 16 and 8192");
    EXPECT_EQ(ErrorOf(video("<Height_px>33</Height_px>")), "line 3: <Height_px> is odd; give an even number");
    EXPECT_EQ(ErrorOf(video("<Quality>52</Quality>")),
              "line 3: <Quality> is \"52\"; give a whole number between 0 and 51");
    EXPECT_EQ(ErrorOf(video("<Preset>quick</Preset>")),
              "line 3: <Preset> is \"quick\"; give one of: ultrafast, superfast, veryfast, faster, fast, "
              "medium, slow, "
              "slower, veryslow, placebo");
    EXPECT_EQ(ErrorOf(Text("<Video/>")),
              "line 3: <Video> has no <Codec>; give one of: h264, mpeg2video, copy, none");
    EXPECT_EQ(ErrorOf(Text("<Video>copy</Video>")),
              "line 3: text in <Video>, which holds elements only: <Codec>, <Width_px>, <Height_px>, "
              "<FrameRate_fps>, "
              "<BitRate_kbps>, <Quality>, <Preset>, <KeyFrameInterval_frames>, <BFrames>");
    EXPECT_EQ(ErrorOf(Text("", "mov")), "line 2: <Container> is \"mov\"; give one of: mp4, mkv");
    EXPECT_EQ(ErrorOf(Text("<Overwrite>yes</Overwrite>")),
              "line 3: <Overwrite> is \"yes\"; give one of: true, false");
    EXPECT_EQ(ErrorOf(Text("", "mkv", "<In_s>-1</In_s>")),
              "line 1: <In_s> is \"-1\"; give seconds, as 12.5, with at most six decimals");
    EXPECT_EQ(ErrorOf(Text("<Audio><Codec>aac</Codec><Channels>9</Channels></Audio>")),
              "line 3: <Channels> is \"9\"; give a whole number between 1 and 8");
}

TEST(TranscodeTaskText, KeepsTheIdOfARefusedText) {
    TranscodeTask task;
    task::XmlError error;
    EXPECT_FALSE(ReadTranscodeTask("<TranscodeTask><ID>x</ID></TranscodeTask>", task, error));
    EXPECT_EQ(task.id, "x");
    EXPECT_EQ(error.Text(), "line 1: <TranscodeTask> has no <Source>; say what is to be transcoded");
}

// ---- the documentation ----

TEST(TranscodeDocumentation, EveryExampleIsWhatThePageSays) {
    const auto examples = task::ReadExamples(RQ_TASK_DOCS "/transcode.md");
    ASSERT_GE(examples.size(), 12u);
    for (const task::Example& example : examples) {
        EXPECT_EQ(ErrorOf(example.text), ForThisSystem(example.error)) << "block in line " << example.line;
        EXPECT_NE(example.isRefused, example.error.empty()) << "block in line " << example.line;
    }
}

TEST(TranscodeDocumentation, TheSchemaTakesEveryExampleButTheRefusedOnes) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    for (const task::Example& example : task::ReadExamples(RQ_TASK_DOCS "/transcode.md"))
        EXPECT_EQ(task::SchemaTakes("transcode.xsd", example.text), example.schemaTakes)
            << "block in line " << example.line;
}

TEST(TranscodeDocumentation, SchemaAndReaderAgree) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    const auto video = [](const std::string& more) {
        return Text("<Video><Codec>h264</Codec>" + more + "</Video>");
    };
    const auto audio = [](const std::string& more) {
        return Text("<Audio><Codec>aac</Codec>" + more + "</Audio>");
    };
    const auto plain = [](const std::string& id, const std::string& source, const std::string& target) {
        return "<TranscodeTask><ID>" + id + "</ID><Source><Path>" + source +
               "</Path></Source><Target><Path>" + target +
               "</Path><Container>mp4</Container></Target></TranscodeTask>";
    };
    const std::string withHint =
        "<TranscodeTask xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
        "xsi:noNamespaceSchemaLocation='transcode.xsd'><ID>x</ID><Source><Path>/a</Path></"
        "Source><Target><Path>/b</Path>"
        "<Container>mp4</Container></Target></TranscodeTask>";
    const std::string texts[] = {
        withHint,
        Text(""),
        Text("", " mp4\n"),
        Text("", "MP4"),
        Text("<Container>mp4</Container>"),
        Text("<Overwrite> true </Overwrite>"),
        Text("<Overwrite>1</Overwrite>"),
        Text("", "mkv", "<In_s> 1.5 </In_s>"),
        Text("", "mkv", "<In_s>1.1234567</In_s>"),
        Text("", "mkv", "<In_s>1234567</In_s>"),
        Text("", "mkv", "<In_s>1.</In_s>"),
        Text("", "mkv", "<In_s/>"),
        Text("", "mkv", "<IgnoreDamage>false</IgnoreDamage>"),
        Text("", "mkv", "<Path>/c</Path>"),
        Text("<Video/>"),
        Text("<Video><Codec>h265</Codec></Video>"),
        Text("<Video><Codec>none</Codec></Video>"),
        Text("<Video>copy</Video>"),
        Text("<Audio><Codec>mp3</Codec></Audio>"),
        Text("<Audio><Codec>pcm_s16le</Codec></Audio><Video><Codec>copy</Codec></Video>"),
        video("<Width_px>16</Width_px><Height_px>8192</Height_px>"),
        video("<Width_px>8194</Width_px>"),
        video("<Width_px>+16</Width_px>"),
        video("<Width_px>33</Width_px>"),
        video("<Width_px>0032</Width_px>"),
        video("<FrameRate_fps>25</FrameRate_fps>"),
        video("<FrameRate_fps>23.976</FrameRate_fps>"),
        video("<FrameRate_fps>30000/1001</FrameRate_fps>"),
        video("<FrameRate_fps>25.0001</FrameRate_fps>"),
        video("<FrameRate_fps>fast</FrameRate_fps>"),
        video("<BitRate_kbps>15</BitRate_kbps>"),
        video("<BitRate_kbps>500000</BitRate_kbps>"),
        video("<Quality>0</Quality>"),
        video("<Quality>-1</Quality>"),
        video("<Preset>slow</Preset>"),
        video("<Preset>Slow</Preset>"),
        video("<KeyFrameInterval_frames>1</KeyFrameInterval_frames><BFrames>16</BFrames>"),
        video("<BFrames>17</BFrames>"),
        audio("<SampleRate_Hz>8000</SampleRate_Hz><Channels>8</Channels><BitRate_kbps>2000</BitRate_kbps>"),
        audio("<SampleRate_Hz>7999</SampleRate_Hz>"),
        audio("<Channels>0</Channels>"),
        audio("<Loudness>1</Loudness>"),
        plain("x", "/a/", "/b"),
        plain("x", "/a", "b"),
        plain(" ", "/a", "/b"),
        "<Transcode/>",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("transcode.xsd", text), ErrorOf(text).empty()) << text << ErrorOf(text);
}

}  // namespace
}  // namespace rq::transcode

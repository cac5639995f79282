#include "ctl/transcode_task.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "ctl/transcode_output.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::ctl {
namespace {

TEST(TranscodeTaskXml, SaysOnlyWhatWasSaid) {
    TranscodeOptions options;
    options.source = "/片 & a.mxf";
    options.target = "/b.mp4";
    options.container = "mp4";
    EXPECT_EQ(BuildTranscodeTaskXml("job-1", options),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<TranscodeTask>\n"
              "  <ID>job-1</ID>\n"
              "  <Source><Path>/片 &amp; a.mxf</Path></Source>\n"
              "  <Target>\n"
              "    <Path>/b.mp4</Path>\n"
              "    <Container>mp4</Container>\n"
              "  </Target>\n"
              "</TranscodeTask>\n");
}

TEST(TranscodeTaskXml, SaysEverything) {
    TranscodeOptions options;
    options.source = "/a";
    options.target = "/b";
    options.container = "mkv";
    options.overwrite = true;
    options.ignoreDamage = true;
    options.in_s = "1";
    options.out_s = "2.5";
    options.video = "h264";
    options.width_px = "640";
    options.height_px = "360";
    options.frameRate_fps = "25";
    options.videoBitRate_kbps = "1000";
    options.quality = "20";
    options.preset = "fast";
    options.keyFrameInterval_frames = "50";
    options.bFrames = "2";
    options.audio = "aac";
    options.sampleRate_Hz = "48000";
    options.channels = "2";
    options.audioBitRate_kbps = "128";
    EXPECT_EQ(
        BuildTranscodeTaskXml("j", options),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<TranscodeTask>\n"
        "  <ID>j</ID>\n"
        "  "
        "<Source><Path>/a</Path><In_s>1</In_s><Out_s>2.5</Out_s><IgnoreDamage>true</IgnoreDamage></Source>\n"
        "  <Target>\n"
        "    <Path>/b</Path>\n"
        "    <Container>mkv</Container><Overwrite>true</Overwrite>\n"
        "    <Video><Codec>h264</Codec><Width_px>640</Width_px><Height_px>360</Height_px>"
        "<FrameRate_fps>25</FrameRate_fps><BitRate_kbps>1000</BitRate_kbps><Quality>20</Quality>"
        "<Preset>fast</Preset><KeyFrameInterval_frames>50</KeyFrameInterval_frames><BFrames>2</BFrames></"
        "Video>\n"
        "    <Audio><Codec>aac</Codec><SampleRate_Hz>48000</SampleRate_Hz><Channels>2</Channels>"
        "<BitRate_kbps>128</BitRate_kbps></Audio>\n"
        "  </Target>\n"
        "</TranscodeTask>\n");
}

TEST(PrepareTranscode, MakesNamesAbsoluteAndFindsTheContainer) {
    kit::TempDir folder;
    folder.Write("a.mxf", "1");
    kit::ScopedDirectory inside(folder.Path());
    TranscodeOptions options;
    options.source = "a.mxf";
    options.target = "./b.MKV";
    auto prepared = PrepareTranscode(options);
    ASSERT_TRUE(prepared) << prepared.error().message;
    EXPECT_EQ(std::filesystem::path(prepared->source).filename(), "a.mxf");
    EXPECT_TRUE(std::filesystem::path(prepared->target).is_absolute());
    EXPECT_EQ(std::filesystem::path(prepared->target).filename(), "b.MKV");
    EXPECT_EQ(prepared->container, "mkv");
    EXPECT_EQ(prepared->video, "");
    EXPECT_EQ(prepared->audio, "");

    options.target = "b.mov";
    prepared = PrepareTranscode(options);
    ASSERT_FALSE(prepared);
    EXPECT_EQ(prepared.error().message,
              "b.mov: its ending is neither mp4 nor mkv; say which with --container");
    options.container = "mp4";
    options.quality = "20";
    options.channels = "1";
    prepared = PrepareTranscode(options);
    ASSERT_TRUE(prepared);
    EXPECT_EQ(prepared->container, "mp4");
    EXPECT_EQ(prepared->video, "h264");
    EXPECT_EQ(prepared->audio, "aac");
}

TEST(PrepareTranscode, SaysWhatIsWrongWithAFile) {
    kit::TempDir folder;
    folder.Write("a.mxf", "1");
    folder.Write("there.mp4", "1");
    kit::ScopedDirectory inside(folder.Path());
    const auto errorOf = [](const std::string& source, const std::string& target, bool overwrite = false) {
        TranscodeOptions options;
        options.source = source;
        options.target = target;
        options.overwrite = overwrite;
        const auto prepared = PrepareTranscode(options);
        return prepared ? "" : prepared.error().message;
    };
    EXPECT_EQ(errorOf("missing", "b.mp4"), "missing: no such file");
    EXPECT_EQ(errorOf("a.mxf", ""), "an empty file name");
    EXPECT_EQ(errorOf("a.mxf", "no such/b.mp4"), "no such/b.mp4: its folder is not there");
    EXPECT_EQ(errorOf("a.mxf", "."), ".: is a folder; give a file in it");
    EXPECT_EQ(errorOf("a.mxf", "out/"), "out/: names a folder; give a file in it");
    const std::string longName = std::string(300, 'x') + ".mp4";
    EXPECT_EQ(errorOf("a.mxf", longName).find("exists already"), std::string::npos)
        << errorOf("a.mxf", longName);
    // Windows takes it for one that is not there yet.
    if (kit::RootName().empty()) {
        EXPECT_EQ(errorOf("a.mxf", longName).rfind(longName + ": ", 0), 0u);
    }
    const bool isWindows = !kit::RootName().empty();
    EXPECT_EQ(errorOf("a.mxf", "con.mp4"),
              isWindows ? "con.mp4: Windows keeps the name CON for a device" : "");
    EXPECT_EQ(errorOf("a.mxf", "b.mp4. "),
              isWindows ? "b.mp4. : Windows drops the dot or blank at the end of the name"
                        : "b.mp4. : its ending is neither mp4 nor mkv; say which with --container");
    EXPECT_EQ(errorOf("a.mxf", "there.mp4"), "there.mp4: exists already; --overwrite replaces it");
    EXPECT_EQ(errorOf("a.mxf", "there.mp4", true), "");
    EXPECT_EQ(errorOf("a.mxf", folder.Utf8(""), true).substr(folder.Utf8("").size()),
              ": is a folder; give a file in it");
}

TEST(ReportTranscode, HasALineForEachFile) {
    using nlohmann::json;
    const json result = {
        {"kind", "transcode"},
        {"verifications", json::array()},
        {"outputs",
         {{{"first", "/b.mp4"},
           {"second", "mp4"},
           {"value1", 250u},
           {"value2", 10005u},
           {"value64", 1258291u}},
          {{"first", "/c.mkv"}, {"second", "mkv"}, {"value1", 0u}, {"value2", 500u}, {"value64", 10u}}}}};
    EXPECT_EQ(ReportTranscode(result),
              "/b.mp4: mp4, 250 frames, 10.0 s of sound, 1.2 MiB\n"
              "/c.mkv: mkv, 0.5 s of sound, 0.0 MiB\n");
    EXPECT_EQ(ReportTranscode(json()), "");
    EXPECT_EQ(ReportTranscode({{"kind", "md5"}}), "");
}

}  // namespace
}  // namespace rq::ctl

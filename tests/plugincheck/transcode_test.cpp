#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kit/child.h"
#include "kit/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::Not;

TEST(PluginCheck, PassesTheTranscodePlugin) {
    const rq::kit::TempDir folder;
    rq::kit::Child ffmpeg(
        RQ_FFMPEG_COMMAND,
        {"-nostdin", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=160x120:rate=25", "-f", "lavfi", "-i",
         "sine", "-t", "1", "-c:v", "mpeg2video", "-c:a", "mp2", folder.Utf8("clip.mkv")});
    ASSERT_EQ(ffmpeg.ExitCode(), 0) << ffmpeg.Errors();
    folder.Write("task.xml", "<TranscodeTask><ID>check</ID><Source><Path>" + folder.Utf8("clip.mkv") +
                                 "</Path></Source><Target><Path>" + folder.Utf8("made.mp4") +
                                 "</Path><Container>mp4</Container><Overwrite>true</Overwrite></Target>"
                                 "</TranscodeTask>");
    rq::kit::Child check(RQ_PROGRAM, {RQ_TRANSCODE_PLUGIN, "--task", folder.Utf8("task.xml"), "--tasks", "12",
                                      "--time", "120"});
    EXPECT_EQ(check.ExitCode(std::chrono::minutes(3)), 0) << check.Output() << check.Errors();
    EXPECT_THAT(check.Output(), HasSubstr("\nnot checked: memory-growth, handles-left\n"));
    EXPECT_THAT(check.Output(), HasSubstr("\npassed: "));
    EXPECT_THAT(check.Output(), Not(HasSubstr("cancelled each time")));
}

}  // namespace

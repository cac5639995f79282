// Transcode tasks through the real programs: what the engine's API tells, and what orders on the link do.
// Clips are made with the ffmpeg command.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "base/paths.h"
#include "kit/os.h"
#include "kit/scripted_engine.h"
#include "node.h"
#include "records/engine_messages.h"
#include "records/task_results.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

void Make(const fs::path& path, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-nostdin", "-v", "error", "-y"});
    arguments.push_back(Utf8FromPath(path));
    kit::Child ffmpeg(RQ_FFMPEG_COMMAND, arguments);
    EXPECT_EQ(ffmpeg.ExitCode(), 0) << ffmpeg.Errors();
}

// Pictures at 25 a second, and a tone.
fs::path MakeClip(const kit::TempDir& folder, const std::string& size, const std::string& seconds) {
    const fs::path clip = folder.Path() / PathFromUtf8("片段 1.mkv");
    Make(clip,
         {"-f", "lavfi", "-i", "testsrc2=r=25:s=" + size + ":d=" + seconds, "-f", "lavfi", "-i",
          "sine=sample_rate=48000:d=" + seconds, "-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac"});
    return clip;
}

std::string TaskText(const fs::path& source, const fs::path& target, const std::string& more) {
    return "<TranscodeTask><ID>job 1</ID><Source><Path>" + Utf8FromPath(source) +
           "</Path></Source><Target><Path>" + Utf8FromPath(target) + "</Path><Container>mp4</Container>" +
           more + "</Target></TranscodeTask>";
}

std::string Video(const std::string& preset) {
    return "<Video><Codec>h264</Codec><Preset>" + preset + "</Preset></Video>";
}

// The figures of each efficiency line in the worker's log: percent, frames a second, times real time.
struct Figures {
    double percent, frames_per_s, speed;
};
std::vector<Figures> EfficiencyLines(const std::string& log) {
    static const std::regex form(
        "Efficiency: Percent:([0-9.]+) % , AverageSpeed:([0-9.]+) frame/s, TimeSpeed:([0-9.]+)\\.");
    std::vector<Figures> lines;
    for (std::sregex_iterator i(log.begin(), log.end(), form), end; i != end; ++i)
        lines.push_back({std::stod((*i)[1]), std::stod((*i)[2]), std::stod((*i)[3])});
    return lines;
}

// Figures that belong together: 25 units are a second of media, and no more were done than there are. On a
// busy machine the first line may come before the first frame.
void ExpectPlausible(const std::vector<Figures>& lines) {
    ASSERT_FALSE(lines.empty());
    EXPECT_GT(lines.back().percent, 0);
    EXPECT_GT(lines.back().frames_per_s, 0);
    for (const Figures& line : lines) {
        EXPECT_LE(line.percent, 100);
        EXPECT_NEAR(line.speed, line.frames_per_s / 25, 0.006);
    }
}

TEST(TranscodeTasks, ResultAndFiguresReachTheApi) {
    kit::TempDir folder;
    const fs::path clip = MakeClip(folder, "640x360", "10");
    const fs::path target = folder.Path() / "结果 1.mp4";
    Node node;
    const std::string task = node.SubmitText("tc", TaskText(clip, target, Video("slower")));
    const auto record = node.WaitForEnd(task);
    ASSERT_EQ(record["state"], "finished") << record.dump(2);
    EXPECT_EQ(record["type_code"], "tc");
    EXPECT_GT(record["average_speed"].get<double>(), 0);
    const auto& result = record["result"];
    EXPECT_EQ(result["kind"], "transcode");
    ASSERT_EQ(result["verifications"].size(), 1u);
    EXPECT_EQ(result["verifications"][0]["first"], Utf8FromPath(clip));
    EXPECT_EQ(result["verifications"][0]["second"], Utf8FromPath(target));
    ASSERT_EQ(result["outputs"].size(), 1u);
    const auto& output = result["outputs"][0];
    EXPECT_EQ(output["first"], Utf8FromPath(target));
    EXPECT_EQ(output["second"], "mp4");
    EXPECT_EQ(output["value1"], 250);
    EXPECT_NEAR(output["value2"].get<double>(), 10'000, 50);
    EXPECT_EQ(output["value64"].get<std::uintmax_t>(), fs::file_size(target));
    const std::string format = output["format_xml"];
    for (const char* part : {"mp4", "h264", "aac", "640", "360", "48000"})
        EXPECT_NE(format.find(part), std::string::npos) << part << " is not in " << format;
    ExpectPlausible(EfficiencyLines(node.WorkerLog()));
}

TEST(TranscodeTasks, SoundAloneHasASpeedToo) {
    kit::TempDir folder;
    const fs::path clip = folder.Path() / "sound.wav";
    Make(clip, {"-f", "lavfi", "-i", "anoisesrc=d=250:r=48000:a=0.1", "-ac", "2"});
    Node node;
    const auto record =
        node.WaitForEnd(node.SubmitText("tc", TaskText(clip, folder.Path() / "sound.mp4", "")));
    ASSERT_EQ(record["state"], "finished") << record.dump(2);
    EXPECT_NEAR(record["result"]["outputs"][0]["value2"].get<double>(), 250'000, 50);
    ExpectPlausible(EfficiencyLines(node.WorkerLog()));
}

TEST(TranscodeTasks, CancelLeavesNothing) {
    kit::TempDir folder;
    const fs::path clip = MakeClip(folder, "1280x720", "8");
    const fs::path out = folder.Path() / "out";
    fs::create_directory(out);
    Node node;
    const std::string task = node.SubmitText("tc", TaskText(clip, out / "made.mp4", Video("placebo")));
    node.WaitForState(task, {"running"});
    // The temporary.
    EXPECT_TRUE(kit::WaitUntil([&] { return !fs::is_empty(out); }));
    EXPECT_EQ(node.Ctl({"cancel", task}).code, 0);
    const auto record = node.WaitForEnd(task);
    EXPECT_EQ(record["state"], "cancelled");
    EXPECT_EQ(record["status"], 5);
    EXPECT_TRUE(record["result"].is_null());
    EXPECT_TRUE(fs::is_empty(out));
}

TEST(TranscodeTasks, ARefusedTextGivesItsLine) {
    Node node;
    const auto record = node.WaitForEnd(
        node.SubmitText("tc", "<TranscodeTask>\n<ID>job 1</ID>\n<Source><Path>" + kit::RootName() +
                                  "/a.mxf</Path></Source>\n<Target>\n<Path>" + kit::RootName() +
                                  "/b.mp4</Path><Container>avi</Container></Target></TranscodeTask>"));
    EXPECT_EQ(record["state"], "failed");
    const std::string line = "line 5: <Container> is \"avi\"; give one of: mp4, mkv";
    EXPECT_EQ(record["attempt_list"][0]["further_text"], line);
    EXPECT_NE(record["reason"].get<std::string>().find(line), std::string::npos) << record["reason"];
}

TEST(TranscodeTasks, AFailureTellsCodesAndWords) {
    kit::TempDir folder;
    const fs::path source = folder.Write("empty.mp4", "");
    Node node;
    const auto record =
        node.WaitForEnd(node.SubmitText("tc", TaskText(source, folder.Path() / "made.mp4", "")));
    EXPECT_EQ(record["state"], "failed");
    EXPECT_EQ(record["status"], 4);
    const auto& attempt = record["attempt_list"][0];
    EXPECT_EQ(attempt["error"]["code"], 0x84100014u);
    EXPECT_EQ(attempt["detail_error"]["code"], 0x80000102u);
    EXPECT_EQ(attempt["further_text"], Utf8FromPath(source) + ": the file is empty");
}

// The engine has no orders to suspend and to finish, so the test speaks to the worker itself.
TEST(TranscodeOrders, SuspendResumeAndFinish) {
    kit::TempDir folder;
    const fs::path clip = MakeClip(folder, "640x360", "40");
    const fs::path target = folder.Path() / "made.mp4";
    const fs::path stage = folder.Path() / "stage";
    kit::CopyStage(stage);
    kit::ReplaceElementText(stage / "actor.xml", "ProgressReportInterval", "1");
    kit::ScriptedEngine engine;
    kit::Child::Options options;
    options.environment = {{"RQ_LOG_DIR", Utf8FromPath(folder.Path() / "logs")}};
    options.directory = stage;
    const fs::path text = folder.Write("task.xml", TaskText(clip, target, Video("slower")));
    kit::Child worker(kit::ProgramIn(stage, "RQWorkerU"),
                      {"tc", Utf8FromPath(text), std::to_string(engine.Port()), "1"}, options);
    const auto percent = [&] {
        double most = 0;
        for (const link::WorkerRecord& record : engine.Records(TCP_WORKER_PROGRESS_ID))
            for (const ProgressEntry& entry : std::get<EngineProgressMessage>(record).entries)
                most = std::max<double>(most, entry.percent);
        return most;
    };
    ASSERT_TRUE(kit::WaitUntil([&] { return percent() > 0; }));
    engine.SendOrder(TCP_TASK_SUSPEND_ID, TaskCommand{});
    ASSERT_TRUE(engine.WaitForFrame(TCP_TASK_SUSPEND_REPLY_ID));
    // What was under way when the order came is still told; then the percentage stands, which is told each
    // second.
    double suspended = 0;
    ASSERT_TRUE(kit::WaitUntil([&] {
        suspended = percent();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        return percent() == suspended;
    }));
    EXPECT_LT(suspended, 100);
    EXPECT_FALSE(fs::exists(target));
    engine.SendOrder(TCP_TASK_RESUME_ID, TaskCommand{});
    ASSERT_TRUE(kit::WaitUntil([&] { return percent() > suspended; }));
    engine.SendOrder(TCP_TASK_FINISH_ID, TaskCommand{});
    std::shared_ptr<const TaskStatusEntry> final;
    ASSERT_TRUE(kit::WaitUntil([&] {
        for (const link::WorkerRecord& record : engine.Records(TCP_WORKER_STATE_ID))
            for (const TaskStatusEntry& entry : std::get<EngineStateMessage>(record).entries)
                if (entry.status != 3 && entry.status != 7) final = std::make_shared<TaskStatusEntry>(entry);
        return final != nullptr;
    }));
    EXPECT_EQ(final->status, 0u);
    EXPECT_EQ(final->furtherText.substr(0, 13), "ended early: ") << final->furtherText;
    EXPECT_NE(final->furtherText.find(" s written of 40.0"), std::string::npos) << final->furtherText;
    const auto result = std::dynamic_pointer_cast<const stTranscodeTaskResult>(final->result);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->outputs.size(), 1u);
    EXPECT_GT(result->outputs[0].value1, 0u);
    EXPECT_LT(result->outputs[0].value1, 1000u);
    EXPECT_TRUE(fs::exists(target));
    engine.SendOrder(TCP_WORKER_DESTROY_ID, link::DestroyOrder{});
    EXPECT_EQ(worker.ExitCode(), 0);
}

}  // namespace
}  // namespace rq::system_test

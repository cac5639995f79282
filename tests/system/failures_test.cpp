// What an operator sees when something is wrong.
#include <gtest/gtest.h>

#include <fstream>

#include "base/paths.h"
#include "by_hand.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

// Large enough that a task on it is still running whenever a test looks; it takes no space.
fs::path EndlessFile(const kit::TempDir& folder) {
    return MakeSparse(folder.Path() / "endless", 1ull << 40);
}

TEST(Failures, MissingFileIsRefusedBeforeSubmission) {
    Node node;
    const Outcome outcome = node.Ctl({"submit", "md5", kit::RootName() + "/nowhere/at/all.mxf"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_NE(outcome.errors.find("/nowhere/at/all.mxf"), std::string::npos) << outcome.errors;
}

TEST(Failures, FileThatVanishedFailsTheTask) {
    Node node;
    const auto record =
        node.WaitForEnd(node.SubmitText("mc", "<MD5Task><ID>gone</ID><Files><File><Path>" + kit::RootName() +
                                                  "/nowhere/at/all.mxf</Path></File></Files></MD5Task>"));
    EXPECT_EQ(record["state"], "failed");
    EXPECT_EQ(record["status"], 4);
    const auto& attempt = record["attempt_list"][0];
    EXPECT_NE(attempt["detail_error"]["code"], 0);
    EXPECT_NE(attempt["detail_error"]["text"].get<std::string>().find("/nowhere/at/all.mxf"),
              std::string::npos);
}

TEST(Failures, TextThatIsNoXml) {
    Node node;
    const auto record = node.WaitForEnd(node.SubmitText("mc", "this is no task"));
    EXPECT_EQ(record["state"], "failed");
    const auto& attempt = record["attempt_list"][0];
    EXPECT_EQ(attempt["error"]["code"], 0xFFFFFFFBu);
    EXPECT_EQ(attempt["error"]["text"], "任务文本被拒绝 (the task text is refused)");
    EXPECT_EQ(attempt["detail_error"]["text"], "Analyze Task Info Failed!");
    EXPECT_EQ(attempt["further_text"], "line 1: not well-formed XML: syntax error");
    EXPECT_EQ(record["reason"],
              "任务文本被拒绝 (the task text is refused): Analyze Task Info Failed!: line 1: not well-formed "
              "XML: syntax error");
    EXPECT_TRUE(kit::WaitUntil([&] {
        return node.WorkerLog().find("AnalyseTask failed. taskInfo:this is no task") != std::string::npos;
    }));
    // The plug-in says what is wrong with the text, and where.
    EXPECT_NE(node.WorkerLog().find("line 1"), std::string::npos) << node.WorkerLog();
}

TEST(Failures, CancelEndsARunningTask) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(EndlessFile(folder));
    node.WaitForState(task, {"running"});
    const Outcome cancel = node.Ctl({"cancel", task});
    EXPECT_EQ(cancel.code, 0) << cancel.errors;
    const auto record = node.WaitForEnd(task);
    EXPECT_EQ(record["state"], "cancelled");
    EXPECT_EQ(record["status"], 5);
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(pid); }));
}

TEST(Failures, ProgressReachesTheEngine) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(MakeSparse(folder.Path() / "long", 8ull << 30));
    EXPECT_TRUE(kit::WaitUntil([&] {
        const auto record = node.Show(task);
        return record["percent"].is_number() && record["percent"].get<double>() > 0 &&
               record["percent"].get<double>() < 100;
    }));
    EXPECT_EQ(node.Ctl({"cancel", task}).code, 0);
    EXPECT_EQ(node.WaitForEnd(task)["state"], "cancelled");
}

TEST(Failures, WorkerEndsWhenTheEngineIsKilled) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(EndlessFile(folder));
    const auto record = node.WaitForState(task, {"running"});
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    ASSERT_TRUE(platform::ProcessRuns(pid));
    kit::EndProcess(node.Engine().Id());
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(pid); }));
    EXPECT_NE(node.WorkerLog().find("Worker will be cancel!!!! Because Socket Server is Disconnect."),
              std::string::npos)
        << node.WorkerLog();
}

// What its plug-in started, and that left behind: nobody but the engine (and on Windows the system) knows of
// it.
TEST(Failures, NothingThatAWorkerStartedOutlivesItWhenItIsKilled) {
    Node node;
    const fs::path folder = UseScriptedPlugin(node);
    const std::string task = node.SubmitText("mc", LeavesAProcessAndHangs());
    ASSERT_TRUE(kit::WaitForText(folder / "left.pid", "\n")) << node.WorkerLog();
    const std::uint64_t left = std::stoull(kit::ReadBytes(folder / "left.pid"));
    EXPECT_TRUE(platform::ProcessRuns(left));
    const auto record = node.WaitForState(task, {"running"});
    kit::EndProcess(record["attempt_list"][0]["pid"].get<std::uint64_t>());
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(left); }));
    EXPECT_EQ(node.WaitForEnd(task)["state"], "lost");
}

TEST(Failures, KilledWorkerIsInTheTasksRecord) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(EndlessFile(folder));
    const auto record = node.WaitForState(task, {"running"});
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    kit::EndProcess(pid);
    const auto after = node.WaitForEnd(task);
    EXPECT_EQ(after["state"], "lost");
    EXPECT_NE(after["reason"].get<std::string>().find(kit::KilledWords()), std::string::npos)
        << after["reason"];
    EXPECT_EQ(after["attempt_list"][0]["state"], "lost");
    const char* kind = platform::kKilledExitCode == 9 ? "signal" : "code";
    EXPECT_EQ(after["attempt_list"][0]["exit"][kind], platform::kKilledExitCode);
}

TEST(Failures, OrderlyEndOfTheEngineLeavesNoWorker) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(EndlessFile(folder));
    const auto record = node.WaitForState(task, {"running"});
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    EXPECT_EQ(node.EndEngine(), 0);
    EXPECT_FALSE(platform::ProcessRuns(pid));
    node.StartEngine();
    EXPECT_EQ(node.Show(task)["state"], "cancelled");
}

TEST(Failures, WrongTokenOfRqctl) {
    Node node;
    std::ofstream(node.Data() / "engine.token") << std::string(64, '0') << "\n";
    const Outcome outcome = node.Ctl({"list"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_NE(outcome.errors.find("token"), std::string::npos) << outcome.errors;
}

TEST(Failures, NoEngine) {
    Node node(false);
    const Outcome outcome = node.Ctl({"list"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_NE(outcome.errors.find("rqengine"), std::string::npos) << outcome.errors;
}

TEST(Failures, EmptyDataFolderIsRefused) {
    Node node(false);
    kit::Child engine(kit::ProgramIn(node.Stage(), "rqengine"),
                      {"--data", "", "--port", "0", "--http-port", "0"});
    EXPECT_EQ(engine.ExitCode(), 2);
    EXPECT_NE(engine.Errors().find("--data"), std::string::npos) << engine.Errors();
}

TEST(Failures, ATextThatIsLargerThanATaskMayBeIsRefused) {
    Node node;
    kit::TempDir folder;
    folder.Write("text", std::string(16u * 1024 * 1024 + 1, 'a'));
    folder.Write("grows", std::string(3u * 1024 * 1024, '\x01'));  // six bytes each in JSON
    for (const char* name : {"text", "grows"}) {
        const Outcome outcome = node.Ctl({"submit", "--type", "mc", "--text", folder.Utf8(name)});
        EXPECT_EQ(outcome.code, 2) << name;
        EXPECT_NE(outcome.errors.find("a task may have 16 MiB"), std::string::npos) << outcome.errors;
    }
}

TEST(Failures, SecondEngineOnTheSameDataIsRefused) {
    Node node;
    kit::Child second(kit::ProgramIn(node.Stage(), "rqengine"),
                      {"--data", Utf8FromPath(node.Data()), "--port", "0", "--http-port", "0"});
    EXPECT_NE(second.ExitCode(), 0);
    EXPECT_NE((second.Output() + second.Errors()).find(Utf8FromPath(node.Data())), std::string::npos);
    EXPECT_EQ(node.Ctl({"list"}).code, 0);
}

}  // namespace
}  // namespace rq::system_test

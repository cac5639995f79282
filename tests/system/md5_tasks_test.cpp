// MD5 tasks from the command line of rqctl to the values that the engine received.
#include <gtest/gtest.h>

#include <algorithm>

#include "base/paths.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

// Submits the file, waits, and compares the value in the result with one computed here.
void ExpectMd5(const fs::path& file) {
    Node node;
    const Outcome outcome = node.Ctl({"submit", "md5", "--watch", Utf8FromPath(file)});
    EXPECT_EQ(outcome.code, 0) << outcome.output << outcome.errors;
    EXPECT_NE(outcome.output.find(kit::ReferenceMd5(file) + "  " + Utf8FromPath(file) + "\n"),
              std::string::npos)
        << outcome.output << outcome.errors;
}

TEST(Md5Tasks, EmptyFile) {
    kit::TempDir folder;
    ExpectMd5(folder.Write("empty", ""));
}

TEST(Md5Tasks, OneByte) {
    kit::TempDir folder;
    ExpectMd5(folder.Write("one", "x"));
}

// The plug-in reads 1 MiB at a time.
TEST(Md5Tasks, ExactlyOneBuffer) {
    kit::TempDir folder;
    ExpectMd5(folder.Write("buffer", std::string(1 << 20, '\x5a')));
}

TEST(Md5Tasks, SparseFileOf300MB) {
    kit::TempDir folder;
    ExpectMd5(MakeSparse(folder.Path() / "sparse", 300'000'000));
}

TEST(Md5Tasks, ChineseNameWithBlanks) {
    kit::TempDir folder;
    ExpectMd5(folder.Write("新闻 联播 第1期.mxf", "内容"));
}

TEST(Md5Tasks, SeveralFilesKeepTheirOrder) {
    kit::TempDir folder;
    const fs::path a = folder.Write("b", "second letter");
    const fs::path b = folder.Write("a", "first letter");
    Node node;
    const Outcome outcome = node.Ctl({"submit", "md5", "--watch", Utf8FromPath(a), Utf8FromPath(b)});
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    const auto first = outcome.output.find(kit::ReferenceMd5(a) + "  " + Utf8FromPath(a));
    const auto second = outcome.output.find(kit::ReferenceMd5(b) + "  " + Utf8FromPath(b));
    ASSERT_NE(first, std::string::npos) << outcome.output;
    ASSERT_NE(second, std::string::npos) << outcome.output;
    EXPECT_LT(first, second);
}

// A folder with a checksum file of it, then what the checksum file says of a folder in which a file has
// changed.
TEST(Md5Tasks, FolderAndItsChecksumFile) {
    kit::TempDir folder;
    const fs::path a = folder.Write("media/a", "first").make_preferred();
    const fs::path b = folder.Write("media/sub/片 b", "second").make_preferred();
    const std::string media = folder.Utf8("media"), sums = folder.Utf8("sums.md5");
    Node node;
    const Outcome made = node.Ctl({"submit", "md5", "--watch", "--threads", "2", "--write", sums, media});
    EXPECT_EQ(made.code, 0) << made.output << made.errors;
    for (const fs::path& file : {a, b})
        EXPECT_NE(made.output.find(kit::ReferenceMd5(file) + "  " + Utf8FromPath(file) + "\n"),
                  std::string::npos)
            << made.output;
    EXPECT_EQ(kit::ReadBytes(folder.Path() / "sums.md5"),
              kit::ReferenceMd5(a) + "  media/a\n" + kit::ReferenceMd5(b) + "  media/sub/片 b\n");
    EXPECT_EQ(node.Ctl({"submit", "md5", "--watch", "--check", sums}).code, 0);
    folder.Write("media/a", "fiRst");
    const Outcome checked = node.Ctl({"submit", "md5", "--watch", "--check", sums});
    EXPECT_NE(checked.code, 0);
    EXPECT_NE(checked.output.find(Utf8FromPath(a) + ": FAILED\n"), std::string::npos) << checked.output;
    EXPECT_NE(checked.output.find(Utf8FromPath(b) + ": OK\n"), std::string::npos) << checked.output;
}

TEST(Md5Tasks, ThreadsAreTheCoresThatATaskDeclares) {
    kit::TempDir folder;
    const std::string file = Utf8FromPath(folder.Write("file", "bytes"));
    Node node;
    EXPECT_EQ(node.Ctl({"submit", "md5", "--wait", "--cores", "2", file}).code, 0);
    EXPECT_EQ(node.Ctl({"submit", "md5", "--wait", "--cores", "2", "--threads", "3", file}).code, 0);
    EXPECT_NE(node.Show("t1")["text"].get<std::string>().find("<Threads>2</Threads>"), std::string::npos);
    EXPECT_NE(node.Show("t2")["text"].get<std::string>().find("<Threads>3</Threads>"), std::string::npos);
}

TEST(Md5Tasks, OptionsThatDoNotGoTogetherAreRefused) {
    kit::TempDir folder;
    const std::string file = Utf8FromPath(folder.Write("file", "bytes"));
    const std::string sums = folder.Utf8("sums");
    Node node;
    const std::vector<std::vector<std::string>> cases = {{file, "--check", file},
                                                         {"--write", sums, "--check", file},
                                                         {file, "--overwrite"},
                                                         {file, "--write", file},
                                                         {file, "--threads", "0"},
                                                         {},
                                                         {folder.Utf8(), "--expect", std::string(32, 'a')}};
    for (std::vector<std::string> arguments : cases) {
        arguments.insert(arguments.begin(), {"submit", "md5"});
        const Outcome outcome = node.Ctl(arguments);
        EXPECT_EQ(outcome.code, 2) << outcome.output << outcome.errors;
        EXPECT_FALSE(outcome.errors.empty());
    }
    EXPECT_FALSE(fs::exists(folder.Path() / "sums"));
}

TEST(Md5Tasks, RecordHoldsWhatHappened) {
    kit::TempDir folder;
    const fs::path file = folder.Write("file", "bytes");
    Node node;
    const std::string task = node.SubmitMd5(file);
    const auto record = node.WaitForEnd(task);
    EXPECT_EQ(record["state"], "finished");
    EXPECT_EQ(record["status"], 0);
    EXPECT_EQ(record["type"], 3);
    ASSERT_EQ(record["attempt_list"].size(), 1u);
    const auto& attempt = record["attempt_list"][0];
    EXPECT_EQ(attempt["status"], 0);
    EXPECT_EQ(attempt["detail_error"]["code"], 0);
    // The text of code 0 is looked up too.
    EXPECT_EQ(attempt["error"]["text"], "KWR_OVL_ERROR_0");
    EXPECT_EQ(attempt["worker_guid"].get<std::string>().size(), 36u);
    ASSERT_EQ(record["result"]["kind"], "md5");
    const auto& entry = record["result"]["files"][0];
    EXPECT_EQ(entry["mode"], "computation");
    EXPECT_EQ(entry["first"], Utf8FromPath(file));
    EXPECT_EQ(entry["computed_md5"], kit::ReferenceMd5(file));
    EXPECT_EQ(entry["verification"], "not-compared");
}

// The worker of a finished task is told to exit; nothing of it stays.
TEST(Md5Tasks, NothingStaysBehind) {
    kit::TempDir folder;
    Node node;
    const std::string task = node.SubmitMd5(folder.Write("file", "bytes"));
    const auto record = node.WaitForEnd(task);
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    EXPECT_TRUE(kit::WaitUntil([&] { return !node.Show(task)["attempt_list"][0]["exit"].is_null(); }));
    EXPECT_EQ(node.Show(task)["attempt_list"][0]["exit"]["code"], 0);
    EXPECT_FALSE(platform::ProcessRuns(pid));
    // The private file with the task text is gone.
    EXPECT_TRUE(fs::is_empty(node.Data() / "params"));
    EXPECT_EQ(node.EndEngine(), 0);
}

TEST(Md5Tasks, WorkerLogTellsTheRun) {
    kit::TempDir folder;
    Node node;
    node.WaitForEnd(node.SubmitMd5(folder.Write("file", "bytes")));
    EXPECT_TRUE(
        kit::WaitUntil([&] { return node.WorkerLog().find("RQWorker is destroyed") != std::string::npos; }));
    const std::string log = node.WorkerLog();
    std::size_t at = 0;
    for (const char* line :
         {"RQWorkerU.exe Version:1.13.0.0 build20170531",
          "==>Worker Begin Load CrashDump.dll",
          "==>Worker End Load CrashDump.dll",
          "==>Worker Begin DoWork",
          "==>Worker Begin init..",
          "====> Change Work Path to [",
          "m_workerPlugin.pInitFunc begin..",
          "m_workerPlugin.pInitFunc end..",
          "Worker Init. PID:",
          "Prepare work begin..",
          "AnalysTask Begin! TaskStr: ",
          "SendMSG: TCP_WORKER_SEND_ID. TaskID:[",
          "Prepare work end. TaskID:[",
          "Start do work..",
          "m_workerPlugin.pPerformTaskFunc begin..",
          "m_workerPlugin.pPerformTaskFunc end..",
          "Status=Finished, SendMSG.",
          "Stop progress thread begin..",
          "End do work. Status=[0].",
          "WorkerBase Release begin..",
          "m_workerPlugin.pReleaseFunc begin..",
          "m_workerPlugin.pReleaseFunc end..",
          "WorkerBase Release end..",
          "RQWorker is destroyed............................................................."}) {
        const auto found = log.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing, or out of order: " << line << "\n" << log;
        at = found;
    }
}

TEST(Md5Tasks, VerificationTellsEqualFromDifferent) {
    kit::TempDir folder;
    const fs::path file = folder.Write("file", "bytes");
    Node node;
    const auto Text = [&](const std::string& md5) {
        return "<MD5Task><ID>v</ID><Files><File><Path>" + Utf8FromPath(file) + "</Path><MD5>" + md5 +
               "</MD5></File></Files></MD5Task>";
    };
    const auto good = node.WaitForEnd(node.SubmitText("mv", Text(kit::ReferenceMd5(file))));
    EXPECT_EQ(good["state"], "finished");
    EXPECT_EQ(good["result"]["files"][0]["verification"], "equal");
    const auto bad = node.WaitForEnd(node.SubmitText("mv", Text(std::string(32, 'a'))));
    EXPECT_EQ(bad["state"], "failed");
    EXPECT_EQ(bad["result"]["files"][0]["verification"], "different");
    const auto& error = bad["attempt_list"].back()["error"];
    EXPECT_EQ(error["code"], 7);
}

}  // namespace
}  // namespace rq::system_test

// The worker started from a command line, without an engine's help.
#include <gtest/gtest.h>

#include "base/paths.h"
#include "by_hand.h"
#include "node.h"
#include "platform/codepage.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

std::string Gbk(const char* utf8) {
    return platform::Utf8ToGbk(utf8);
}

std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

// With four arguments the second is a file that holds the task text, and names the log.
TEST(WorkerByHand, RunsATaskAndAppearsInTheList) {
    kit::TempDir folder;
    const fs::path file = folder.Write("文件", "bytes");
    Node node;
    const fs::path parameters = folder.Write("job42.part1.xml", Md5TaskText(file));
    auto worker = StartWorkerByHand(
        node, {"mc", Utf8FromPath(parameters), std::to_string(node.LinkPort()), "1"}, node.Token());
    EXPECT_EQ(worker->ExitCode(), 0);
    const std::string output = worker->Output();
    EXPECT_EQ(output.find("argc:\n5Type:\n0x"), 0u) << output;
    EXPECT_NE(output.find("sessionID="), std::string::npos) << output;
    EXPECT_NE(output.find("emStatus=3\n"), std::string::npos) << output;
    EXPECT_NE(output.find("emStatus=0\n"), std::string::npos) << output;
    EXPECT_NE(output.find("Received task type: 4014\n"), std::string::npos) << output;
    const auto list = nlohmann::json::parse(node.Ctl({"list", "--json"}).output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["origin"], "external");
    EXPECT_EQ(list[0]["state"], "finished");
    const auto record = node.Show(list[0]["id"]);
    EXPECT_EQ(record["result"]["files"][0]["computed_md5"], kit::ReferenceMd5(file));
    const auto logs = kit::FindFiles(node.Folder().Path() / "logs", ".log");
    std::vector<std::string> names;
    for (const auto& log : logs) names.push_back(Utf8FromPath(log.filename()));
    EXPECT_EQ(names, (std::vector<std::string>{"job42_C.log", "job42_W.log"}));
}

// Of the file's name, the log gets what stands before the first dot; its bytes are UTF-8 or GBK.
TEST(WorkerByHand, ParameterFileInGbk) {
    kit::TempDir folder;
    const fs::path file = folder.Write("源文件", "bytes");
    Node node;
    const fs::path parameters = folder.Write("任务.part1.xml", Gbk(Md5TaskText(file).c_str()));
    auto worker = StartWorkerByHand(
        node, {"mc", Utf8FromPath(parameters), std::to_string(node.LinkPort()), "1"}, node.Token());
    EXPECT_EQ(worker->ExitCode(), 0);
    const auto list = nlohmann::json::parse(node.Ctl({"list", "--json"}).output);
    ASSERT_EQ(list.size(), 1u);
    const auto record = node.Show(list[0]["id"]);
    EXPECT_EQ(record["state"], "finished");
    EXPECT_EQ(record["result"]["files"][0]["first"], Utf8FromPath(file));
    EXPECT_EQ(record["result"]["files"][0]["computed_md5"], kit::ReferenceMd5(file));
    const auto logs = kit::FindFiles(node.Folder().Path() / "logs", "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(Utf8FromPath(logs[0].filename()), "任务_W.log");
}

// Three arguments: the second is the task text itself.
TEST(WorkerByHand, TextOnTheCommandLine) {
    kit::TempDir folder;
    const fs::path file = folder.Write("file", "bytes");
    Node node;
    auto worker =
        StartWorkerByHand(node, {"mc", Md5TaskText(file), std::to_string(node.LinkPort())}, node.Token());
    EXPECT_EQ(worker->ExitCode(), 0);
    const auto list = nlohmann::json::parse(node.Ctl({"list", "--json"}).output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["state"], "finished");
    const auto logs = kit::FindFiles(node.Folder().Path() / "logs", "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].filename(), "_W.log");
    EXPECT_NE(kit::ReadBytes(logs[0]).find("Eos Called!"), std::string::npos);
}

TEST(WorkerByHand, WaitsForAnEngineThatIsNotUpYet) {
    kit::TempDir folder;
    Node node;
    const int port = node.LinkPort();
    ASSERT_EQ(node.EndEngine(), 0);
    auto worker = StartWorkerByHand(
        node, {"mc", Md5TaskText(folder.Write("file", "bytes")), std::to_string(port)}, node.Token());
    const std::string line = Gbk("通信服务端没有启动\n");
    ASSERT_TRUE(kit::WaitForText(worker->OutputFile(), line)) << worker->Output();
    EXPECT_TRUE(worker->IsRunning());
    node.StartEngine(port);
    EXPECT_EQ(worker->ExitCode(), 0);
    EXPECT_NE(worker->Output().find("emStatus=0\n"), std::string::npos);
    EXPECT_GE(Count(worker->Output(), line), 1u);
    const auto list = nlohmann::json::parse(node.Ctl({"list", "--json"}).output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["state"], "finished");
}

// A refused worker counts as one without a server: it keeps trying and says why in the link's log.
TEST(WorkerByHand, WrongTokenIsRefused) {
    kit::TempDir folder;
    Node node;
    auto worker = StartWorkerByHand(
        node, {"mc", Md5TaskText(folder.Write("file", "bytes")), std::to_string(node.LinkPort())},
        std::string(64, '0'));
    ASSERT_TRUE(kit::WaitForText(worker->OutputFile(), "sessionID=4294967295\n"));
    ASSERT_TRUE(kit::WaitForText(worker->OutputFile(), Gbk("通信服务端没有启动\n")));
    EXPECT_TRUE(worker->IsRunning());
    const auto logs = kit::FindFiles(node.Folder().Path() / "logs", "_C.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_TRUE(kit::WaitForText(logs[0], "token"));
    EXPECT_EQ(nlohmann::json::parse(node.Ctl({"list", "--json"}).output).size(), 0u);
    worker->Kill();
    worker->Wait();
}

TEST(WorkerByHand, UsageIsGbkAndEndsWithZero) {
    Node node(false);
    auto worker = StartWorkerByHand(node, {"mc"}, "");
    EXPECT_EQ(worker->ExitCode(), 0);
    EXPECT_EQ(worker->Output().find("argc:\n2" +
                                    Gbk("用法：RQWorkerU.exe Type Params-String\n\nType:\n\ttc\t转码\n")),
              0u)
        << worker->Output();
}

TEST(WorkerByHand, UnknownTypeIsRejected) {
    Node node(false);
    auto worker = StartWorkerByHand(node, {"mix", "<x></x>", "1"}, "");
    EXPECT_EQ(worker->ExitCode(), 0);
    EXPECT_NE(worker->Output().find(Gbk("输入的类型参数不正确\n")), std::string::npos);
    const auto logs = kit::FindFiles(node.Folder().Path() / "logs", "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_NE(kit::ReadBytes(logs[0]).find("The input type para is wrong. type:mix"), std::string::npos);
}

}  // namespace
}  // namespace rq::system_test

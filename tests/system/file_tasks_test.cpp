// Transfers, source size checks and deletions through the real programs: what they answer reaches rqctl.
#include <gtest/gtest.h>

#include <fstream>

#include "base/paths.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class FileTasks : public testing::Test {
  protected:
    fs::path At(const std::string& name) const { return m_files.Path() / PathFromUtf8(name); }
    std::string PathOf(const std::string& name) const { return Utf8FromPath(At(name)); }
    json Do(const std::string& type, const std::string& text) const {
        m_id = m_node.SubmitText(type, text);
        return m_id.empty() ? json() : m_node.WaitForEnd(m_id);
    }
    json Transfer(const std::string& source, const std::string& target, const std::string& flags = {}) const {
        return Do("tf", "<TransferTask><ID>transfer</ID>" + flags + "<Items><Item><Source>" + PathOf(source) +
                            "</Source><Target>" + PathOf(target) + "</Target></Item></Items></TransferTask>");
    }
    json Delete(const std::string& name) const {
        return Do("df", "<DeleteTask><ID>delete</ID><Items><Item><Path>" + PathOf(name) +
                            "</Path></Item></Items></DeleteTask>");
    }
    json Size(const std::string& name, int size_bytes) const {
        return Do("gfs",
                  "<SourceSizeTask><ID>size</ID><StableFor_s>0</StableFor_s><Timeout_s>1</"
                  "Timeout_s><Files><File><Path>" +
                      PathOf(name) + "</Path><Size_bytes>" + std::to_string(size_bytes) +
                      "</Size_bytes></File></Files></SourceSizeTask>");
    }
    static json Attempt(const json& task) { return task["attempt_list"].back(); }
    static void ExpectFailure(const json& task, std::uint32_t code, const std::string& text) {
        ASSERT_TRUE(task.is_object());
        EXPECT_EQ(task["state"], "failed") << task.dump(2);
        EXPECT_EQ(Attempt(task)["error"]["code"], code) << task.dump(2);
        EXPECT_EQ(Attempt(task)["error"]["text"], text) << task.dump(2);
    }
    // `rqctl show` has the further text, and the report that it names is there.
    void ExpectReport(const json& task, const std::string& beginning) const {
        ASSERT_TRUE(task.is_object());
        const std::string further = Attempt(task)["further_text"];
        EXPECT_EQ(further.rfind(beginning, 0), 0u) << further;
        const std::string line = further.substr(0, further.find('\n'));
        EXPECT_NE(m_node.Ctl({"show", m_id}).output.find(line), std::string::npos);
        EXPECT_TRUE(fs::exists(PathFromUtf8(line.substr(std::min(beginning.size(), line.size())))))
            << further;
    }

    kit::TempDir m_files;
    Node m_node;
    mutable std::string m_id;
};

TEST_F(FileTasks, ATransferTellsOutputsAndComparisons) {
    m_files.Write("a", "abc");
    const json task = Transfer("a", "b", "<MD5>true</MD5><Verify>true</Verify>");
    ASSERT_TRUE(task.is_object());
    EXPECT_EQ(task["state"], "finished") << task.dump(2);
    EXPECT_EQ(kit::ReadBytes(At("b")), "abc");
    EXPECT_EQ(Attempt(task)["further_text"], "1 of 1 files done");
    const json& result = task["result"];
    EXPECT_EQ(result["kind"], "transfer");
    ASSERT_EQ(result["outputs"].size(), 1u);
    EXPECT_EQ(result["outputs"][0]["second"], "copied");
    EXPECT_EQ(result["outputs"][0]["further_text"], "md5:" + kit::ReferenceMd5(At("a")));
    ASSERT_EQ(result["verifications"].size(), 1u);
    EXPECT_EQ(result["verifications"][0]["verification"], "equal");
    EXPECT_EQ(result["verifications"][0]["second_md5"], kit::ReferenceMd5(At("a")));
}

TEST_F(FileTasks, ATransferThatFailsHasItsCodeAndText) {
    m_files.Write("a", "abc");
    m_files.Write("b", "old");
    ExpectFailure(Transfer("a", "b"), 0x84100000, "目标文件已存在 (the target file is already there)");
    ExpectFailure(Transfer("a", "a", "<Overwrite>true</Overwrite>"), 0x84100001,
                  "目标就是源文件 (the target is the source, or lies in it)");
    EXPECT_EQ(kit::ReadBytes(At("b")), "old");
}

TEST_F(FileTasks, ASourceSizeCheckWritesItsReport) {
    m_files.Write("a", "abc");
    const json task = Size("a", 3);
    ASSERT_TRUE(task.is_object());
    EXPECT_EQ(task["state"], "finished") << task.dump(2);
    ExpectReport(task, "1 of 1 files complete; report: ");
    ExpectReport(Size("missing", 3), "0 of 1 files complete after 1 s; report: ");
    EXPECT_EQ(m_node.Show(m_id)["state"], "failed");
}

TEST_F(FileTasks, ADeletionDeletesWhereItMayAlone) {
    fs::create_directory(At("allowed"));
    m_files.Write("allowed/a", "abc");
    m_files.Write("outside", "abc");
    ExpectFailure(Delete("allowed/a"), 0x84100034,
                  "节点配置缺失或有误 (the configuration of this node is missing or wrong)");
    std::ofstream(m_node.Stage() / "RQWorkerDelete.xml")
        << "<DeleteConfig><Folder>" << PathOf("allowed") << "</Folder></DeleteConfig>";
    ExpectFailure(Delete("outside"), 0x84100030, "本节点不允许此操作 (this node does not allow it)");
    EXPECT_TRUE(fs::exists(At("outside")));
    const json task = Delete("allowed/a");
    ASSERT_TRUE(task.is_object());
    EXPECT_EQ(task["state"], "finished") << task.dump(2);
    ExpectReport(task, "1 file and 0 folders deleted; journal: ");
    EXPECT_FALSE(fs::exists(At("allowed/a")));
}

// The engine tells the worker what the submission declares, and the plug-in keeps to it.
TEST_F(FileTasks, AnMd5TaskUsesTheCoresThatItDeclares) {
    m_files.Write("a", "abc");
    m_files.Write("b", "def");
    m_files.Write("text", "<MD5Task><ID>md5</ID><Files><File><Path>" + PathOf("a") +
                              "</Path></File><File><Path>" + PathOf("b") +
                              "</Path></File></Files></MD5Task>");
    const Outcome outcome =
        m_node.Ctl({"submit", "--type", "mc", "--text", PathOf("text"), "--cores", "2", "--wait"});
    if (outcome.errors.find("cores") != std::string::npos) GTEST_SKIP() << "this machine has one core";
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    // The log is written behind the worker's back.
    EXPECT_TRUE(kit::WaitUntil([&] {
        return m_node.WorkerLog().find("md5: up to 2 files are read at a time") != std::string::npos;
    })) << m_node.WorkerLog();
}

TEST_F(FileTasks, APathIsTested) {
    m_files.Write("a", "abc");
    const Outcome found = m_node.Ctl({"path", "test", PathOf("a")});
    EXPECT_EQ(found.code, 0) << found.errors;
    EXPECT_EQ(found.output, PathOf("a") + "\n  rule:   none; the path stays as it is\n  local:  " +
                                PathOf("a") + "\n  found:  file, 3 bytes, can be read\n");
    const Outcome missing = m_node.Ctl({"path", "test", PathOf("missing")});
    EXPECT_NE(missing.output.find("\n  PROBLEM: nothing is there\n"), std::string::npos) << missing.output;
    const Outcome asJson = m_node.Ctl({"path", "test", "--json", PathOf("a")});
    EXPECT_TRUE(json::accept(asJson.output)) << asJson.output;
}

}  // namespace
}  // namespace rq::system_test

// Orders by rqctl to real workers, and what follows a loss.
#include <gtest/gtest.h>

#include "base/paths.h"
#include "by_hand.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

class Orders : public testing::Test {
  protected:
    // One that is still running whenever a test looks.
    std::string Endless(Node& node) {
        return node.SubmitMd5(MakeSparse(m_folder.Path() / "endless", 1ull << 40));
    }
    static nlohmann::json Order(Node& node, std::vector<std::string> words) {
        words.emplace_back("--json");
        const Outcome outcome = node.Ctl(words);
        EXPECT_EQ(outcome.code, 0) << outcome.errors;
        return nlohmann::json::parse(outcome.output, nullptr, false);
    }

    kit::TempDir m_folder;
};

TEST_F(Orders, AWorkerPausesGoesOnAndFinishes) {
    Node node;
    const std::string task = Endless(node);
    node.WaitForState(task, {"running"});
    EXPECT_EQ(Order(node, {"suspend", task})["result"], "requested");
    node.WaitForState(task, {"paused"});
    EXPECT_EQ(Order(node, {"suspend", task})["changed"], false);
    EXPECT_EQ(node.Ctl({"resume", task}).output, task + " is told to go on\n");
    node.WaitForState(task, {"running"});
    EXPECT_EQ(Order(node, {"finish", task})["state"], "finishing");
    const auto record = node.WaitForEnd(task);
    // The sum of a part is no sum: the plug-in keeps nothing, and says so.
    EXPECT_TRUE(record["status"].is_number()) << record;
    const auto pid = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(pid); }));
}

TEST_F(Orders, ARefusedOrderHasACodeOfItsOwnAndNamesTheState) {
    Node node;
    EXPECT_EQ(node.Ctl({"drain"}).output, "no tasks are started; 0 workers are still there\n");
    const std::string task = Endless(node);
    const Outcome refused = node.Ctl({"finish", task});
    EXPECT_EQ(refused.code, 5);
    EXPECT_EQ(refused.errors,
              "rqctl: " + task + " is queued: finish is for a task that is running or paused\n");
    EXPECT_NE(node.Ctl({"show", task}).output.find("drained by api"), std::string::npos);
    EXPECT_EQ(node.Ctl({"suspend", "t99"}).code, 1);
    EXPECT_EQ(node.Ctl({"suspend"}).code, 2);
    EXPECT_EQ(node.Ctl({"delete", task}).code, 5);
    EXPECT_EQ(Order(node, {"cancel", task})["result"], "cancelled");
    EXPECT_EQ(Order(node, {"delete", task})["result"], "deleted");
    EXPECT_EQ(Order(node, {"delete", task})["result"], "already-deleted");
    EXPECT_EQ(Order(node, {"undrain"})["changed"], true);
}

TEST_F(Orders, ALostWorkersTaskWaitsForItsNextAttemptAndSaysSo) {
    Node node(true, 2);
    const std::string task = Endless(node);
    const auto record = node.WaitForState(task, {"running"});
    const auto killed = record["attempt_list"][0]["pid"].get<std::uint64_t>();
    kit::EndProcess(killed);
    const auto waiting = node.WaitForState(task, {"queued"});
    EXPECT_EQ(waiting["waits"][0]["rule"], "backoff") << waiting;
    EXPECT_NE(waiting["reason"].get<std::string>().find(kit::KilledWords()), std::string::npos);
    EXPECT_EQ(waiting["percent"], 0.0);
    // After 10 s by itself.
    const auto again = node.WaitForState(task, {"running"});
    EXPECT_EQ(again["attempts"], 2);
    EXPECT_EQ(again["attempt_list"][0]["state"], "lost");
    EXPECT_NE(again["attempt_list"][1]["pid"], killed);
    EXPECT_EQ(node.Ctl({"cancel", task}).code, 0);
    EXPECT_EQ(node.WaitForEnd(task)["state"], "cancelled");
    // And once more by order.
    EXPECT_EQ(Order(node, {"retry", task})["result"], "queued");
    node.WaitForState(task, {"running"});
    EXPECT_EQ(node.Ctl({"cancel", task}).code, 0);
    EXPECT_EQ(node.WaitForEnd(task)["attempts"], 3);
}

TEST_F(Orders, AnUpdateOfAQueuedTaskIsWhatItRuns) {
    Node node;
    const auto file = m_folder.Write("file", "text");
    node.Ctl({"drain", "--type", "mc"});
    const std::string task = Endless(node);
    const auto text = m_folder.Write("text.xml", "<MD5Task><ID>new</ID><Files><File><Path>" +
                                                     Utf8FromPath(file) + "</Path></File></Files></MD5Task>");
    EXPECT_EQ(Order(node, {"update", task, "--text", Utf8FromPath(text)})["result"], "updated");
    EXPECT_EQ(Order(node, {"undrain", "--type", "mc"})["changed"], true);
    const auto record = node.WaitForEnd(task);
    EXPECT_EQ(record["state"], "finished") << record;
    EXPECT_EQ(record["result"]["files"][0]["computed_md5"], kit::ReferenceMd5(file));
}

}  // namespace
}  // namespace rq::system_test

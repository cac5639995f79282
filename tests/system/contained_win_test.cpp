// What only Windows does for a worker that no engine looks after.
#include <gtest/gtest.h>

#include "by_hand.h"
#include "kit/os.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

// Nobody but the worker's own job knows what its plug-in started and left behind: the job that this test
// starts it in ends nothing by itself.
TEST(Contained, NothingThatAWorkerByHandStartedOutlivesItWhenItIsKilled) {
    Node node;
    const fs::path folder = UseScriptedPlugin(node);
    auto worker = StartWorkerByHand(node, {"mc", LeavesAProcessAndHangs(), std::to_string(node.LinkPort())},
                                    node.Token());
    ASSERT_TRUE(kit::WaitForText(folder / "left.pid", "\n")) << worker->Output();
    const std::uint64_t left = std::stoull(kit::ReadBytes(folder / "left.pid"));
    EXPECT_TRUE(platform::ProcessRuns(left));
    EXPECT_TRUE(worker->IsRunning());
    kit::EndProcess(worker->Id());
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(left); }));
}

// The same when it is the engine that is killed: the worker notices, ends, and its plug-in's children with
// it.
TEST(Contained, AWorkersChildrenEndWithItWhenTheEngineIsKilled) {
    Node node;
    const fs::path folder = UseScriptedPlugin(node);
    const std::string task = node.SubmitText("mc", LeavesAProcessAndHangs());
    ASSERT_TRUE(kit::WaitForText(folder / "left.pid", "\n")) << node.WorkerLog();
    const std::uint64_t left = std::stoull(kit::ReadBytes(folder / "left.pid"));
    const auto worker = node.WaitForState(task, {"running"})["attempt_list"][0]["pid"].get<std::uint64_t>();
    EXPECT_TRUE(platform::ProcessRuns(left));
    kit::EndProcess(node.Engine().Id());
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(worker); }));
    EXPECT_TRUE(kit::WaitUntil([&] { return !platform::ProcessRuns(left); }));
}

}  // namespace
}  // namespace rq::system_test

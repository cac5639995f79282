// Package tasks through real workers: many in a row in one process, and what becomes of them when it dies.
#include <gtest/gtest.h>

#include <fstream>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

constexpr std::int32_t kPackage = 14;

class PackageTasks : public testing::Test {
  protected:
    PackageTasks() : m_node(false) {
        m_node.InstallPlugin(PathFromUtf8(test::BadPlugin("scripted")), kPackage);
        std::filesystem::create_directories(m_node.Data());
        std::ofstream(m_node.Data() / "engine.toml")
            << "[engine]\nmax_workers = 1\n[limits]\npackage_idle_s = 300\n";
        m_node.StartEngine();
    }
    // All texts hold the same task ID.
    std::string Submit(const std::string& steps) {
        return m_node.SubmitText("14", "id same; type 14; " + steps);
    }
    nlohmann::json Attempt(const nlohmann::json& task) { return task["attempt_list"].back(); }

    Node m_node;
};

TEST_F(PackageTasks, ManyInARowKeepTheirOrderAndTheirResults) {
    std::vector<std::string> ids;
    for (int i = 0; i < RQ_PACKAGE_TASKS; ++i)
        ids.push_back(Submit("error " + std::to_string(i) + " 0 result-" + std::to_string(i)));
    m_node.WaitForEnd(ids.back());
    const auto first = Attempt(m_node.Show(ids[0]));
    std::string before;
    for (int i = 0; i < RQ_PACKAGE_TASKS; ++i) {
        const auto task = m_node.Show(ids[static_cast<std::size_t>(i)]);
        EXPECT_EQ(task["state"], "finished") << task;
        const auto attempt = Attempt(task);
        EXPECT_EQ(attempt["pid"], first["pid"]);
        EXPECT_EQ(attempt["detail_error"]["code"], i);
        EXPECT_EQ(attempt["detail_error"]["text"], "result-" + std::to_string(i));
        EXPECT_GT(attempt["started"].get<std::string>(), before);
        before = attempt["started"];
    }
}

TEST_F(PackageTasks, AWorkerThatIsKilledLosesWhatItHadAndTheOthersGoOn) {
    const auto gate = m_node.Folder().Path() / "gate";
    const auto first = Submit("await-file " + Utf8FromPath(gate));
    m_node.WaitForState(first, {"running"});
    std::vector<std::string> others;
    for (int i = 0; i < 5; ++i) others.push_back(Submit("error 0 0 after-" + std::to_string(i)));
    m_node.WaitForState(others[0], {"starting"});
    const auto killed = Attempt(m_node.Show(first));
    kit::EndProcess(killed["pid"].get<std::uint64_t>());
    EXPECT_EQ(m_node.WaitForEnd(first)["state"], "lost");
    // In its list: it may have begun that one, as far as an engine can know.
    EXPECT_EQ(m_node.WaitForEnd(others[0])["state"], "lost");
    for (std::size_t i = 1; i < others.size(); ++i) {
        const auto task = m_node.WaitForEnd(others[i]);
        EXPECT_EQ(task["state"], "finished") << task;
        EXPECT_EQ(task["attempts"], 1);
        EXPECT_NE(Attempt(task)["pid"], killed["pid"]);
        EXPECT_EQ(Attempt(task)["detail_error"]["text"], "after-" + std::to_string(i));
    }
}

TEST_F(PackageTasks, RefusedTextsAndFailuresDoNotStopTheWorker) {
    const std::string steps[] = {"error 0 0 a",           "analyse-code 7", "analyse-code 7",
                                 "status 4; error 1 2 b", "status 3",       "error 0 0 c"};
    const std::string states[] = {"finished", "failed", "failed", "failed", "failed", "finished"};
    std::vector<std::string> ids;
    for (const auto& text : steps) ids.push_back(Submit(text));
    m_node.WaitForEnd(ids.back());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto task = m_node.Show(ids[i]);
        EXPECT_EQ(task["state"], states[i]) << steps[i] << task;
        EXPECT_EQ(Attempt(task)["pid"], Attempt(m_node.Show(ids[0]))["pid"]);
    }
}

TEST_F(PackageTasks, ACancelEndsTheWorkerAndTheNextTaskGetsAnother) {
    const auto first = Submit("until-stop 100000");
    m_node.WaitForState(first, {"running"});
    const auto second = Submit("error 0 0 second");
    m_node.WaitForState(second, {"starting"});
    EXPECT_EQ(m_node.Ctl({"cancel", first}).code, 0);
    EXPECT_EQ(m_node.WaitForEnd(first)["state"], "cancelled");
    const auto task = m_node.WaitForEnd(second);
    EXPECT_EQ(task["state"], "finished");
    EXPECT_NE(Attempt(task)["pid"], Attempt(m_node.Show(first))["pid"]);
}

// Ended in order and killed in turn, at any moment of the tasks.
TEST_F(PackageTasks, RestartsOfTheEngineCostAWorkerNothing) {
    const int port = m_node.LinkPort();
    std::vector<std::string> ids;
    for (int i = 0; i < 40; ++i) ids.push_back(Submit("sleep 100; error 0 0 result-" + std::to_string(i)));
    for (std::size_t i = 4; i < 40; i += 6) {
        m_node.WaitForState(ids[i], {"running", "finished"});
        if (i % 4 == 0) {
            EXPECT_EQ(m_node.EndEngine(), 0);
        } else {
            kit::EndProcess(m_node.Engine().Id());
            m_node.Engine().ExitCode(std::chrono::seconds(60));
        }
        m_node.StartEngine(port);
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const auto task = m_node.WaitForEnd(ids[i]);
        EXPECT_EQ(task["state"], "finished") << task;
        EXPECT_EQ(task["attempts"], 1) << task;
        EXPECT_EQ(Attempt(task)["pid"], Attempt(m_node.Show(ids[0]))["pid"]);
        EXPECT_EQ(Attempt(task)["detail_error"]["text"], "result-" + std::to_string(i));
    }
}

}  // namespace
}  // namespace rq::system_test

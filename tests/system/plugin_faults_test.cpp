// What an operator sees when a plug-in breaks its contract.
#include <gtest/gtest.h>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "node.h"

namespace rq::system_test {
namespace {

constexpr std::int32_t kMd5Computation = 3;

std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

class PluginFaults : public testing::Test {
  protected:
    void Install(const std::string& name) {
        m_node.InstallPlugin(PathFromUtf8(test::BadPlugin(name)), kMd5Computation);
    }
    nlohmann::json Run(const std::string& text) { return m_node.WaitForEnd(m_node.SubmitText("mc", text)); }
    // The log of the only worker, once it has all been written.
    std::string WholeLog() {
        EXPECT_TRUE(kit::WaitUntil(
            [&] { return m_node.WorkerLog().find("RQWorker is destroyed") != std::string::npos; }));
        return m_node.WorkerLog();
    }

    Node m_node;
};

TEST_F(PluginFaults, NoRecordIsStatus4WithoutCodesAndTexts) {
    Install("null_task_info");
    const auto record = Run("<t/>");
    EXPECT_EQ(record["state"], "failed");
    EXPECT_EQ(record["status"], 4);
    const auto& attempt = record["attempt_list"][0];
    EXPECT_EQ(attempt["error"]["code"], 0);
    EXPECT_EQ(attempt["detail_error"]["code"], 0);
    EXPECT_EQ(attempt["detail_error"]["text"], "");
    EXPECT_EQ(attempt["further_text"], "");
    const std::string log = WholeLog();
    EXPECT_EQ(Count(log, "task info is NULL!!"), 1u) << log;
    EXPECT_EQ(Count(log, "plug-in null_task_info left no task information record"), 1u) << log;
}

TEST_F(PluginFaults, WhatThePerformCallThrowsIsTheTasksError) {
    Install("scripted");
    const auto standard = Run("id t; progress 10 3; throw 磁盘满了");
    EXPECT_EQ(standard["state"], "failed");
    EXPECT_EQ(standard["attempt_list"][0]["detail_error"]["text"], "磁盘满了");
    EXPECT_EQ(standard["attempt_list"][0]["further_text"], "磁盘满了");
    const auto odd = Run("id t; throw-int 3");
    EXPECT_EQ(odd["state"], "failed");
    EXPECT_EQ(odd["attempt_list"][0]["detail_error"]["text"], "unknown exception");
}

// The end of the worker's process is the end of one task; the next finds a new worker.
TEST_F(PluginFaults, ACrashFailsItsTaskAlone) {
    Install("scripted");
    for (const char* how : {"id t; crash", "id t; throw-on-thread nobody catches this", "id t; abort"}) {
        const auto record = Run(how);
        EXPECT_EQ(record["state"], "lost") << how;
        EXPECT_NE(record["reason"], "") << how;
        EXPECT_EQ(record["attempt_list"][0]["state"], "lost") << how;
    }
    EXPECT_EQ(Run("id t; status 0")["state"], "finished");
}

// Well before the minute for which its worker would wait.
TEST_F(PluginFaults, AReturnInStatus3FailsTheTask) {
    Install("scripted");
    const auto record = Run("id t; progress 10 3; status 3");
    EXPECT_EQ(record["state"], "failed");
    EXPECT_EQ(record["reason"].get<std::string>().find(
                  "the worker ended in good order and in status 3, without a final status"),
              0u)
        << record["reason"];
    EXPECT_TRUE(record["status"].is_null());
}

TEST_F(PluginFaults, OtherBreachesAreALineEachAndTheTaskGoesOn) {
    Install("scripted");
    const auto record = Run("id t; over; over; negative; negative; md5 /a; status 0");
    EXPECT_EQ(record["state"], "finished");
    const std::string log = WholeLog();
    EXPECT_EQ(Count(log, "plug-in scripted told more than 100 percent of progress"), 1u) << log;
    EXPECT_EQ(Count(log, "plug-in scripted told a negative progress figure"), 1u) << log;
}

}  // namespace
}  // namespace rq::system_test

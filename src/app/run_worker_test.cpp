#include "app/run_worker.h"

#include <gtest/gtest.h>

#include <clocale>

#include "app/restart_worker.h"
#include "util/console_capture.h"
#include "util/log_capture.h"
#include "util/output_capture.h"

namespace rq {
namespace {

using Events = std::vector<std::string>;

class RunWorkerTest : public ::testing::Test {
  protected:
    class Core final : public IRunnableCore {
      public:
        explicit Core(RunWorkerTest& test) : m_test(test) {}
        ~Core() override {
            m_test.m_events.push_back("delete");
            m_test.m_core = nullptr;
        }
        std::int32_t Init(const WorkerStartRecord* start) override {
            m_test.m_events.push_back("Init");
            m_test.m_start = *start;
            m_test.m_address = start->serverAddress;
            return m_test.m_initResult;
        }
        std::int32_t DoWork(const std::string& text, std::int32_t type) override {
            m_test.m_events.push_back("DoWork " + text + " " + std::to_string(type));
            return -5;
        }
        void Release() override { m_test.m_events.push_back("Release"); }

      private:
        RunWorkerTest& m_test;
    };

    RunWorkerTest() {
        m_seams.installCrashFilter = [this] { m_events.push_back("filter"); };
        m_seams.setDefaultLocale = [this] {
            m_events.push_back("locale");
            return std::string("saved");
        };
        m_seams.restoreLocale = [this](const std::string& saved) { m_events.push_back("restore " + saved); };
        m_seams.allocateCore = [this]() -> IRunnableCore* {
            m_events.push_back("allocate");
            m_core = m_noMemory ? nullptr : new Core(*this);
            return m_core;
        };
        m_seams.freeIni = [this] { m_events.push_back("ini"); };
    }

    // Asserts that the type is rejected and frees the core that is left over on purpose.
    void ExpectRejected(const std::string& type) {
        m_events.clear();
        m_log.Clear();
        m_console.Clear();
        EXPECT_EQ(RunWorker(type, "text", m_seams), -1) << type;
        EXPECT_EQ(m_events, (Events{"filter", "locale", "allocate"})) << type;
        EXPECT_EQ(m_log.Lines(), (std::vector<LogLine>{
                                     {"ACT", 1, "==>Worker Begin DoWork", "MAIN"},
                                     {"", 4, "The input type para is wrong. type:" + type, "MAIN"},
                                 }));
        EXPECT_EQ(m_console.Text(), "输入的类型参数不正确\n");
        delete m_core;
    }

    RunWorkerSeams m_seams;
    Events m_events;
    WorkerStartRecord m_start;
    std::string m_address;
    std::int32_t m_initResult = 0;
    bool m_noMemory = false;
    IRunnableCore* m_core = nullptr;
    LogCapture m_log;
    ConsoleCapture m_console;
};

TEST_F(RunWorkerTest, TheWholeLifeOfTheCore) {
    EXPECT_EQ(RunWorker("mc", "<任务/>", m_seams), 0);
    EXPECT_EQ(m_events, (Events{"filter", "locale", "allocate", "Init", "DoWork <任务/> 3", "Release",
                                "delete", "ini", "restore saved"}));
    EXPECT_EQ(m_log.Lines(), (std::vector<LogLine>{{"ACT", 1, "==>Worker Begin DoWork", "MAIN"}}));
    EXPECT_EQ(m_console.Text(), "");
}

TEST_F(RunWorkerTest, TheStartRecord) {
    RunWorker("14", "text", m_seams);
    EXPECT_EQ(m_address, "127.0.0.1");
    EXPECT_EQ(m_start.serverPort, 8089u);
    EXPECT_EQ(m_start.reserved, 0u);
    EXPECT_EQ(m_start.supervisionCallback, &OnSupervisionEvent);
    EXPECT_EQ(m_start.parameterText, "text");
    EXPECT_EQ(m_start.taskType, 14);
}

TEST_F(RunWorkerTest, AFreshStartRecord) {
    const WorkerStartRecord fresh;
    EXPECT_EQ(fresh.serverAddress, nullptr);
    EXPECT_EQ(fresh.serverPort, 8089u);
    EXPECT_EQ(fresh.reserved, 0u);
    EXPECT_EQ(fresh.supervisionCallback, nullptr);
    EXPECT_EQ(fresh.parameterText, "");
}

TEST_F(RunWorkerTest, AFailedInitIsReleasedAndDoesNotWork) {
    m_initResult = -1;
    EXPECT_EQ(RunWorker("mc", "text", m_seams), 0);
    EXPECT_EQ(m_events,
              (Events{"filter", "locale", "allocate", "Init", "Release", "delete", "ini", "restore saved"}));
}

TEST_F(RunWorkerTest, WithoutMemoryNothingIsPutBack) {
    m_noMemory = true;
    EXPECT_EQ(RunWorker("mc", "text", m_seams), -1);
    EXPECT_EQ(m_events, (Events{"filter", "locale", "allocate"}));
    EXPECT_EQ(m_log.Lines().size(), 1u);
    EXPECT_EQ(m_console.Text(), "");
}

TEST_F(RunWorkerTest, TheFilterComesAfterTheFirstLine) {
    OutputCapture output;
    m_seams.installCrashFilter = [&] { output.Note("filter"); };
    EXPECT_EQ(RunWorker("mc", "text", m_seams), 0);
    EXPECT_EQ(output.Row(), (Events{"1 ==>Worker Begin DoWork", "filter"}));
}

TEST_F(RunWorkerTest, ARejectedTypeIsLoggedBeforeItIsPrinted) {
    OutputCapture output;
    EXPECT_EQ(RunWorker("abc", "text", m_seams), -1);
    EXPECT_EQ(output.Row(), (Events{"1 ==>Worker Begin DoWork", "4 The input type para is wrong. type:abc",
                                    "> 输入的类型参数不正确\n"}));
    delete m_core;
}

TEST_F(RunWorkerTest, RejectedTypes) {
    for (const char* type : {"mix", "pd", "fc", "abc", "TC", "", "00", "300", "70000"}) ExpectRejected(type);
}

TEST_F(RunWorkerTest, AcceptedTypes) {
    const std::vector<std::pair<std::string, int>> accepted = {{"0", 0},   {"tf", 0},  {"299", 299},
                                                               {"-1", -1}, {"23", 23}, {"kf", 13}};
    for (const auto& [type, number] : accepted) {
        m_events.clear();
        EXPECT_EQ(RunWorker(type, "t", m_seams), 0) << type;
        ASSERT_GE(m_events.size(), 5u) << type;
        EXPECT_EQ(m_events[4], "DoWork t " + std::to_string(number)) << type;
    }
}

TEST(RunWorkerSeams, TheRealLocaleIsSwitchedAndPutBack) {
    const RunWorkerSeams real = RunWorkerSeams::Real();
    const std::string before = std::setlocale(LC_ALL, nullptr);
    const std::string saved = real.setDefaultLocale();
    EXPECT_EQ(saved, before);
    std::setlocale(LC_ALL, "");
    std::setlocale(LC_NUMERIC, "C");
    const std::string systems = std::setlocale(LC_ALL, nullptr);
    std::setlocale(LC_ALL, before.c_str());
    EXPECT_EQ(real.setDefaultLocale(), before);
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), systems);
    real.restoreLocale(before);
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
    real.freeIni();  // null is allowed
}

}  // namespace
}  // namespace rq

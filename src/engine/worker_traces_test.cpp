#include "engine/worker_traces.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "engine/json.h"
#include "engine/store.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

std::string Line(int level, const std::string& text) {
    return "2017-05-31 10:15:30.250000 [" + std::to_string(level) + "] [ACT] [MAIN] [812/815] " + text + "\n";
}

TEST(LastTrouble, IsTheLastFailureThatIsOne) {
    kit::TempDir folder;
    const auto trouble = [&](const std::string& text) {
        return LastTrouble(Utf8FromPath(folder.Write("a_W.log", text))).value_or("none");
    };
    EXPECT_EQ(trouble(Line(2, "fine") + Line(4, "dlopen /x: no [such] file") +
                      Line(4, "WorkRunner Init False!") + Line(1, "end")),
              "dlopen /x: no [such] file");
    EXPECT_EQ(trouble(Line(4, "====> Change Work Path to [/a]") + Line(4, "AnalysTask Begin! TaskStr: <a/>")),
              "none");
    EXPECT_EQ(trouble(Line(5, "crashed with SIGSEGV")), "crashed with SIGSEGV");
    EXPECT_EQ(trouble(Line(3, "a warning")), "none");
    EXPECT_EQ(trouble("[4]\n[4] [\n] ] ] ]\n\n"), "none");
    EXPECT_EQ(trouble(Line(4, "far away") + std::string(100'000, 'x') + "\n"), "none");
    EXPECT_EQ(trouble(std::string(100'000, 'x') + "\n" + Line(4, "near")), "near");
    EXPECT_FALSE(LastTrouble(folder.Utf8("missing")));
}

class WorkerTracesTest : public testing::Test {
  protected:
    WorkerTracesTest() {
        m_life = {"t1a1_00112233", 4711, Store::SystemNow()(), Store::SystemNow()()};
        m_day = TimeText(m_life.from_us).substr(0, 10);
        std::erase(m_day, '-');
        m_day = "RQWorker/" + m_day + "/";
    }
    WorkerTraces Find() const { return FindWorkerTraces(Utf8FromPath(m_root.Path()), m_life); }

    kit::TempDir m_root;
    WorkerLife m_life;
    std::string m_day;
};

TEST_F(WorkerTracesTest, AreFoundByNameAndProcess) {
    m_root.Write(m_day + "t1a1_99999999_W.log", "");
    m_root.Write(m_day + "RQWorkerU_20250101.000000_14711.txt", "");
    m_root.Write(m_day + "RQWorkerU_20250101.000000_4711.bak", "");
    EXPECT_EQ(Find().log, "");
    EXPECT_EQ(Find().crashReport, "");
    const auto log = m_root.Write(m_day + "t1a1_00112233_W.log", "");
    const auto report = m_root.Write(m_day + "RQWorkerU_20250101.000000_4711.txt", "");
    EXPECT_EQ(PathFromUtf8(Find().log), log);
    EXPECT_EQ(PathFromUtf8(Find().crashReport), report);
    m_life.name.clear();
    EXPECT_EQ(Find().log, "");
}

TEST_F(WorkerTracesTest, AWorkersLogThatIsNamedByTimeIsFoundByItsProcess) {
    const std::string begin = "2017-05-31 10:15:30.250000 [1] [ACT] [MAIN] [";
    m_root.Write(m_day + "Package_2025-01-01.10-00-00_W.log", begin + "14711/1] x\n" + begin + "4711/2] x\n");
    m_root.Write(m_day + "Package_2025-01-01.10-00-01_C.log", begin + "4711/4711] x\n");
    m_root.Write(m_day + "other_W.log", begin + "4711/4711] x\n");
    EXPECT_EQ(Find().log, "");
    const auto log = m_root.Write(m_day + "Package_2025-01-01.10-00-02_W.log", begin + "4711/4711] x\n");
    EXPECT_EQ(PathFromUtf8(Find().log), log);
}

TEST_F(WorkerTracesTest, AnOlderProcessOfTheSameNumberIsAnother) {
    const auto report = m_root.Write(m_day + "RQWorkerU_20250101.000000_4711.txt", "");
    std::filesystem::last_write_time(report,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    EXPECT_EQ(Find().crashReport, "");
}

TEST_F(WorkerTracesTest, OnlyTheDaysOfItsLifeAreSearched) {
    m_root.Write("RQWorker/20010101/t1a1_00112233_W.log", "");
    EXPECT_EQ(Find().log, "");
    EXPECT_EQ(FindWorkerTraces(m_root.Utf8("nowhere"), m_life).log, "");
}

}  // namespace
}  // namespace rq::engine

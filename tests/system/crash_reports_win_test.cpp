// What a crash in a plug-in leaves behind: a minidump, a line in the worker's log, and the exception's code
// as the process's end. A stack that is used up is left out in Wine, which ends such a thread by itself.
#include <gtest/gtest.h>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

constexpr std::int32_t kMd5Computation = 3;
constexpr std::uint32_t kAccessViolation = 0xC0000005;
constexpr std::uint32_t kDividedByZero = 0xC0000094;
constexpr std::uint32_t kStackUsedUp = 0xC00000FD;
constexpr std::uint32_t kAborted = 3;

class CrashReports : public ::testing::Test {
  protected:
    CrashReports() { m_node.InstallPlugin(PathFromUtf8(test::BadPlugin("scripted")), kMd5Computation); }

    // Runs a task with these steps to the worker's end with `code`, and looks at what it left.
    void ExpectADump(const std::string& steps, std::uint32_t code, const std::string& name) {
        const auto record = m_node.WaitForEnd(m_node.SubmitText("mc", "id t; " + steps));
        EXPECT_EQ(record["state"], "lost");
        const nlohmann::json end = {{"code", code}};
        EXPECT_EQ(record.value("/attempt_list/0/exit"_json_pointer, nlohmann::json()), end) << record;
        const auto dumps = kit::FindFiles(m_node.Data(), ".dmp");
        const auto logs = kit::FindFiles(m_node.Data(), "_W.log");
        ASSERT_EQ(dumps.size(), 1u) << m_node.WorkerLog();
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(dumps[0].parent_path(), logs[0].parent_path());
        EXPECT_EQ(dumps[0].filename().string().find("RQWorkerU_20"), 0u) << dumps[0];
        EXPECT_EQ(kit::ReadBytes(dumps[0]).substr(0, 4), "MDMP");
        const std::string last = kit::ReadLines(logs[0]).back();
        EXPECT_NE(last.find(" [5] [ACT] [MAIN] ["), std::string::npos) << last;
        EXPECT_NE(last.find("crashed with " + name + " in thread "), std::string::npos) << last;
        EXPECT_TRUE(last.ends_with(dumps[0].filename().string())) << last;
    }

    Node m_node;
};

TEST_F(CrashReports, ABadPointerInPerform) {
    ExpectADump("crash", kAccessViolation, "EXCEPTION_ACCESS_VIOLATION");
}

TEST_F(CrashReports, ABadPointerOnAThreadOfThePlugIn) {
    ExpectADump("crash-on-thread", kAccessViolation, "EXCEPTION_ACCESS_VIOLATION");
}

TEST_F(CrashReports, AnExceptionThatNobodyCatches) {
    ExpectADump("throw-on-thread nobody catches this", kAborted, "SIGABRT");
}

TEST_F(CrashReports, ADivisionByZero) {
    ExpectADump("divide-by-zero", kDividedByZero, "EXCEPTION_INT_DIVIDE_BY_ZERO");
}

TEST_F(CrashReports, AStackThatIsUsedUp) {
    if (kit::IsWine()) GTEST_SKIP() << "Wine ends a thread whose stack is used up without any handler";
    ExpectADump("overflow-stack", kStackUsedUp, "EXCEPTION_STACK_OVERFLOW");
}

TEST_F(CrashReports, AStackThatIsUsedUpOnAThreadOfThePlugIn) {
    if (kit::IsWine()) GTEST_SKIP() << "Wine ends a thread whose stack is used up without any handler";
    ExpectADump("overflow-on-thread", kStackUsedUp, "EXCEPTION_STACK_OVERFLOW");
}

}  // namespace
}  // namespace rq::system_test

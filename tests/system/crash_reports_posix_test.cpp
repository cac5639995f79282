// What a crash in a plug-in leaves behind: a report with every thread's stack, a line in the worker's log,
// and the signal as the process's end. The sanitizers take crashes themselves, and their instrumentation ends
// these plug-ins earlier in ways of their own; so the tests are in the ordinary build.
#include <gtest/gtest.h>
#include <signal.h>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;

constexpr std::int32_t kMd5Computation = 3;

class CrashReports : public ::testing::Test {
  protected:
    CrashReports() { m_node.InstallPlugin(PathFromUtf8(test::BadPlugin("scripted")), kMd5Computation); }

    // Runs a task with these steps to the worker's end by `signal`; its report.
    std::string ReportOf(const std::string& steps, int signal) {
        const auto record = m_node.WaitForEnd(m_node.SubmitText("mc", "id t; " + steps));
        EXPECT_EQ(record["state"], "lost");
        const nlohmann::json end = {{"signal", signal}};
        EXPECT_EQ(record.value("/attempt_list/0/exit"_json_pointer, nlohmann::json()), end) << record;
        const auto reports = kit::FindFiles(m_node.Data(), ".txt");
        if (reports.size() != 1) {
            ADD_FAILURE() << reports.size() << " reports; the log:\n" << m_node.WorkerLog();
            return {};
        }
        ExpectALogLine(reports[0]);
        return kit::ReadText(reports[0]);
    }

    // The log's last line names the report, which lies beside it.
    void ExpectALogLine(const fs::path& report) {
        const auto logs = kit::FindFiles(m_node.Data(), "_W.log");
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(report.parent_path(), logs[0].parent_path());
        EXPECT_EQ(report.filename().string().find("RQWorkerU_20"), 0u) << report;
        const auto lines = kit::ReadLines(logs[0]);
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().find("] [ACT] [MAIN] ["), std::string::npos) << lines.back();
        EXPECT_NE(lines.back().find(" [5] "), std::string::npos) << lines.back();
        EXPECT_NE(lines.back().find("crashed with SIG"), std::string::npos) << lines.back();
        EXPECT_TRUE(lines.back().ends_with(", report: " + Utf8FromPath(report))) << lines.back();
        EXPECT_GT(lines.size(), 10u) << "lost: lines before the crash";
    }

    // The part of a report that is the crashed thread's.
    static std::string Crashed(const std::string& report) {
        const auto begin = report.find("crashed\n", report.find("\nThread "));
        return begin == std::string::npos ? "" : report.substr(begin, report.find("\n\n", begin) - begin);
    }

    static void ExpectStacks(const std::string& report, const std::string& function) {
        EXPECT_NE(Crashed(report).find(function), std::string::npos) << report;
        EXPECT_NE(Crashed(report).find("scripted.so"), std::string::npos) << report;
        EXPECT_NE(report.find("HeartbeatThread"), std::string::npos) << report;
        EXPECT_NE(report.find("boost::asio::io_context::run"), std::string::npos) << report;
        EXPECT_EQ(report.find("own frames:"), std::string::npos) << report;
    }

    Node m_node;
};

TEST_F(CrashReports, ABadPointerInPerform) {
    const std::string report = ReportOf("crash", SIGSEGV);
    EXPECT_EQ(report.find("Crashed with SIGSEGV, address 0x40\n"), 0u) << report;
    EXPECT_NE(report.find("  #0   0x"), std::string::npos) << report;
    EXPECT_LT(report.find("WriteNowhere"), report.find("\n", report.find("  #0"))) << "not the first frame";
    ExpectStacks(report, "scripted::WriteNowhere()");
    // As far as the program's start.
    EXPECT_NE(Crashed(report).find(" wmain+"), std::string::npos) << report;
    EXPECT_NE(Crashed(report).find("script_crashes.cpp:"), std::string::npos) << report;
}

TEST_F(CrashReports, ABadPointerOnAThreadOfThePlugIn) {
    const std::string report = ReportOf("crash-on-thread", SIGSEGV);
    ExpectStacks(report, "WriteNowhere()");
    EXPECT_EQ(Crashed(report).find(" wmain+"), std::string::npos) << report;
    EXPECT_NE(report.find(" wmain+"), std::string::npos) << report;
}

TEST_F(CrashReports, AStackThatIsUsedUp) {
    const std::string report = ReportOf("overflow-stack", SIGSEGV);
    ExpectStacks(report, "Deeper(char volatile*)");
    EXPECT_NE(Crashed(report).find("... and more"), std::string::npos) << report;
}

TEST_F(CrashReports, AStackThatIsUsedUpOnAThreadOfThePlugIn) {
    ExpectStacks(ReportOf("overflow-on-thread", SIGSEGV), "Deeper(char volatile*)");
}

TEST_F(CrashReports, AnExceptionThatNobodyCatches) {
    ExpectStacks(ReportOf("throw-on-thread nobody catches this", SIGABRT), "std::terminate()");
}

TEST_F(CrashReports, AnAbort) {
    ExpectStacks(ReportOf("abort", SIGABRT), "abort+");
}

// The heap's lock is held and its lists are broken.
TEST_F(CrashReports, InsideMalloc) {
    const std::string report = ReportOf("crash-in-malloc", SIGSEGV);
    ExpectStacks(report, "CrashInMalloc()");
    EXPECT_NE(Crashed(report).find("malloc+"), std::string::npos) << report;
}

TEST_F(CrashReports, AHeapThatTheAllocatorFindsSpoilt) {
    ExpectStacks(ReportOf("spoil-heap", SIGABRT), "SpoilHeap()");
}

TEST_F(CrashReports, ACallOfANullFunction) {
    ExpectStacks(ReportOf("call-nowhere", SIGSEGV), "CallNowhere()");
}

TEST_F(CrashReports, ADivisionByZero) {
    ExpectStacks(ReportOf("divide-by-zero", SIGFPE), "DivideByZero()");
}

// Somebody's report program is missing: the crashed thread's own frames are still there.
TEST_F(CrashReports, WithoutTheReporter) {
    fs::remove(m_node.Stage() / "rqcrash-report");
    const std::string report = ReportOf("crash", SIGSEGV);
    EXPECT_NE(report.find("own frames:\n"), std::string::npos) << report;
    EXPECT_NE(report.find("scripted.so"), std::string::npos) << report;
}

}  // namespace
}  // namespace rq::system_test

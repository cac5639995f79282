#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "base/paths.h"
#include "kit/child.h"
#include "platform/crash.h"

namespace rq::platform {
namespace {

// Where the calling thread's crash room begins, once it has one.
char* Room() {
    EXPECT_TRUE(GiveThreadCrashRoom());
    stack_t now{};
    EXPECT_EQ(::sigaltstack(nullptr, &now), 0);
    EXPECT_EQ(now.ss_flags, 0);
    return static_cast<char*>(now.ss_sp);
}

TEST(CrashRoom, IsTheThreadsOwnAndGoesToAnotherWhenItEnds) {
    // New memory would be all zeros.
    constexpr char kMark = 'x';
    int marked = 0;
    for (int i = 0; i < 100; ++i) {
        std::thread([&] {
            char* outer = Room();
            std::thread([&] { EXPECT_NE(Room(), outer); }).join();
            EXPECT_EQ(Room(), outer);
            marked += *outer == kMark ? 1 : 0;
            *outer = kMark;
        }).join();
    }
    EXPECT_GE(marked, 90) << "a thread that ends leaves its room to the next";
}

// The program that crashes as it is told. Without a core file, which tests do not want to leave behind.
class Crash : public ::testing::Test {
  protected:
    void CrashBy(const std::string& how, const std::string& setting = "ulimit -c 0") {
        kit::Child::Options options;
        options.environment = m_environment;
        options.directory = m_dir.Path();
        kit::Child child("/bin/sh",
                         {"-c", setting + "; exec \"$1\" crash \"$2\"", "sh",
                          std::string(RQ_FIXTURES) + "/rq_process_fixture", how},
                         options);
        m_code = child.ExitCode();
        m_id = std::to_string(child.Id());
        m_errors = child.Errors();
    }
    void ExpectSaid(const std::string& text) {
        EXPECT_NE(m_errors.find(text), std::string::npos) << text << " is not in:\n" << m_errors;
    }
    // The only report; empty when there is none.
    std::filesystem::path Report() {
        const auto reports = kit::FindFiles(m_dir.Path(), ".txt");
        EXPECT_LE(reports.size(), 1u);
        return reports.empty() ? std::filesystem::path() : reports[0];
    }
    // A shell script as the reporter.
    void Reporter(const std::string& script) {
        const auto path = m_dir.Write("reporter", "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        m_environment = {{"RQ_CRASH_FOLDER", m_dir.Utf8("报告 folder")},
                         {"RQ_CRASH_REPORTER", Utf8FromPath(path)}};
    }

    kit::TempDir m_dir;
    std::vector<std::pair<std::string, std::string>> m_environment;
    int m_code = 0;
    std::string m_id;
    std::string m_errors;
};

TEST_F(Crash, SaysWhichSignalAndWhereThenEndsByIt) {
    CrashBy(std::to_string(SIGSEGV));
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with SIGSEGV\nhook\n"), 0u) << m_errors;
    ExpectSaid("rq_process_fixture(");
    EXPECT_TRUE(m_errors.ends_with("hook\nlog: " + m_id + " crashed with SIGSEGV in thread " + m_id +
                                   ", no report could be written\n"))
        << m_errors;
}

#if !defined(RQ_SANITIZED)
TEST_F(Crash, ABadPointer) {
    CrashBy("segv");
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with SIGSEGV\n"), 0u) << m_errors;
}

TEST_F(Crash, AStackThatIsUsedUp) {
    for (const char* how : {"stack", "stack-on-thread"}) {
        CrashBy(how);
        EXPECT_EQ(m_code, 1000 + SIGSEGV);
        EXPECT_EQ(m_errors.find("RQWorkerU: crashed with SIGSEGV\n"), 0u) << how << m_errors;
    }
}
#endif

TEST_F(Crash, EveryOtherSignal) {
    const std::vector<std::pair<int, std::string>> signals = {
        {SIGBUS, "SIGBUS"}, {SIGFPE, "SIGFPE"}, {SIGILL, "SIGILL"}, {SIGTRAP, "SIGTRAP"}, {SIGSYS, "SIGSYS"}};
    for (const auto& [number, name] : signals) {
        CrashBy(std::to_string(number));
        EXPECT_EQ(m_code, 1000 + number);
        EXPECT_EQ(m_errors.find("RQWorkerU: crashed with " + name + "\n"), 0u) << m_errors;
    }
}

TEST_F(Crash, AnExceptionThatNobodyCatches) {
    CrashBy("throw");
    EXPECT_EQ(m_code, 1000 + SIGABRT);
    ExpectSaid("nobody catches this");
    ExpectSaid("RQWorkerU: crashed with SIGABRT\n");
}

TEST_F(Crash, AWantedAbortSaysAndLeavesNothing) {
    Reporter("echo the stacks");
    CrashBy("abort");
    EXPECT_FALSE(Report().empty());
    std::filesystem::remove(Report());
    CrashBy("silent");
    EXPECT_EQ(m_code, 1000 + SIGABRT);
    EXPECT_EQ(m_errors, "");
    EXPECT_EQ(Report(), "");
}

// Where the system writes core files: an abort leaves one, a wanted abort none.
TEST_F(Crash, AWantedAbortLeavesNoCore) {
    const std::string program = std::string(RQ_FIXTURES) + "/rq_process_fixture";
    const auto dumps = [&](const std::string& how) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl("/bin/sh", "sh", "-c",
                    "cd \"$1\"; ulimit -c unlimited; exec \"$2\" crash \"$3\" 2>/dev/null", "sh",
                    m_dir.Path().c_str(), program.c_str(), how.c_str(), nullptr);
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
        return WCOREDUMP(status) != 0;
    };
    if (!dumps("abort")) GTEST_SKIP() << "this system writes no core files";
    EXPECT_FALSE(dumps("silent"));
}

TEST_F(Crash, TheReportIsWhatTheReporterWritesBelowTheHead) {
    Reporter("echo \"stacks of $1, thread $2\"; [ \"$3\" -gt 0 ] && env");
    CrashBy(std::to_string(SIGSEGV));
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    const std::string name = Utf8FromPath(Report().filename());
    EXPECT_EQ(name.size(), std::string("rq_process_fixture_20170531.101530_.txt").size() + m_id.size())
        << name;
    EXPECT_EQ(name.find("rq_process_fixture_20"), 0u);
    EXPECT_TRUE(name.ends_with("_" + m_id + ".txt")) << name;
    const auto lines = kit::ReadLines(Report());
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[0], "Crashed with SIGSEGV, sent by process " + m_id);
    EXPECT_EQ(lines[1].find("Time     20"), 0u);
    EXPECT_EQ(lines[2], "Process  " + m_id);
    EXPECT_EQ(lines[3], "Thread   " + m_id);
    EXPECT_EQ(lines[4], "stacks of " + m_id + ", thread " + m_id);
    EXPECT_EQ(kit::ReadText(Report()).find("LD_"), std::string::npos) << "it has an environment of its own";
    ExpectSaid("RQWorkerU: a report is in " + Utf8FromPath(Report()) + "\n");
    ExpectSaid("thread " + m_id + ", report: " + Utf8FromPath(Report()) + "\n");
    EXPECT_EQ(m_errors.find("rq_process_fixture("), std::string::npos) << "frames are in the report alone";
}

TEST_F(Crash, AReporterThatFailsOrHangsOrIsMissing) {
    for (const char* script : {"echo half; exit 1", "exec sleep 1000", "kill -9 $$"}) {
        Reporter(script);
        CrashBy(std::to_string(SIGSEGV));
        EXPECT_EQ(m_code, 1000 + SIGSEGV);
        const std::string report = kit::ReadText(Report());
        EXPECT_NE(report.find("own frames:\n"), std::string::npos) << script << ":\n" << report;
        EXPECT_NE(report.find("rq_process_fixture("), std::string::npos) << report;
        std::filesystem::remove(Report());
    }
    m_environment[1].second = "/nowhere/at/all";
    CrashBy(std::to_string(SIGSEGV));
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_NE(kit::ReadText(Report()).find("own frames:\n"), std::string::npos);
}

TEST_F(Crash, WithoutADescriptorLeft) {
    Reporter("echo the stacks");
    CrashBy("no-descriptors", "ulimit -c 0; ulimit -n 40");
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_NE(kit::ReadText(Report()).find("\nthe stacks\n"), std::string::npos) << m_errors;
}

TEST_F(Crash, WithoutStandardOutput) {
    Reporter("echo the stacks");
    CrashBy(std::to_string(SIGSEGV), "ulimit -c 0; exec >&-");
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_NE(kit::ReadText(Report()).find("\nthe stacks\n"), std::string::npos) << m_errors;
}

TEST_F(Crash, ManyThreadsAtOnceLeaveOneReport) {
    Reporter("sleep 0.2; echo the stacks");
    CrashBy("many-threads");
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_NE(kit::ReadText(Report()).find("\nthe stacks\n"), std::string::npos) << m_errors;
    EXPECT_EQ(m_errors.find("crashed"), m_errors.rfind("RQWorkerU: crashed") + 11) << m_errors;
}

TEST_F(Crash, AFolderThatCannotBeMade) {
    Reporter("echo the stacks");
    m_environment[0].second = m_dir.Utf8("reporter/below a file");
    CrashBy(std::to_string(SIGSEGV));
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_EQ(Report(), "");
    ExpectSaid("rq_process_fixture(");
    ExpectSaid(", no report could be written\n");
}

TEST_F(Crash, AHookThatHangsIsEndedBySignal) {
    CrashBy("hook-hangs");
    EXPECT_EQ(m_code, 1000 + SIGSEGV);
    EXPECT_EQ(m_errors, "RQWorkerU: crashed with SIGSEGV\nhook\n");
}

TEST_F(Crash, AForkedChildJustDies) {
    Reporter("echo the stacks");
    CrashBy("child");
    EXPECT_EQ(m_code, 0);
    EXPECT_EQ(m_errors, "");
    EXPECT_EQ(Report(), "");
}

}  // namespace
}  // namespace rq::platform

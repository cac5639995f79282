#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/os.h"
#include "kit/stage_copy.h"
#include "platform/crash.h"

namespace rq::platform {
namespace {

class CrashOnWindows : public ::testing::Test {
  protected:
    // Runs the fixture until it has crashed; its exit code.
    std::uint32_t CrashBy(const std::string& how) {
        kit::Child::Options options;
        options.environment = m_environment;
        options.environment.emplace_back("RQ_CRASH_FOLDER", m_dir.Utf8("转储"));
        kit::Child child(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"), {"crash", how}, options);
        const auto status = child.Wait();
        m_errors = child.Errors();
        m_id = std::to_string(child.Id());
        m_dumpName = "_" + m_id + ".dmp";
        return status ? static_cast<std::uint32_t>(status->code) : 0;
    }
    void ExpectADump() {
        const auto dumps = kit::FindFiles(m_dir.Path(), m_dumpName);
        ASSERT_EQ(dumps.size(), 1u) << m_errors;
        EXPECT_EQ(kit::ReadBytes(dumps[0]).substr(0, 4), "MDMP");
        const std::string name = Utf8FromPath(dumps[0].filename());
        EXPECT_EQ(name.find("rq_process_fixture_20"), 0u) << name;
        EXPECT_EQ(name.size(), std::string("rq_process_fixture_20170531.101530").size() + m_dumpName.size())
            << name;
        EXPECT_NE(m_errors.find("RQWorkerU: a dump is in " + m_dir.Utf8("转储")), std::string::npos)
            << m_errors;
        const auto log = m_errors.find("\nlog: ");
        ASSERT_NE(log, std::string::npos) << m_errors;
        EXPECT_NE(m_errors.find("crashed with ", log), std::string::npos) << m_errors;
        EXPECT_TRUE(m_errors.ends_with(name + "\n")) << m_errors;
    }

    void ExpectNoReport(const std::string& name) {
        const std::string line = "crashed with " + name + " in thread ";
        const auto log = m_errors.find("\nlog: ");
        ASSERT_NE(log, std::string::npos) << m_errors;
        EXPECT_NE(m_errors.find(line, log), std::string::npos) << m_errors;
        EXPECT_TRUE(m_errors.ends_with(", no report could be written\n")) << m_errors;
        EXPECT_EQ(m_errors.find("\nlog: ", log + 1), std::string::npos) << m_errors;
    }

    kit::TempDir m_dir;
    // A busy machine may need long for a dump in Wine.
    std::vector<std::pair<std::string, std::string>> m_environment = {{"RQ_CRASH_LIMIT_S", "50"}};
    std::string m_errors;
    std::string m_id;
    std::string m_dumpName;
};

TEST_F(CrashOnWindows, ABadPointer) {
    EXPECT_EQ(CrashBy("segv"), 0xC0000005u);
    EXPECT_EQ(
        m_errors.find(
            "RQWorkerU: crashed with EXCEPTION_ACCESS_VIOLATION 0xC0000005 at rq_process_fixture.exe+0x"),
        0u)
        << m_errors;
    EXPECT_LT(m_errors.find("\nhook\n"), m_errors.find("a dump is in")) << m_errors;
    ExpectADump();
}

TEST_F(CrashOnWindows, TheModulesNameIsUtf8) {
    const auto program = m_dir.Path() / PathFromUtf8("插件.exe");
    std::filesystem::copy_file(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"), program);
    kit::Child child(program, {"crash", "segv"});
    ASSERT_TRUE(child.Wait());
    EXPECT_EQ(
        child.Errors().find("RQWorkerU: crashed with EXCEPTION_ACCESS_VIOLATION 0xC0000005 at 插件.exe+0x"),
        0u)
        << child.Errors();
}

TEST_F(CrashOnWindows, AnExceptionOfAnyOtherKind) {
    EXPECT_EQ(CrashBy("0xE0001234"), 0xE0001234u);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with an exception 0xE0001234 at "), 0u) << m_errors;
    ExpectADump();
}

TEST_F(CrashOnWindows, AStackThatIsUsedUp) {
    if (kit::IsWine()) GTEST_SKIP() << "Wine ends a thread whose stack is used up without any handler";
    EXPECT_EQ(CrashBy("stack"), 0xC00000FDu);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with EXCEPTION_STACK_OVERFLOW"), 0u) << m_errors;
}

// As if the stack were used up: another thread writes the dump.
TEST_F(CrashOnWindows, TheHelperWritesTheDump) {
    EXPECT_EQ(CrashBy("0xC00000FD"), 0xC00000FDu);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with EXCEPTION_STACK_OVERFLOW"), 0u) << m_errors;
    ExpectADump();
}

TEST_F(CrashOnWindows, WithTheHeapsLock) {
    m_environment = {{"RQ_CRASH_LIMIT_S", "10"}};
    EXPECT_EQ(CrashBy("heap-locked"), 0xC0000005u);
    EXPECT_EQ(m_errors.find("RQWorkerU: crashed with EXCEPTION_ACCESS_VIOLATION"), 0u) << m_errors;
    if (kit::IsWine() && m_errors.find("a dump is in") == std::string::npos)
        GTEST_SKIP() << "Wine's dump hung, and the process was ended in time";
    ExpectADump();
}

TEST_F(CrashOnWindows, AHookThatHangsIsEnded) {
    m_environment = {{"RQ_CRASH_LIMIT_S", "0"}};
    EXPECT_EQ(CrashBy("hook-hangs"), 0xC0000005u);
    EXPECT_TRUE(m_errors.ends_with("hook\n")) << m_errors;
}

TEST_F(CrashOnWindows, ADumpThatHangsIsEnded) {
    m_environment = {{"RQ_CRASH_LIMIT_S", "0"}, {"RQ_CRASH_DUMP", "hangs"}};
    EXPECT_EQ(CrashBy("segv"), 0xC0000005u);
    EXPECT_TRUE(m_errors.ends_with("hook\n")) << m_errors;
    EXPECT_EQ(CrashBy("0xC00000FD"), 0xC00000FDu);
    EXPECT_TRUE(m_errors.ends_with("hook\n")) << m_errors;
}

TEST_F(CrashOnWindows, ADumpThatFails) {
    m_environment = {{"RQ_CRASH_DUMP", "fails"}};
    EXPECT_EQ(CrashBy("segv"), 0xC0000005u);
    EXPECT_NE(m_errors.find("\nRQWorkerU: no dump could be written to "), std::string::npos) << m_errors;
    ExpectNoReport("EXCEPTION_ACCESS_VIOLATION");
}

TEST_F(CrashOnWindows, ADumpThatCrashesItself) {
    m_environment = {{"RQ_CRASH_DUMP", "crashes"}};
    EXPECT_EQ(CrashBy("segv"), 0xC0000005u) << "not the first crash's code";
    ExpectNoReport("EXCEPTION_ACCESS_VIOLATION");
    EXPECT_EQ(CrashBy("0xC00000FD"), 0xC00000FDu);
    ExpectNoReport("EXCEPTION_STACK_OVERFLOW");
}

TEST_F(CrashOnWindows, AnExceptionThatNobodyCatches) {
    EXPECT_EQ(CrashBy("throw"), 3u);
    EXPECT_NE(m_errors.find("nobody catches this"), std::string::npos) << m_errors;
    EXPECT_NE(m_errors.find("RQWorkerU: crashed with SIGABRT\n"), std::string::npos) << m_errors;
    ExpectADump();
}

TEST_F(CrashOnWindows, AWantedAbortSaysNothing) {
    EXPECT_EQ(CrashBy("abort"), 3u);
    EXPECT_NE(m_errors, "");
    EXPECT_EQ(CrashBy("silent"), 3u);
    EXPECT_EQ(m_errors, "");
    EXPECT_TRUE(kit::FindFiles(m_dir.Path(), m_dumpName).empty());
}

}  // namespace
}  // namespace rq::platform

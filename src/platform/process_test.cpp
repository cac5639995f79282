#include "platform/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::platform {
namespace {

using kit::TempDir;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kLong{60};

ProcessSpec Fixture(std::vector<std::string> arguments) {
    ProcessSpec spec;
    spec.program = std::string(RQ_FIXTURES) + "/rq_process_fixture";
    spec.arguments = std::move(arguments);
    return spec;
}

void SendOutputTo(ProcessSpec& spec, const std::string& file) {
    spec.output = ProcessSpec::Stream::File;
    spec.outputFile = file;
}

TEST(Process, ExitCode) {
    auto child = ChildProcess::Start(Fixture({"exit", "7"}));
    ASSERT_NE(child, nullptr);
    const auto status = child->Wait(kLong);
    ASSERT_TRUE(status);
    EXPECT_FALSE(status->signalled);
    EXPECT_EQ(status->code, 7);
    // Asking again gives the same.
    EXPECT_EQ(child->WaitForever()->code, 7);
}

TEST(Process, ArgumentsArriveAsTheyAre) {
    const TempDir dir;
    ProcessSpec spec = Fixture({"arguments", "", "two words", "\"quoted\\\"", "中文 $HOME *"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "out"), "[]\n[two words]\n[\"quoted\\\"]\n[中文 $HOME *]\n");
}

TEST(Process, FailuresAreToldBeforeAnythingRuns) {
    OsError error;
    ProcessSpec missing;
    missing.program = "/no/such/program";
    EXPECT_EQ(ChildProcess::Start(missing, &error), nullptr);
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_EQ(error.message, "start /no/such/program: No such file or directory");

    ProcessSpec folder = Fixture({"exit", "0"});
    folder.directory = "/no/such/folder";
    EXPECT_EQ(ChildProcess::Start(folder, &error), nullptr);
    EXPECT_EQ(error.message, "chdir /no/such/folder: No such file or directory");

    ProcessSpec input = Fixture({"exit", "0"});
    input.input = ProcessSpec::Stream::File;
    input.inputFile = "/no/such/file";
    EXPECT_EQ(ChildProcess::Start(input, &error), nullptr);
    EXPECT_EQ(error.message, "open /no/such/file: No such file or directory");
}

TEST(Process, AWaitEndsWithoutTheChild) {
    auto child = ChildProcess::Start(Fixture({"hang"}));
    ASSERT_NE(child, nullptr);
    EXPECT_FALSE(child->Wait(milliseconds(0)));
    EXPECT_FALSE(child->Wait(milliseconds(20)));
    child->KillTree();
    const auto status = child->Wait(kLong);
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->signalled);
    EXPECT_EQ(status->code, SIGKILL);
    child->KillTree();  // after the end: nothing happens
}

TEST(Process, ARequestMayBeObeyed) {
    auto child = ChildProcess::Start(Fixture({"hang"}));
    ASSERT_NE(child, nullptr);
    child->RequestEnd();
    EXPECT_EQ(child->Wait(kLong)->code, SIGTERM);
}

TEST(Process, ARequestMayBeIgnored) {
    const TempDir dir;
    ProcessSpec spec = Fixture({"ignore-term"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(kit::WaitForText(dir.Path() / "out", "ready"));
    child->RequestEnd();
    EXPECT_FALSE(child->Wait(milliseconds(50)));
    child->KillTree();
    EXPECT_EQ(child->Wait(kLong)->code, SIGKILL);
}

TEST(Process, KillTreeFromAnotherThreadEndsAWait) {
    auto child = ChildProcess::Start(Fixture({"hang"}));
    ASSERT_NE(child, nullptr);
    std::thread killer([&] { child->KillTree(); });
    EXPECT_TRUE(child->Wait(kLong));
    killer.join();
}

// True when the process is gone, or waits only to be taken off the table.
bool HasEnded(pid_t pid) {
    const std::string status = kit::ReadBytes("/proc/" + std::to_string(pid) + "/status");
    return status.empty() || status.find("State:\tZ") != std::string::npos;
}

TEST(Process, KillTreeReachesDescendantsAfterTheChildHasEnded) {
    const TempDir dir;
    auto child = ChildProcess::Start(Fixture({"grandchild", dir.Utf8("pid")}));
    ASSERT_NE(child, nullptr);
    ASSERT_EQ(child->Wait(kLong)->code, 0);
    const pid_t grandchild = std::stoi(kit::ReadBytes(dir.Path() / "pid"));
    EXPECT_FALSE(HasEnded(grandchild));
    child->KillTree();
    EXPECT_TRUE(kit::WaitUntil([&] { return HasEnded(grandchild); }));
}

TEST(Process, DescriptorsStayWithTheParent) {
    // One of each kind, all inheritable as some libraries open them.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const int file = ::open("/dev/null", O_RDONLY);
    const TempDir dir;
    ProcessSpec spec = Fixture({"descriptors"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "out"), "");
    ::close(pair[0]);
    ::close(pair[1]);
    ::close(file);
}

TEST(Process, SignalsAreDefaultInTheChild) {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t block, before;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &block, &before);
    const TempDir dir;
    ProcessSpec spec = Fixture({"signals"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "out"), "");
}

TEST(Process, StreamsAndEnvironment) {
    const TempDir dir;
    dir.Write("in", "from a file");
    ProcessSpec spec;
    spec.program = "/bin/sh";
    spec.arguments = {"-c", "cat; echo \" $RQ_ADDED $PWD\"; echo bad >&2"};
    spec.environment = {{"RQ_ADDED", "新"}};
    spec.directory = dir.Utf8();
    spec.input = ProcessSpec::Stream::File;
    spec.inputFile = dir.Utf8("in");
    SendOutputTo(spec, dir.Utf8("both"));
    spec.errors = ProcessSpec::Stream::File;
    spec.errorsFile = dir.Utf8("both");
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "both"),
              "from a file 新 " + std::filesystem::canonical(dir.Path()).string() + "\nbad\n");
}

TEST(Process, AnEnvironmentVariableIsReplaced) {
    const kit::ScopedEnvironment before("RQ_REPLACED", "old");
    const TempDir dir;
    ProcessSpec spec;
    spec.program = "/usr/bin/env";
    spec.environment = {{"RQ_REPLACED", "new"}};
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    const std::string all = kit::ReadBytes(dir.Path() / "out");
    EXPECT_NE(all.find("RQ_REPLACED=new\n"), std::string::npos);
    EXPECT_EQ(all.find("RQ_REPLACED=old\n"), std::string::npos);
}

TEST(Process, AChildOutlivesItsObjectAndIsTakenOffTheTableLater) {
    pid_t pid = 0;
    {
        auto child = ChildProcess::Start(Fixture({"hang"}));
        ASSERT_NE(child, nullptr);
        pid = static_cast<pid_t>(child->Id());
    }
    EXPECT_FALSE(HasEnded(pid));
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(kit::WaitUntil([&] { return HasEnded(pid); }));
    auto next = ChildProcess::Start(Fixture({"exit", "0"}));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(kit::ReadBytes("/proc/" + std::to_string(pid) + "/status"), "");
    EXPECT_TRUE(next->Wait(kLong));
}

TEST(StartDetached, RunsTheProgramWithoutArgumentsInASessionOfItsOwn) {
    const TempDir dir;
    const std::string copy = dir.Utf8("程序 copy");
    std::filesystem::copy_file(std::string(RQ_FIXTURES) + "/rq_process_fixture", copy);
    EXPECT_GT(StartDetached("\"" + copy + "\""), 31u);
    EXPECT_TRUE(kit::WaitForText(copy + ".ran", "\n"));
    EXPECT_EQ(kit::ReadBytes(copy + ".ran"), "1 1\n");
    // It is nobody's child here: only its own session's.
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(StartDetached, FailureCodes) {
    const TempDir dir;
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("missing") + "\""), 2u);
    EXPECT_EQ(StartDetached(dir.Utf8("missing")), 2u);
    dir.Write("file", "x");
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("file/below") + "\""), 3u);
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("file") + "\""), 5u);
}

TEST(Process, Numbers) {
    EXPECT_EQ(CurrentProcessId(), static_cast<std::uint64_t>(::getpid()));
    EXPECT_NE(CurrentThreadId(), 0u);
    std::uint64_t other = 0;
    std::thread([&] { other = CurrentThreadId(); }).join();
    EXPECT_NE(other, CurrentThreadId());
}

}  // namespace
}  // namespace rq::platform

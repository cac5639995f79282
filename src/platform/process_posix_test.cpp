// What signals and descriptors have to do with child processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "platform/file_limit.h"
#include "platform/found_process.h"
#include "platform/process.h"
#include "platform/process_tree.h"

namespace rq::platform {
namespace {

using kit::TempDir;

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

TEST(ProcessOnLinux, DescriptorsStayWithTheParent) {
    // One of each kind, all inheritable as some libraries open them.
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const int file = ::open("/dev/null", O_RDONLY);
    const TempDir dir;
    ProcessSpec spec = Fixture({"handles"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "out"), "");
    ::close(pair[0]);
    ::close(pair[1]);
    ::close(file);
}

TEST(ProcessOnLinux, ARaisedLimitOfFilesStaysWithTheParent) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit low{std::min<rlim_t>(before.rlim_max, 200), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    RaiseFileLimit();
    RaiseFileLimit();
    const TempDir dir;
    ProcessSpec spec;
    spec.program = "/bin/sh";
    spec.arguments = {"-c", "ulimit -Sn"};
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    setrlimit(RLIMIT_NOFILE, &before);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "out"), std::to_string(low.rlim_cur) + "\n");
}

TEST(ProcessOnLinux, AFoundProcessIsEndedWithItsTree) {
    const TempDir dir;
    ProcessSpec spec;
    spec.program = "/bin/sh";
    spec.arguments = {"-c", "sleep 600 & echo $! > \"$0\"; wait", dir.Utf8("pid")};
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(kit::WaitForText(dir.Path() / "pid", "\n"));
    const std::uint64_t inner = std::stoull(kit::ReadBytes(dir.Path() / "pid"));
    const auto found = FindProcess(child->Id(), ProcessMark(child->Id()));
    ASSERT_NE(found, nullptr);
    ::kill(static_cast<pid_t>(child->Id()), SIGKILL);
    const auto status = found->Wait(kLong);
    ASSERT_TRUE(status);
    EXPECT_FALSE(status->isKnown);
    child->Wait(kLong);
    child.reset();  // off the table: its number leads the group alone
    EXPECT_TRUE(ProcessRuns(inner));
    found->KillTree();
    EXPECT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(inner); }));
}

TEST(ProcessOnLinux, ATreeIsFoundByItsNameAndWhatIsLeftOfItEnded) {
    const TempDir dir;
    ProcessSpec spec;
    spec.program = "/bin/sh";
    spec.arguments = {"-c", "sleep 600 & echo $! > \"$0\"; wait", dir.Utf8("pid")};
    spec.tree = "rq-tree-test-" + std::to_string(CurrentProcessId());
    EXPECT_EQ(FindTree(spec.tree), std::vector<std::uint64_t>{});
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    const std::uint64_t leader = child->Id();
    ASSERT_TRUE(kit::WaitForText(dir.Path() / "pid", "\n"));
    const std::uint64_t inner = std::stoull(kit::ReadBytes(dir.Path() / "pid"));
    EXPECT_EQ(FindTree(spec.tree), std::vector{leader});
    EXPECT_EQ(FindTree(spec.tree + "1"), std::vector<std::uint64_t>{});
    ::kill(static_cast<pid_t>(leader), SIGKILL);
    child->Wait(kLong);
    child.reset();  // off the table: its number leads the group alone
    EXPECT_EQ(FindTree(spec.tree), std::vector<std::uint64_t>{});
    EndTree("another", leader);
    EndTree(spec.tree, inner);
    EXPECT_TRUE(ProcessRuns(inner));
    EndTree(spec.tree, leader);
    EXPECT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(inner); }));
}

TEST(ProcessOnLinux, SignalsAreDefaultInTheChild) {
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

TEST(ProcessOnLinux, AChildOutlivesItsObjectAndIsTakenOffTheTableLater) {
    pid_t pid = 0;
    {
        auto child = ChildProcess::Start(Fixture({"hang"}));
        ASSERT_NE(child, nullptr);
        pid = static_cast<pid_t>(child->Id());
    }
    EXPECT_TRUE(ProcessRuns(static_cast<std::uint64_t>(pid)));
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(static_cast<std::uint64_t>(pid)); }));
    auto next = ChildProcess::Start(Fixture({"exit", "0"}));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(kit::ReadBytes("/proc/" + std::to_string(pid) + "/status"), "");
    EXPECT_TRUE(next->Wait(kLong));
}

TEST(ProcessOnLinux, ThisProcessHasItsNumber) {
    EXPECT_EQ(CurrentProcessId(), static_cast<std::uint64_t>(::getpid()));
}

TEST(ProcessOnLinux, APathThatIsStartedDetachedMayHoldQuotes) {
    const TempDir dir;
    const std::string copy = dir.Utf8("a \"copy\" of it");
    std::filesystem::copy_file(std::string(RQ_FIXTURES) + "/rq_process_fixture", copy);
    EXPECT_GT(StartDetached("\"" + copy + "\""), 31u);
    EXPECT_TRUE(kit::WaitForText(copy + ".ran", "\n"));
}

TEST(ProcessOnLinux, WhatIsStartedDetachedIsNobodysChildHere) {
    const TempDir dir;
    const std::string copy = dir.Utf8("copy");
    std::filesystem::copy_file(std::string(RQ_FIXTURES) + "/rq_process_fixture", copy);
    EXPECT_GT(StartDetached("\"" + copy + "\""), 31u);
    EXPECT_TRUE(kit::WaitForText(copy + ".ran", "\n"));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
}  // namespace rq::platform

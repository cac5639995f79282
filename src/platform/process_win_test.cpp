// What jobs and handles have to do with child processes.
#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/os.h"
#include "kit/stage_copy.h"
#include "platform/child_start_win.h"
#include "platform/process.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

std::filesystem::path Fixture() {
    return kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture");
}

TEST(ProcessOnWindows, HandlesStayWithTheParent) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    // Many, so that the child has none of its own under the last ones' numbers.
    std::vector<WinHandle> events;
    for (int i = 0; i < 500; ++i) events.emplace_back(::CreateEventW(&inheritable, TRUE, FALSE, nullptr));
    std::vector<std::string> arguments{"handles"};
    for (std::size_t i = 400; i < events.size(); ++i)
        arguments.push_back(std::to_string(reinterpret_cast<std::uintptr_t>(events[i].Get())));
    kit::Child child(Fixture(), arguments);
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "");
}

// One that has not run its first instruction.
TEST(ProcessOnWindows, AChildIsInItsJobFromTheStart) {
    const WinHandle job(::CreateJobObjectW(nullptr, nullptr));
    ProcessStart start;
    start.program = Fixture().wstring();
    start.commandLine = L"fixture hang";
    start.job = job.Get();
    start.flags = CREATE_SUSPENDED;
    StartedProcess started;
    ASSERT_TRUE(CreateWithStreams(start, started)) << SystemMessage(::GetLastError());
    BOOL isInJob = FALSE;
    EXPECT_TRUE(::IsProcessInJob(started.process.Get(), job.Get(), &isInJob));
    EXPECT_TRUE(isInJob);
    EXPECT_TRUE(::TerminateJobObject(job.Get(), 7));
    ASSERT_EQ(::WaitForSingleObject(started.process.Get(), 60'000), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(::GetExitCodeProcess(started.process.Get(), &code));
    EXPECT_EQ(code, 7u);
}

TEST(ProcessOnWindows, AJobIsFoundByItsNameAsLongAsItsProcessRuns) {
    ProcessSpec spec;
    spec.program = Utf8FromPath(Fixture());
    spec.arguments = {"hang"};
    spec.tree = "rq-process-test-" + std::to_string(CurrentProcessId());
    const auto open = [&] {
        return WinHandle(::OpenJobObjectW(JOB_OBJECT_TERMINATE, FALSE, WideOf(spec.tree).c_str()));
    };
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    const auto id = child->Id();
    const WinHandle process(::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(id)));
    child.reset();
    EXPECT_TRUE(ProcessRuns(id)) << "a job whose starter has gone ends nothing";
    const WinHandle job = open();
    ASSERT_TRUE(job.Valid());
    EXPECT_TRUE(::TerminateJobObject(job.Get(), 7));
    ASSERT_EQ(::WaitForSingleObject(process.Get(), 60'000), WAIT_OBJECT_0);
}

// A worker that is killed hard, by somebody who knows nothing of its children.
TEST(ProcessOnWindows, WhatAContainedProcessStartedEndsWithItButNotItsSuccessor) {
    const kit::TempDir dir;
    const std::string successor = dir.Utf8("后继.exe");
    std::filesystem::copy_file(Fixture(), PathFromUtf8(successor));
    kit::Child worker(Fixture(), {"contain", dir.Utf8("pid"), successor});
    ASSERT_TRUE(kit::WaitForText(dir.Path() / "pid", "\n"));
    const std::uint64_t child = std::stoull(kit::ReadBytes(dir.Path() / "pid"));
    EXPECT_TRUE(ProcessRuns(child));
    kit::EndProcess(worker.Id());
    EXPECT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(child); }));
    EXPECT_TRUE(kit::WaitForText(PathFromUtf8(successor + ".ran"), "\n"));
    EXPECT_EQ(kit::ReadBytes(PathFromUtf8(successor + ".ran")), "1 1\n");
}

}  // namespace
}  // namespace rq::platform

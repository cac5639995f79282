#include "platform/process.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/stage_copy.h"
#include "kit/temp_dir.h"

namespace rq::platform {
namespace {

using kit::TempDir;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kLong{60};

ProcessSpec Fixture(std::vector<std::string> arguments) {
    ProcessSpec spec;
    spec.program = Utf8FromPath(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"));
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
    EXPECT_EQ(kit::ReadText(dir.Path() / "out"), "[]\n[two words]\n[\"quoted\\\"]\n[中文 $HOME *]\n");
}

// As its first act, before main, it looks where it is.
TEST(Process, AChildBeginsInATreeOfItsOwn) {
    const TempDir dir;
    ProcessSpec spec = Fixture({"tree"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    EXPECT_EQ(kit::ReadText(dir.Path() / "out"), "of its own\n");
}

TEST(Process, FailuresAreToldBeforeAnythingRuns) {
    const TempDir dir;
    const std::string none = dir.Utf8("没有");
    const auto because = [](const OsError& error) { return ": " + kit::Words(error.code); };
    OsError error;
    ProcessSpec missing;
    missing.program = none;
    EXPECT_EQ(ChildProcess::Start(missing, &error), nullptr);
    EXPECT_EQ(error.code, kit::Codes().notFound);
    EXPECT_EQ(error.message, "start " + none + because(error));

    ProcessSpec folder = Fixture({"exit", "0"});
    folder.directory = none;
    EXPECT_EQ(ChildProcess::Start(folder, &error), nullptr);
    EXPECT_EQ(error.code, kit::Codes().notFound);
    EXPECT_EQ(error.message, "chdir " + none + because(error));

    ProcessSpec input = Fixture({"exit", "0"});
    input.input = ProcessSpec::Stream::File;
    input.inputFile = none;
    EXPECT_EQ(ChildProcess::Start(input, &error), nullptr);
    EXPECT_EQ(error.code, kit::Codes().notFound);
    EXPECT_EQ(error.message, "open " + none + because(error));
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
    EXPECT_EQ(status->code, static_cast<int>(kKilledExitCode));
    child->KillTree();  // after the end: nothing happens
}

// Asked again until it hears: it may not listen yet.
std::optional<ExitStatus> AskUntilItEnds(ChildProcess& child) {
    std::optional<ExitStatus> status;
    kit::WaitUntil([&] {
        child.RequestEnd();
        status = child.Wait(milliseconds(20));
        return status.has_value();
    });
    return status;
}

TEST(Process, ARequestMayBeObeyed) {
    auto child = ChildProcess::Start(Fixture({"hang"}));
    ASSERT_NE(child, nullptr);
    const auto status = AskUntilItEnds(*child);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 15);  // the fixture's code on Windows, SIGTERM's number elsewhere
}

TEST(Process, ARequestMayBeIgnored) {
    const TempDir dir;
    ProcessSpec spec = Fixture({"ignore-end"});
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(kit::WaitForText(dir.Path() / "out", "ready"));
    child->RequestEnd();
    EXPECT_FALSE(child->Wait(milliseconds(50)));
    child->KillTree();
    EXPECT_EQ(child->Wait(kLong)->code, static_cast<int>(kKilledExitCode));
}

TEST(Process, KillTreeFromAnotherThreadEndsAWait) {
    auto child = ChildProcess::Start(Fixture({"hang"}));
    ASSERT_NE(child, nullptr);
    std::thread killer([&] { child->KillTree(); });
    EXPECT_TRUE(child->Wait(kLong));
    killer.join();
}

TEST(Process, KillTreeReachesDescendantsAfterTheChildHasEnded) {
    const TempDir dir;
    auto child = ChildProcess::Start(Fixture({"grandchild", dir.Utf8("pid")}));
    ASSERT_NE(child, nullptr);
    ASSERT_EQ(child->Wait(kLong)->code, 0);
    const std::uint64_t grandchild = std::stoull(kit::ReadBytes(dir.Path() / "pid"));
    EXPECT_TRUE(ProcessRuns(grandchild));
    child->KillTree();
    EXPECT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(grandchild); }));
}

TEST(Process, StreamsAndEnvironment) {
    const TempDir dir;
    dir.Write("in", "from a file");
    ProcessSpec spec = Fixture({"streams", "RQ_ADDED"});
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
    EXPECT_EQ(kit::ReadText(dir.Path() / "both"),
              "from a file 新 " + Utf8FromPath(std::filesystem::canonical(dir.Path())) + "\nbad\n");
}

TEST(Process, AnEnvironmentVariableIsReplaced) {
    const kit::ScopedEnvironment before("RQ_REPLACED", "old");
    const kit::ScopedEnvironment other("RQ_OTHER", "留");
    const TempDir dir;
    ProcessSpec spec = Fixture({"environment"});
    spec.environment = {{"RQ_REPLACED", "new"}};
    SendOutputTo(spec, dir.Utf8("out"));
    auto child = ChildProcess::Start(spec);
    ASSERT_NE(child, nullptr);
    ASSERT_TRUE(child->Wait(kLong));
    const std::string all = "\n" + kit::ReadText(dir.Path() / "out");
    EXPECT_NE(all.find("\nRQ_REPLACED=new\n"), std::string::npos);
    EXPECT_NE(all.find("\nRQ_OTHER=留\n"), std::string::npos);
    EXPECT_EQ(all.find("\nRQ_REPLACED=old\n"), std::string::npos);
}

TEST(Process, AChildOutlivesItsObject) {
    std::uint64_t id = 0;
    {
        auto child = ChildProcess::Start(Fixture({"hang"}));
        ASSERT_NE(child, nullptr);
        id = child->Id();
    }
    EXPECT_TRUE(ProcessRuns(id));
    kit::EndProcess(id);
    EXPECT_TRUE(kit::WaitUntil([&] { return !ProcessRuns(id); }));
}

TEST(StartDetached, RunsTheProgramWithoutArgumentsApartFromThisOne) {
    const TempDir dir;
    const auto program = kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture");
    const std::string copy = dir.Utf8("程序 copy" + Utf8FromPath(program.extension()));
    std::filesystem::copy_file(program, PathFromUtf8(copy));
    EXPECT_GT(StartDetached("\"" + copy + "\""), 31u);
    EXPECT_TRUE(kit::WaitForText(PathFromUtf8(copy + ".ran"), "\n"));
    EXPECT_EQ(kit::ReadBytes(PathFromUtf8(copy + ".ran")), "1 1\n");
}

TEST(StartDetached, FailureCodes) {
    const TempDir dir;
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("missing") + "\""), 2u);
    EXPECT_EQ(StartDetached(dir.Utf8("missing")), 2u);
    dir.Write("file", "x");
    // Wine says of a name below a file that it is not found.
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("file/below") + "\""), kit::IsWine() ? 2u : 3u);
    EXPECT_EQ(StartDetached("\"" + dir.Utf8("file") + "\""), static_cast<unsigned>(kit::Codes().notAProgram));
}

TEST(Process, Numbers) {
    EXPECT_TRUE(ProcessRuns(CurrentProcessId()));
    EXPECT_FALSE(ProcessRuns(0x7FFFFFF0));
    EXPECT_NE(CurrentThreadId(), 0u);
    std::uint64_t other = 0;
    std::thread([&] { other = CurrentThreadId(); }).join();
    EXPECT_NE(other, CurrentThreadId());
}

}  // namespace
}  // namespace rq::platform

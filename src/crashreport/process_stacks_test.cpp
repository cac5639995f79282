// The program as an operator starts it, on a process that just waits.
#include <gtest/gtest.h>

#include "kit/child.h"
#include "platform/files.h"

namespace rq::crashreport {
namespace {

kit::Child Waiting() {
    return kit::Child(std::string(RQ_FIXTURES) + "/rq_process_fixture", {"ignore-end"});
}

TEST(CrashReportProgram, WritesTheStacksOfAProcessAndLetsItGoOn) {
    kit::Child child = Waiting();
    ASSERT_TRUE(kit::WaitForText(child.OutputFile(), "ready"));
    const std::string id = std::to_string(child.Id());
    kit::Child reporter(RQ_PROGRAM, {id, id, "0"});
    EXPECT_EQ(reporter.ExitCode(), 0) << reporter.Errors();
    const std::string output = reporter.Output();
    EXPECT_EQ(output.find("\nThread " + id + " \"rq_process_fixt\"\n  #0   0x"), 0u) << output;
    EXPECT_NE(output.find("nanosleep+0x"), std::string::npos) << output;
    EXPECT_NE(output.find("process_fixture.cpp:"), std::string::npos) << output;
    EXPECT_NE(output.find(" main+0x"), std::string::npos) << output;
    EXPECT_TRUE(child.IsRunning());
    kit::Child again(RQ_PROGRAM, {id, id, "0"});
    EXPECT_EQ(again.ExitCode(), 0) << "nobody else holds it";
}

TEST(CrashReportProgram, AProcessThatIsNotThere) {
    kit::Child child(RQ_PROGRAM, {"2147483647", "2147483647", "0"});
    EXPECT_EQ(child.ExitCode(), 1);
    EXPECT_EQ(child.Output(), "\nptrace: No such process\n");
}

TEST(CrashReportProgram, AContextThatCannotBeReadMeansTheRegistersAsTheyAre) {
    kit::Child child = Waiting();
    ASSERT_TRUE(kit::WaitForText(child.OutputFile(), "ready"));
    const std::string id = std::to_string(child.Id());
    kit::Child reporter(RQ_PROGRAM, {id, id, "64"});
    EXPECT_EQ(reporter.ExitCode(), 0);
    EXPECT_NE(reporter.Output().find(" main+0x"), std::string::npos) << reporter.Output();
}

TEST(CrashReportProgram, AWrongCall) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"1"},
                                                      {"1", "1"},
                                                      {"x", "1", "0"},
                                                      {"1", "-1", "0"},
                                                      {"1", "1", "0", "0"}}) {
        kit::Child child(RQ_PROGRAM, arguments);
        EXPECT_EQ(child.ExitCode(), 2);
        EXPECT_EQ(child.Errors(), "usage: rqcrash-report PROCESS THREAD CONTEXT\n");
    }
}

}  // namespace
}  // namespace rq::crashreport

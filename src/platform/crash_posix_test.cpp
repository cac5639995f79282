#include <gtest/gtest.h>
#include <signal.h>

#include "kit/child.h"
#include "platform/start_up.h"

namespace rq::platform {
namespace {

struct Outcome {
    int code = 0;
    std::string errors;
};

Outcome CrashBy(const std::string& how) {
    // Without a core dump, which the tests do not want to leave behind; the sanitizers leave the signals to
    // us.
    kit::Child child("/bin/sh", {"-c", "ulimit -c 0; exec \"$1\" crash \"$2\"", "sh",
                                 std::string(RQ_FIXTURES) + "/rq_process_fixture", how});
    const int code = child.ExitCode();
    return {code, child.Errors()};
}

TEST(Crash, SaysWhichSignalAndWhereThenEndsByIt) {
    const Outcome outcome = CrashBy(std::to_string(SIGSEGV));
    EXPECT_EQ(outcome.code, 1000 + SIGSEGV);
    EXPECT_EQ(outcome.errors.find("RQWorkerU: crashed with SIGSEGV\n"), 0u) << outcome.errors;
    EXPECT_NE(outcome.errors.find("rq_process_fixture"), std::string::npos) << outcome.errors;
    // The hook runs after all has been said.
    EXPECT_TRUE(outcome.errors.ends_with("\nhook\n")) << outcome.errors;
}

#if !defined(RQ_SANITIZED)
TEST(Crash, ABadPointer) {
    const Outcome outcome = CrashBy("segv");
    EXPECT_EQ(outcome.code, 1000 + SIGSEGV);
    EXPECT_EQ(outcome.errors.find("RQWorkerU: crashed with SIGSEGV\n"), 0u) << outcome.errors;
}
#endif

TEST(Crash, EveryOtherSignal) {
    for (int number : {SIGBUS, SIGFPE, SIGILL}) {
        const Outcome outcome = CrashBy(std::to_string(number));
        EXPECT_EQ(outcome.code, 1000 + number);
        EXPECT_EQ(outcome.errors.find("RQWorkerU: crashed with SIG"), 0u) << outcome.errors;
    }
}

TEST(Crash, AnExceptionThatNobodyCatches) {
    const Outcome outcome = CrashBy("throw");
    EXPECT_EQ(outcome.code, 1000 + SIGABRT);
    EXPECT_NE(outcome.errors.find("nobody catches this"), std::string::npos) << outcome.errors;
    EXPECT_NE(outcome.errors.find("RQWorkerU: crashed with SIGABRT\n"), std::string::npos) << outcome.errors;
}

TEST(Crash, AWantedAbortSaysNothing) {
    EXPECT_NE(CrashBy("abort").errors, "");
    const Outcome outcome = CrashBy("silent");
    EXPECT_EQ(outcome.code, 1000 + SIGABRT);
    EXPECT_EQ(outcome.errors, "");
}

}  // namespace
}  // namespace rq::platform

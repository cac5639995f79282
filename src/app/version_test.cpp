#include "app/version.h"

#include <gtest/gtest.h>

#include "util/log_capture.h"

namespace rq {
namespace {

TEST(Version, Text) {
    EXPECT_EQ(GetWorkerVersion(), "RQWorkerU.exe Version:1.13.0.0 build20170531");
}

TEST(Version, LogLine) {
    const LogCapture log;
    LogWorkerVersion();
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{{"ACT", 2, "RQWorkerU.exe Version:1.13.0.0 build20170531", "MAIN"}}));
}

}  // namespace
}  // namespace rq

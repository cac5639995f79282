// The order in which the crash-report library is called, seen by a stand-in for it.
#include "app/crash_filter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/crash_report.h"

namespace {

std::vector<std::string> g_calls;

}  // namespace

void BT_InstallSehFilter() {
    g_calls.push_back("install");
}

void BT_SetFlags(std::uint32_t flags) {
    g_calls.push_back("flags " + std::to_string(flags));
}

namespace rq {
namespace {

TEST(CrashFilter, IsInstalledAndThenGetsTheFlagOne) {
    InstallCrashFilter();
    EXPECT_EQ(g_calls, (std::vector<std::string>{"install", "flags 1"}));
}

}  // namespace
}  // namespace rq

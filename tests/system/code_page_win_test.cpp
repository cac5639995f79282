// The system tests run once for each of two code pages; this one is for the runs being what they are called.
#include <gtest/gtest.h>

#include "kit/code_page_win.h"
#include "kit/os.h"
#include "platform/environment.h"

namespace rq::system_test {
namespace {

TEST(CodePageOfThisRun, IsTheOneThatWasAskedFor) {
    const auto asked = platform::GetEnvironment("RQ_WINE_CODEPAGE");
    if (!kit::IsWine()) GTEST_SKIP() << "nobody asks a Windows machine for a code page";
    EXPECT_EQ(std::to_string(kit::AnsiCodePage()), asked.value_or("936"));
}

}  // namespace
}  // namespace rq::system_test

#include <gtest/gtest.h>

#include "kit/temp_dir.h"
#include "platform/console.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

TEST(ConsoleOnWindows, TheLocaleSaysNothingAboutAConsole) {
    const kit::ScopedEnvironment locale("LC_ALL", "zh_CN.GBK");
    EXPECT_EQ(TerminalEncoding(), "UTF-8");
}

// A console is written to in UTF-16; its own code page is for programs that print UTF-8 with stdio.
TEST(ConsoleOnWindows, TheCodePageIsPutBack) {
    if (!IsTerminal(StandardStream::Output)) GTEST_SKIP() << "no console here";
    const UINT before = ::GetConsoleOutputCP();
    {
        const Utf8Console utf8;
        EXPECT_EQ(::GetConsoleOutputCP(), static_cast<UINT>(CP_UTF8));
    }
    EXPECT_EQ(::GetConsoleOutputCP(), before);
}

}  // namespace
}  // namespace rq::platform

#include "platform/console.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kit/child.h"
#include "kit/temp_dir.h"

namespace rq::platform {
namespace {

using kit::ScopedEnvironment;

std::string EncodingUnder(std::optional<std::string> all, std::optional<std::string> type,
                          std::optional<std::string> lang) {
    const ScopedEnvironment first("LC_ALL", std::move(all));
    const ScopedEnvironment second("LC_CTYPE", std::move(type));
    const ScopedEnvironment third("LANG", std::move(lang));
    return TerminalEncoding();
}

TEST(Console, EncodingFromTheLocale) {
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, std::nullopt), "UTF-8");
    EXPECT_EQ(EncodingUnder("C", std::nullopt, "zh_CN.GBK"), "UTF-8");
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, "zh_CN.GBK"), "GBK");
    EXPECT_EQ(EncodingUnder(std::nullopt, "zh_CN.gb2312", "en_US.UTF-8"), "GBK");
    EXPECT_EQ(EncodingUnder("en_US.utf8", "zh_CN.GBK", std::nullopt), "UTF-8");
    EXPECT_EQ(EncodingUnder("", "", "de_DE.iso-8859-15@euro"), "ISO-8859-15");
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, "no_such_locale"), "UTF-8");
}

TEST(Console, AFileIsNoTerminal) {
    kit::Child child(std::string(RQ_FIXTURES) + "/rq_process_fixture", {"console"});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_GE(TerminalColumns(), 1u);
}

TEST(Console, KeepsTheOrderOfWhatTheStreamHasBuffered) {
    kit::Child child(std::string(RQ_FIXTURES) + "/rq_process_fixture", {"console"});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(child.Output(), "buffered written after");
}

TEST(Console, AReaderThatWentAwayDoesNotEndTheProcess) {
    // The pipeline's left side writes to a closed pipe: its end of it is read by "true", which is gone at
    // once.
    const kit::TempDir dir;
    const std::string script = "{ sleep 0.2; \"$1\" closed-reader; echo $? > \"$2\"; } | true";
    kit::Child child(
        "/bin/sh", {"-c", script, "sh", std::string(RQ_FIXTURES) + "/rq_process_fixture", dir.Utf8("code")});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "code"), "5\n");
}

TEST(Console, PauseReturnsAtOnceWithoutATerminal) {
    if (IsTerminal(StandardStream::Input)) GTEST_SKIP() << "standard input is a terminal here";
    PauseForKey();
    EXPECT_FALSE(IsTerminal(StandardStream::Input));
}

}  // namespace
}  // namespace rq::platform

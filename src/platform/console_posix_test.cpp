#include <gtest/gtest.h>

#include "kit/child.h"
#include "kit/temp_dir.h"
#include "platform/codepage.h"
#include "platform/console.h"

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

TEST(ConsoleOnLinux, EncodingFromTheLocale) {
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, std::nullopt), "UTF-8");
    EXPECT_EQ(EncodingUnder("C", std::nullopt, "zh_CN.GBK"), "UTF-8");
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, "zh_CN.GBK"), "GBK");
    EXPECT_EQ(EncodingUnder(std::nullopt, "zh_CN.gb2312", "en_US.UTF-8"), "GBK");
    EXPECT_EQ(EncodingUnder("en_US.utf8", "zh_CN.GBK", std::nullopt), "UTF-8");
    EXPECT_EQ(EncodingUnder("", "", "de_DE.iso-8859-15@euro"), "ISO-8859-15");
    EXPECT_EQ(EncodingUnder(std::nullopt, std::nullopt, "no_such_locale"), "UTF-8");
}

TEST(ConsoleOnLinux, AReaderThatWentAwayDoesNotEndTheProcess) {
    // The pipeline's left side writes to a closed pipe: its end of it is read by "true", which is gone at
    // once.
    const kit::TempDir dir;
    const std::string script = "{ sleep 0.2; \"$1\" closed-reader; echo $? > \"$2\"; } | true";
    kit::Child child(
        "/bin/sh", {"-c", script, "sh", std::string(RQ_FIXTURES) + "/rq_process_fixture", dir.Utf8("code")});
    EXPECT_EQ(child.ExitCode(), 0);
    EXPECT_EQ(kit::ReadBytes(dir.Path() / "code"), "5\n");
}

// A character that GBK lacks.
TEST(ConsoleOnLinux, ATerminalWithGb18030GetsEveryCharacter) {
    EXPECT_EQ(Utf8ToEncoding("\xF0\xA0\x80\x80", "GB18030"), "\x95\x32\x82\x36");
    EXPECT_EQ(Utf8ToEncoding("\xF0\xA0\x80\x80", "GBK"), "?");
}

}  // namespace
}  // namespace rq::platform

#include "errors/error_text.h"

#include <gtest/gtest.h>

#include <optional>

#include "kit/temp_dir.h"
#include "util/directories.h"
#include "util/ini_cache.h"

namespace rq {
namespace {

class ErrorTextTest : public testing::Test {
  protected:
    ErrorTextTest() : m_config("RQ_CONFIG_DIR", m_folder.Utf8()) { ForgetProcessDirectories(); }
    ~ErrorTextTest() override { ForgetProcessDirectories(); }

    static std::wstring Text(std::uint32_t code, std::uint32_t family) {
        std::wstring text = L"untouched";
        EXPECT_EQ(GetErrorText(code, family, text), 1);
        return text;
    }

    kit::TempDir m_folder;
    kit::ScopedEnvironment m_config;
};

TEST_F(ErrorTextTest, WithoutAFileTheTextIsTheName) {
    EXPECT_EQ(Text(6, 4), L"Task Not Response !");
    EXPECT_EQ(Text(0x80000001, 0), L"dwKWRSOFTCODEC_UnknowErr");
    EXPECT_EQ(Text(0x80001234, 7), L"KWR_DMC_ERROR_80001234");
}

TEST_F(ErrorTextTest, TheFileGivesTheReadableText) {
    m_folder.Write("KWROVLApparitor.ini",
                   "[Task Not Response !]\n1=任务没有响应\n[KWR_OVL_ERROR_9]\n1 = unknown nine\n"
                   "[KWRNTCERR_NOMEM]\n2=not the entry that is looked up\n");
    EXPECT_EQ(Text(6, 4), L"\u4efb\u52a1\u6ca1\u6709\u54cd\u5e94");
    EXPECT_EQ(Text(9, 4), L"unknown nine");
    EXPECT_EQ(Text(0xE0000002, 1), L"KWRNTCERR_NOMEM");
    EXPECT_EQ(Text(7, 4), L"MD5 Verify Error!");
}

// The file that is delivered: an operator reads words, not numbers.
TEST_F(ErrorTextTest, EveryErrorOfThePlugInsHereHasWords) {
    const kit::ScopedEnvironment config("RQ_CONFIG_DIR", RQ_DATA_DIR);
    ForgetProcessDirectories();
    for (const std::uint32_t code :
         {0x6u,        0x7u,        0x84100000u, 0x84100001u, 0x84100010u, 0x84100011u, 0x84100012u,
          0x84100013u, 0x84100014u, 0x84100015u, 0x84100016u, 0x84100017u, 0x84100018u, 0x84100020u,
          0x84100030u, 0x84100031u, 0x84100032u, 0x84100033u, 0x84100034u, 0x84100035u, 0x84100036u,
          0x84100037u, 0x84100038u, 0x84100039u, 0x8410003Au, 0x8410003Bu, 0xFFFFFFFBu, 0xFFFFFFFDu}) {
        const std::wstring text = Text(code, 4);
        EXPECT_GT(text.size(), 10u) << std::hex << code;
        EXPECT_EQ(text.find(L"KWR_OVL_ERROR"), std::wstring::npos) << std::hex << code;
        EXPECT_EQ(text.back(), L')') << std::hex << code;
    }
}

TEST_F(ErrorTextTest, AGbkFileReadsTheSame) {
    m_folder.Write("KWROVLApparitor.ini", "[dwKWRSOFTCODEC_NoErr]\r\n1=\xC8\xCE\xCE\xF1\r\n");
    EXPECT_EQ(Text(0, 2), L"\u4efb\u52a1");
}

TEST_F(ErrorTextTest, RepeatedTextsParseTheFileOnce) {
    m_folder.Write("KWROVLApparitor.ini", "[MD5 Verify Error!]\n1=x\n");
    const std::uint64_t before = IniParses();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(Text(7, 4), L"x");
    EXPECT_EQ(IniParses(), before + 1);
}

}  // namespace
}  // namespace rq

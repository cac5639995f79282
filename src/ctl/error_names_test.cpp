#include "ctl/error_names.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "errors/error_text.h"
#include "kit/temp_dir.h"
#include "util/directories.h"

namespace rq::ctl {
namespace {

class ErrorNames : public testing::Test {
  protected:
    ErrorNames() : m_config("RQ_CONFIG_DIR", m_folder.Utf8()) { ForgetProcessDirectories(); }
    ~ErrorNames() override { ForgetProcessDirectories(); }

    kit::TempDir m_folder;
    kit::ScopedEnvironment m_config;
};

TEST_F(ErrorNames, CodesAreReadInTheirThreeForms) {
    EXPECT_EQ(ParseErrorCode("0x84100014").value(), 0x84100014u);
    EXPECT_EQ(ParseErrorCode("0XfF").value(), 255u);
    EXPECT_EQ(ParseErrorCode("2215641108").value(), 0x84100014u);
    EXPECT_EQ(ParseErrorCode("-5").value(), 0xFFFFFFFBu);
    EXPECT_EQ(ParseErrorCode("0").value(), 0u);
    EXPECT_EQ(ParseErrorCode("4294967295").value(), 0xFFFFFFFFu);
    EXPECT_EQ(ParseErrorCode("-2147483648").value(), 0x80000000u);
    for (const char* bad :
         {"", "x", "0x", "0x-5", "6 ", " 6", "4294967296", "-2147483649", "0x100000000", "6h"})
        EXPECT_FALSE(ParseErrorCode(bad)) << bad;
    EXPECT_EQ(ParseErrorCode("six").error().message,
              "\"six\" is no result code; give 32 bits as 0x84100014, 2215641108 or -5");
}

TEST_F(ErrorNames, AFamilyThatIsNamedAnswersAlone) {
    EXPECT_EQ(ErrorNameText(0x80000001, 0),
              "code:    0x80000001\nfamily:  0 (codec)\nname:    dwKWRSOFTCODEC_UnknowErr\n"
              "text:    dwKWRSOFTCODEC_UnknowErr\n");
    EXPECT_EQ(ErrorNameText(9, 4),
              "code:    0x00000009\nfamily:  4 (task)\nname:    KWR_OVL_ERROR_9\ntext:    KWR_OVL_ERROR_9\n");
    EXPECT_EQ(ErrorNameText(1, 2),
              "code:    0x00000001\nfamily:  2 (codec)\nname:    dwKWRSOFTCODEC_CANCLED\n"
              "text:    dwKWRSOFTCODEC_CANCLED\n");
}

TEST_F(ErrorNames, TheTextIsTheInstalledOne) {
    m_folder.Write("KWROVLApparitor.ini", "[Task Not Response !]\n1=任务没有响应\n");
    EXPECT_NE(ErrorNameText(6, 4).find("text:    任务没有响应\n"), std::string::npos);
}

TEST_F(ErrorNames, WithoutAFamilyTheOnesThatKnowTheCodeAnswer) {
    EXPECT_EQ(ErrorNameText(0xE0000002, std::nullopt), ErrorNameText(0xE0000002, 1));
    EXPECT_EQ(ErrorNameText(0x84100000, std::nullopt), ErrorNameText(0x84100000, 4));
    m_folder.Write("KWROVLApparitor.ini", "[KWR_OVL_ERROR_84100014]\n1=no media\n");
    EXPECT_EQ(ErrorNameText(0x84100014, std::nullopt), ErrorNameText(0x84100014, 4));
    const std::string unknown = ErrorNameText(0x1234, std::nullopt);
    EXPECT_EQ(unknown, ErrorNameText(0x1234, 0) + "\n" + ErrorNameText(0x1234, 1) + "\n" +
                           ErrorNameText(0x1234, 3) + "\n" + ErrorNameText(0x1234, 4));
}

TEST_F(ErrorNames, TheCsvHasEveryCodeOnce) {
    const std::string csv = AllErrorNamesCsv();
    EXPECT_EQ(csv.rfind("family,code,name\n0,0x00000000,dwKWRSOFTCODEC_NoErr\n", 0), 0u);
    EXPECT_EQ(static_cast<std::size_t>(std::count(csv.begin(), csv.end(), '\n')), AllErrorNames().size() + 1);
    EXPECT_NE(csv.find("\n1,0xE0000002,KWRNTCERR_NOMEM\n"), std::string::npos);
    EXPECT_NE(csv.find("\n4,0x84100001,Target File Params is Same As Source File!\n"), std::string::npos);
    // No name needs quotes.
    EXPECT_EQ(csv.find('"'), std::string::npos);
    for (const ErrorName& name : AllErrorNames())
        EXPECT_EQ(std::string(name.name).find_first_of(",\"\n"), std::string::npos) << name.name;
}

}  // namespace
}  // namespace rq::ctl

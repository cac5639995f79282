#include "errors/error_tables.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "errors/error_text.h"

namespace rq {
namespace {

TEST(ErrorNames, EveryTableIsWhole) {
    std::map<std::uint32_t, int> counts;
    std::set<std::string> names;
    for (const ErrorName& entry : AllErrorNames()) {
        ++counts[entry.family];
        names.insert(entry.name);
    }
    const std::map<std::uint32_t, int> expected{
        {kFamilyCodec, 132}, {kFamilyNetwork, 75}, {kFamilyInspection, 76}, {kFamilyTask, 4}};
    EXPECT_EQ(counts, expected);
    EXPECT_EQ(AllErrorNames().size(), 287u);
    EXPECT_EQ(names.size(), 287u);
}

TEST(ErrorNames, EachNameBelongsToItsFamily) {
    for (const ErrorName& entry : AllErrorNames()) {
        const std::string name = entry.name;
        EXPECT_EQ(name.starts_with("dwKWRSOFTCODEC_"), entry.family == kFamilyCodec) << name;
        EXPECT_EQ(name.starts_with("KWRNTCERR_"), entry.family == kFamilyNetwork) << name;
        EXPECT_EQ(name.starts_with("KWR_E_VAI_"), entry.family == kFamilyInspection) << name;
        EXPECT_EQ(GetErrorName(entry.code, entry.family), name);
    }
}

TEST(ErrorNames, TaskErrors) {
    EXPECT_EQ(TaskErrorName(6), "Task Not Response !");
    EXPECT_EQ(TaskErrorName(7), "MD5 Verify Error!");
    EXPECT_EQ(TaskErrorName(0x84100000), "Target File has been exist!");
    EXPECT_EQ(TaskErrorName(0x84100001), "Target File Params is Same As Source File!");
}

TEST(ErrorNames, TheEndsOfRuns) {
    EXPECT_EQ(CodecErrorName(0x80000001), "dwKWRSOFTCODEC_UnknowErr");
    EXPECT_EQ(CodecErrorName(0x80000010), "dwKWRSOFTCODEC_MemSizeToSmall");
    EXPECT_EQ(CodecErrorName(0x8000020B), "dwKWRSOFTCODEC_FileSizeTooSmall");
    EXPECT_EQ(CodecErrorName(0x80000511), "dwKWRSOFTCODEC_DVHDCodecNotValid");
    EXPECT_EQ(CodecErrorName(0x80000559), "dwKWRSOFTCODEC_AEncPlugNotExist");
    EXPECT_EQ(CodecErrorName(0x80000560), "dwKWRSOFTCODEC_AEncPlugLoadFailed");
    EXPECT_EQ(CodecErrorName(0x80000900), "dwKWRSOFTCODEC_NotSupportPartitionRestore");
    EXPECT_EQ(NetworkErrorName(0x20000001), "KWRNTCERR_MOREBUFFER");
    EXPECT_EQ(NetworkErrorName(0xE009000F), "KWRNTCERR_DTSSDK_SEEKVADATA");
    EXPECT_EQ(NetworkErrorName(0xE0090014), "KWRNTCERR_DTSSDK_UNSUPPORTEDOPT");
    EXPECT_EQ(NetworkErrorName(0xE00B0007), "KWRNTCERR_RECV_TIMEOUT");
    EXPECT_EQ(InspectionErrorName(0x89600000), "KWR_E_VAI_UNKNOWN");
    EXPECT_EQ(InspectionErrorName(0x89601185), "KWR_E_VAI_BAR_TIMETHDRANGE_ERROR");
    EXPECT_EQ(InspectionErrorName(0x89601527), "KWR_E_VAI_AINSPECTPARAM_ERROR");
}

TEST(ErrorNames, CodeZero) {
    EXPECT_EQ(GetErrorName(0, 0), "dwKWRSOFTCODEC_NoErr");
    EXPECT_EQ(GetErrorName(0, 4), "KWR_OVL_ERROR_0");
    EXPECT_EQ(GetErrorName(0, 1), "KWR_TRANSFER_ERROR_0");
    EXPECT_EQ(GetErrorName(0, 3), "KWR_VACHECK_SDK_ERROR_0");
}

TEST(ErrorNames, UnknownCodesAreWrittenInUpperCaseHexadecimal) {
    EXPECT_EQ(GetErrorName(0x80000011, 0), "KWR_DMC_ERROR_80000011");
    EXPECT_EQ(GetErrorName(0x8000020C, 0), "KWR_DMC_ERROR_8000020C");
    EXPECT_EQ(GetErrorName(0x80001234, 0), "KWR_DMC_ERROR_80001234");
    EXPECT_EQ(GetErrorName(9, 4), "KWR_OVL_ERROR_9");
    EXPECT_EQ(GetErrorName(0x89601142, 3), "KWR_VACHECK_SDK_ERROR_89601142");
    EXPECT_EQ(GetErrorName(0xE0090002, 1), "KWR_TRANSFER_ERROR_E0090002");
    EXPECT_EQ(GetErrorName(0xFFFFFFFF, 1), "KWR_TRANSFER_ERROR_FFFFFFFF");
    EXPECT_EQ(GetErrorName(0xABCDEF, 4), "KWR_OVL_ERROR_ABCDEF");
}

TEST(ErrorNames, EveryOtherFamilyIsTheCodecs) {
    for (const std::uint32_t family : {2u, 5u, 7u, 0xFFFFFFFFu}) {
        for (const std::uint32_t code : {0u, 1u, 6u, 0x80000001u, 0x80000011u, 0x89600000u}) {
            EXPECT_EQ(GetErrorName(code, family), GetErrorName(code, 0));
        }
    }
}

TEST(ErrorNames, NoTableAnswersForAnother) {
    EXPECT_EQ(GetErrorName(0x20000001, 0), "KWR_DMC_ERROR_20000001");
    EXPECT_EQ(GetErrorName(0x80000001, 4), "KWR_OVL_ERROR_80000001");
    EXPECT_EQ(GetErrorName(6, 3), "KWR_VACHECK_SDK_ERROR_6");
}

}  // namespace
}  // namespace rq

// "rqctl error-name", which needs no engine.
#include <gtest/gtest.h>

#include "base/paths.h"
#include "node.h"

namespace rq::system_test {
namespace {

Outcome Ask(const std::vector<std::string>& arguments, const std::string& iniFolder = {}) {
    kit::Child::Options options;
    if (!iniFolder.empty()) options.environment = {{"RQ_CONFIG_DIR", iniFolder}};
    kit::Child child(kit::ProgramIn(kit::StageFolder(), "rqctl"), arguments, options);
    const int code = child.ExitCode();
    return {code, child.Output(), child.Errors()};
}

TEST(ErrorNameCommand, TheWholeTableIsTheListThatIsCheckedIn) {
    const Outcome all = Ask({"error-name", "--all"});
    EXPECT_EQ(all.code, 0) << all.errors;
    EXPECT_EQ(all.output, kit::ReadText(PathFromUtf8(RQ_ERROR_NAMES_CSV)));
}

TEST(ErrorNameCommand, TellsNameAndTextOfACode) {
    const kit::TempDir folder;
    folder.Write("KWROVLApparitor.ini", "[Task Not Response !]\n1=任务没有响应\n");
    const Outcome six = Ask({"error-name", "6", "--family", "4"}, folder.Utf8());
    EXPECT_EQ(six.code, 0) << six.errors;
    EXPECT_EQ(
        six.output,
        "code:    0x00000006\nfamily:  4 (task)\nname:    Task Not Response !\ntext:    任务没有响应\n");
    const Outcome unknown = Ask({"error-name", "0x80000011", "--family", "0"}, folder.Utf8());
    EXPECT_EQ(unknown.output,
              "code:    0x80000011\nfamily:  0 (codec)\nname:    KWR_DMC_ERROR_80000011\n"
              "text:    KWR_DMC_ERROR_80000011\n");
}

TEST(ErrorNameCommand, ANegativeCodeIsNoOption) {
    const kit::TempDir folder;  // no texts
    const Outcome five = Ask({"error-name", "-5", "--family", "4"}, folder.Utf8());
    EXPECT_EQ(five.code, 0) << five.errors;
    EXPECT_EQ(five.output,
              "code:    0xFFFFFFFB\nfamily:  4 (task)\nname:    KWR_OVL_ERROR_FFFFFFFB\n"
              "text:    KWR_OVL_ERROR_FFFFFFFB\n");
}

TEST(ErrorNameCommand, EachFamilyAnswersForItself) {
    const kit::TempDir folder;  // no texts
    const std::string names[] = {"1 (network and transfer)\nname:    KWR_TRANSFER_ERROR_1\n",
                                 "2 (codec)\nname:    dwKWRSOFTCODEC_CANCLED\n",
                                 "3 (inspection)\nname:    KWR_VACHECK_SDK_ERROR_1\n"};
    for (const std::string& name : names) {
        const Outcome one = Ask({"error-name", "1", "--family", name.substr(0, 1)}, folder.Utf8());
        EXPECT_EQ(one.code, 0) << one.errors;
        EXPECT_EQ(one.output.find("code:    0x00000001\nfamily:  " + name + "text:    "), 0u) << one.output;
    }
}

TEST(ErrorNameCommand, WrongUseIsRefused) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"error-name"},
                                                      {"error-name", "six"},
                                                      {"error-name", "6", "--family", "5"},
                                                      {"error-name", "6", "--all"},
                                                      {"error-name", "--family", "4"}}) {
        const Outcome outcome = Ask(arguments);
        EXPECT_EQ(outcome.code, 2) << outcome.output;
        EXPECT_EQ(outcome.output, "");
        EXPECT_NE(outcome.errors, "");
    }
}

}  // namespace
}  // namespace rq::system_test

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

// What bash itself makes of the script.
#include <gtest/gtest.h>

#include <fstream>

#include "ctl/command_line.h"
#include "ctl/completion.h"
#include "kit/child.h"

namespace rq::ctl {
namespace {

// What bash offers at the end of these words; the last one is begun.
std::string Offered(const std::vector<std::string>& words) {
    CLI::App app("", "rqctl");
    CommandLine line;
    AddCommands(app, line);
    kit::TempDir folder;
    std::ofstream file(folder.Path() / "try.sh");
    file << *CompletionScript(app, "bash") << "COMP_WORDS=(rqctl";
    for (const auto& word : words) file << " '" << word << "'";
    file << ")\nCOMP_CWORD=" << words.size() << "\n_rqctl\necho \"${COMPREPLY[*]}\"\n";
    file.close();
    kit::Child bash("/bin/bash", {"-u", folder.Utf8("try.sh")});
    EXPECT_EQ(bash.ExitCode(), 0) << bash.Errors();
    EXPECT_EQ(bash.Errors(), "");
    return bash.Output();
}

TEST(CompletionInBash, OffersCommandsOptionsAndValues) {
    EXPECT_EQ(Offered({"sub"}), "submit\n");
    EXPECT_EQ(Offered({"submit", "m"}), "md5\n");
    EXPECT_EQ(Offered({"submit", "md5", "--exp"}), "--expect\n");
    EXPECT_EQ(Offered({"submit", "md5", "--prio"}), "--priority\n");
    EXPECT_EQ(Offered({"submit", "transcode", "--dat"}), "--data\n") << "what every command takes";
    EXPECT_EQ(Offered({"list", "--state", "f"}), "finishing finished failed\n");
    EXPECT_EQ(Offered({"completion", ""}).find("bash zsh powershell "), 0u);
    EXPECT_EQ(Offered({"submit", "--text", ""}), "\n") << "a file name: bash completes it itself";
    EXPECT_EQ(Offered({"no", "such"}), "\n");
}

TEST(CompletionInBash, AValueIsNoCommand) {
    EXPECT_EQ(Offered({"--data", "list", "dra"}), "drain\n");
    EXPECT_EQ(Offered({"--data", "/a b", "explain", "--js"}), "--json\n");
}

}  // namespace
}  // namespace rq::ctl

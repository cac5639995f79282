// Each script names every command and option that the command line has.
#include "ctl/completion.h"

#include <gtest/gtest.h>

#include <sstream>

#include "ctl/command_line.h"

namespace rq::ctl {
namespace {

// The line of the script that says what may stand after the command.
std::string WordsAt(const std::string& script, const std::string& shell, const std::string& path) {
    const std::string lead = shell == "bash"  ? "'" + path + "') words="
                             : shell == "zsh" ? "('" + path + "') compadd -- "
                                              : "'" + path + "' = @(";
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);) {
        const auto at = line.find(lead);
        if (at == std::string::npos || (shell == "powershell" && line.find("queued") != std::string::npos))
            continue;
        std::string words = line.substr(at + lead.size());
        for (char& c : words) {
            if (c == '\'' || c == ',' || c == ')' || c == ';') c = ' ';
        }
        return " " + words + " ";
    }
    return {};
}

void Check(const CLI::App& app, const std::string& path, const std::string& shell, const std::string& script,
           int& count) {
    const std::string words = WordsAt(script, shell, path);
    ASSERT_NE(words, "") << shell << ": nothing about \"" << path << "\"";
    for (const CLI::Option* option : app.get_options()) {
        for (const auto& name : option->get_lnames()) {
            EXPECT_NE(words.find(" --" + name + " "), std::string::npos)
                << shell << ": " << path << " --" << name;
            ++count;
        }
    }
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        EXPECT_NE(words.find(" " + command->get_name() + " "), std::string::npos)
            << shell << ": " << path << " " << command->get_name();
        ++count;
        Check(*command, path.empty() ? command->get_name() : path + " " + command->get_name(), shell, script,
              count);
    }
}

TEST(Completion, EveryCommandAndOptionIsInEveryScript) {
    CLI::App app("", "rqctl");
    CommandLine line;
    AddCommands(app, line);
    for (const char* shell : {"bash", "zsh", "powershell"}) {
        const auto script = CompletionScript(app, shell);
        ASSERT_TRUE(script) << shell;
        int count = 0;
        Check(app, "", shell, *script, count);
        EXPECT_GE(count, 100) << shell;
    }
    EXPECT_FALSE(CompletionScript(app, "fish"));
}

TEST(CommandLine, ANameThatBeginsWithASlashIsNoOption) {
    for (const char* name : {"/x", "/mnt/media/clip", "/?"}) {
        CLI::App app("", "rqctl");
        CommandLine line;
        AddCommands(app, line);
        ASSERT_NO_THROW(app.parse("submit md5 --write /w " + std::string(name))) << name;
        EXPECT_EQ(line.md5.files, std::vector<std::string>{name});
        EXPECT_EQ(line.md5.checksumFile, "/w");
    }
}

TEST(Completion, WhatIsAddedIsThereByItself) {
    CLI::App app("", "rqctl");
    app.add_subcommand("polish", "")->add_option("--with", "");
    const std::string script = *CompletionScript(app, "bash");
    EXPECT_NE(WordsAt(script, "bash", "polish").find(" --with "), std::string::npos);
}

}  // namespace
}  // namespace rq::ctl

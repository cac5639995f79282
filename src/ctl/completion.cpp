#include "ctl/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <set>
#include <vector>

namespace rq::ctl {

namespace {

// What may stand after a command ("submit md5"; empty: rqctl itself): commands below it and options.
struct Place {
    std::string path;
    std::vector<std::string> commands, options;
};

struct Description {
    std::vector<Place> places;
    std::set<std::string> valued;  // options that take a value
};

// Values that are words of ours.
struct Values {
    const char* option;
    const char* words;
};
constexpr Values kValues[] = {
    {"--state", "queued starting running paused finishing finished failed cancelled lost"},
    {"--deadline-action", "none cancel"},
    {"--container", "mp4 mkv"}};
constexpr const char* kShells = "bash zsh powershell";

void Describe(const CLI::App& app, const std::string& path, const std::vector<std::string>& inherited,
              Description& all) {
    Place place;
    place.path = path;
    place.options = inherited;
    for (const CLI::Option* option : app.get_options()) {
        for (const auto& name : option->get_lnames()) {
            place.options.push_back("--" + name);
            if (option->get_items_expected_max() > 0) all.valued.insert("--" + name);
        }
        for (const auto& name : option->get_snames()) place.options.push_back("-" + name);
    }
    std::sort(place.options.begin(), place.options.end());
    place.options.erase(std::unique(place.options.begin(), place.options.end()), place.options.end());
    const auto below = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* command : below) place.commands.push_back(command->get_name());
    all.places.push_back(place);
    for (const CLI::App* command : below)
        // What a command does not know itself its parent takes.
        Describe(*command, path.empty() ? command->get_name() : path + " " + command->get_name(),
                 command->get_fallthrough() ? place.options : std::vector<std::string>{}, all);
}

std::string Joined(const std::vector<std::string>& words, const std::string& between) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : between) + word;
    return text;
}

std::string WordsOf(const Place& place) {
    std::string words = Joined(place.commands, " ");
    words += (words.empty() || place.options.empty() ? "" : " ") + Joined(place.options, " ");
    return place.path == "completion" ? kShells + (" " + words) : words;
}

std::string ValuedPattern(const Description& all) {
    return Joined({all.valued.begin(), all.valued.end()}, "|");
}

// Which words lead from one command to one below it.
std::vector<std::pair<std::string, std::string>> Steps(const Description& all) {
    std::vector<std::pair<std::string, std::string>> steps;
    for (const auto& place : all.places) {
        for (const auto& command : place.commands)
            steps.emplace_back(place.path + "/" + command,
                               place.path.empty() ? command : place.path + " " + command);
    }
    return steps;
}

// The two shells differ in how words are counted and handed back.
std::string BashScript(const Description& all) {
    std::string text =
        "# rqctl's completion for bash. To use it: source <(rqctl completion bash)\n"
        "_rqctl() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev='' at='' words='' i word\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        word=${COMP_WORDS[i]}\n"
        "        case $prev in " +
        ValuedPattern(all) +
        ") prev=''; continue ;; esac\n"
        "        prev=$word\n"
        "        case $at/$word in\n";
    for (const auto& [from, to] : Steps(all)) text += "            '" + from + "') at='" + to + "' ;;\n";
    text +=
        "        esac\n"
        "    done\n"
        "    case $prev in\n";
    for (const auto& one : kValues)
        text += "        " + std::string(one.option) + ") COMPREPLY=($(compgen -W '" + one.words +
                "' -- \"$cur\")); return ;;\n";
    text += "        " + ValuedPattern(all) + ") COMPREPLY=(); return ;;\n    esac\n    case $at in\n";
    for (const auto& place : all.places)
        text += "        '" + place.path + "') words='" + WordsOf(place) + "' ;;\n";
    text +=
        "    esac\n"
        "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
        "}\n"
        "complete -o default -F _rqctl rqctl\n";
    return text;
}

std::string ZshScript(const Description& all) {
    std::string text =
        "#compdef rqctl\n"
        "# rqctl's completion for zsh. To use it: source <(rqctl completion zsh), after compinit\n"
        "_rqctl() {\n"
        "    local prev='' at='' i word\n"
        "    for ((i = 2; i < CURRENT; i++)); do\n"
        "        word=${words[i]}\n"
        "        case $prev in (" +
        ValuedPattern(all) +
        ") prev=''; continue ;; esac\n"
        "        prev=$word\n"
        "        case $at/$word in\n";
    for (const auto& [from, to] : Steps(all)) text += "            ('" + from + "') at='" + to + "' ;;\n";
    text +=
        "        esac\n"
        "    done\n"
        "    case $prev in\n";
    for (const auto& one : kValues)
        text += "        (" + std::string(one.option) + ") compadd -- " + one.words + "; return ;;\n";
    text += "        (" + ValuedPattern(all) + ") _files; return ;;\n    esac\n    case $at in\n";
    for (const auto& place : all.places)
        text += "        ('" + place.path + "') compadd -- " + WordsOf(place) + " ;;\n";
    text +=
        "    esac\n"
        "    [[ ${words[CURRENT]} == -* ]] || _files\n"
        "}\n"
        "compdef _rqctl rqctl\n";
    return text;
}

std::string Quoted(const std::string& words) {
    std::string text = "'";
    for (const char c : words) text += c == ' ' ? std::string("','") : std::string(1, c);
    return text + "'";
}

std::string PowerShellScript(const Description& all) {
    std::string text =
        "# rqctl's completion for PowerShell. To use it: rqctl completion powershell | Out-String | "
        "Invoke-Expression\n"
        "Register-ArgumentCompleter -Native -CommandName rqctl -ScriptBlock {\n"
        "    param($wordToComplete, $commandAst, $cursorPosition)\n"
        "    $valued = @(" +
        Quoted(Joined({all.valued.begin(), all.valued.end()}, " ")) +
        ")\n"
        "    $steps = @{\n";
    for (const auto& [from, to] : Steps(all)) text += "        '" + from + "' = '" + to + "'\n";
    text += "    }\n    $values = @{\n";
    for (const auto& one : kValues)
        text += "        '" + std::string(one.option) + "' = @(" + Quoted(one.words) + ")\n";
    text += "    }\n    $words = @{\n";
    for (const auto& place : all.places)
        text += "        '" + place.path + "' = @(" + Quoted(WordsOf(place)) + ")\n";
    text +=
        "    }\n"
        "    $at = ''\n"
        "    $prev = ''\n"
        "    foreach ($element in $commandAst.CommandElements | Select-Object -Skip 1) {\n"
        "        if ($element.Extent.EndOffset -ge $cursorPosition -and $wordToComplete -ne '') { break }\n"
        "        $word = $element.ToString()\n"
        "        if ($valued -contains $prev) { $prev = ''; continue }\n"
        "        $prev = $word\n"
        "        if ($steps.ContainsKey(\"$at/$word\")) { $at = $steps[\"$at/$word\"] }\n"
        "    }\n"
        "    $found = if ($values.ContainsKey($prev)) { $values[$prev] }\n"
        "             elseif ($valued -contains $prev) { @() }\n"
        "             else { $words[$at] }\n"
        "    $found | Where-Object { $_ -like \"$wordToComplete*\" } |\n"
        "        ForEach-Object { [System.Management.Automation.CompletionResult]::new($_) }\n"
        "}\n";
    return text;
}

}  // namespace

std::optional<std::string> CompletionScript(const CLI::App& app, const std::string& shell) {
    Description all;
    Describe(app, "", {}, all);
    if (shell == "bash") return BashScript(all);
    if (shell == "zsh") return ZshScript(all);
    if (shell == "powershell") return PowerShellScript(all);
    return std::nullopt;
}

}  // namespace rq::ctl

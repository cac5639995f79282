// rqctl: the command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "ctl/bundle.h"
#include "ctl/command_line.h"
#include "ctl/completion.h"
#include "ctl/error_names.h"
#include "ctl/output.h"
#include "ctl/replay.h"
#include "ctl/watch_table.h"
#include "platform/arguments.h"
#include "platform/console.h"
#include "platform/start_up.h"

namespace {

using namespace rq::ctl;

Outcome<int> RunSubmit(const CLI::App& submit, const CommandLine& line) {
    SubmitOptions options;
    options.name = line.name;
    options.run = line.run;
    options.json = line.json;
    if (line.watch)
        options.follow = Follow::WithProgress;
    else if (line.wait)
        options.follow = Follow::Quietly;
    const bool raw = !line.type.empty() || !line.text.empty();
    if (submit.got_subcommand("md5")) {
        if (raw) return Failure(kExitUsage, "--type and --text do not go with \"submit md5\"");
        return SubmitMd5(line.dataFolder, line.md5, options);
    }
    if (submit.got_subcommand("transcode")) {
        if (raw) return Failure(kExitUsage, "--type and --text do not go with \"submit transcode\"");
        return SubmitTranscode(line.dataFolder, line.transcode, options);
    }
    if (submit.got_subcommand("transfer")) {
        if (raw) return Failure(kExitUsage, "--type and --text do not go with \"submit transfer\"");
        return SubmitTransfer(line.dataFolder, line.transfer, options);
    }
    if (line.type.empty() || line.text.empty())
        return Failure(
            kExitUsage,
            "submit needs \"md5 FILE...\", \"transcode SOURCE TARGET\", \"transfer SOURCE TARGET\", "
            "or both --type and --text; see rqctl submit "
            "--help");
    return SubmitText(line.dataFolder, line.type, line.text, options);
}

Outcome<int> TellErrorName(const CLI::App& command, const CommandLine& line) {
    if (line.all) {
        Print(AllErrorNamesCsv());
        return kExitFinished;
    }
    if (line.code.empty()) return Failure(kExitUsage, "error-name needs a CODE, or --all");
    const auto code = ParseErrorCode(line.code);
    if (!code) return Failure(kExitUsage, code.error().message);
    std::optional<std::uint32_t> family;
    if (command.count("--family") > 0) family = line.family;
    Print(ErrorNameText(*code, family));
    return kExitFinished;
}

Outcome<int> Run(const CLI::App& app, const CommandLine& line) {
    if (app.got_subcommand("replay")) {
        ReplayOptions options = line.replay;
        options.wait = std::chrono::seconds(line.replayWait_s);
        return Replay(line.journal, options);
    }
    if (app.got_subcommand("completion")) {
        const auto script = CompletionScript(app, line.shell);
        if (!script)
            return Failure(kExitUsage, "completion: \"" + line.shell + "\" is none of bash, zsh, powershell");
        Print(*script);
        return kExitFinished;
    }
    if (app.got_subcommand("error-name")) return TellErrorName(*app.get_subcommand("error-name"), line);
    if (app.got_subcommand("submit")) return RunSubmit(*app.get_subcommand("submit"), line);
    std::vector<const char*> ofATask = {"show", "explain", "priority", "update", "bundle"};
    for (const auto& order : kTaskOrders) ofATask.push_back(order.name);
    for (const char* command : ofATask) {
        if (app.got_subcommand(command) && line.id.empty())
            return Failure(kExitUsage,
                           std::string(command) + ": the task ID is empty; is a variable not set?");
    }
    if (std::find(line.ids.begin(), line.ids.end(), "") != line.ids.end())
        return Failure(kExitUsage, "watch: a task ID is empty; is a variable not set?");
    auto engine = EngineAccess::Open(line.dataFolder);
    if (!engine) return engine.error();
    if (app.got_subcommand("list")) return List(**engine, line.list);
    if (app.got_subcommand("show")) return Show(**engine, line.id, line.show);
    if (app.got_subcommand("explain")) return Explain(**engine, line.id, line.json);
    if (app.got_subcommand("watch"))
        return line.ids.size() == 1 && !line.json ? WatchTask(**engine, line.ids[0], Follow::WithProgress)
                                                  : WatchTasks(**engine, line.ids, line.json);
    for (const auto& order : kTaskOrders) {
        if (app.got_subcommand(order.name)) return GiveOrder(**engine, order.name, line.id, line.json);
    }
    if (app.got_subcommand("priority")) return SetPriority(**engine, line.id, line.priority, line.json);
    if (app.got_subcommand("update")) return Update(**engine, line.id, line.text, line.json);
    for (const char* order : {"drain", "undrain"}) {
        if (app.got_subcommand(order)) return DrainOrUndrain(**engine, order, line.type, line.json);
    }
    if (app.got_subcommand("bundle")) return Bundle(**engine, line.id, line.file, line.json);
    if (app.got_subcommand("backup")) return Backup(**engine, line.file, line.json);
    if (app.got_subcommand("path")) return TestPath(**engine, line.file, line.json);
    if (app.got_subcommand("gc")) return CollectGarbage(**engine, line.json);
    return Shutdown(**engine, line.cancel, line.json);
}

int Conclude(const Outcome<int>& result, bool asJson) {
    if (!result) {
        if (asJson) {
            const nlohmann::json error = {{"message", result.error().message},
                                          {"exit_code", result.error().exitCode}};
            Print(nlohmann::json{{"error", error}}.dump(2, ' ', false,
                                                        nlohmann::json::error_handler_t::replace) +
                  "\n");
        }
        std::fprintf(stderr, "rqctl: %s\n", result.error().message.c_str());
        return result.error().exitCode;
    }
    if (!IsOutputLost()) return *result;
    std::fprintf(stderr, "rqctl: standard output cannot be written; the answer is lost\n");
    return *result == kExitFinished ? static_cast<int>(kExitFailed) : *result;
}

}  // namespace

int main(int argc, char** argv) {
    rq::platform::OpenStandardStreams();
    const rq::platform::Utf8Console console;
    rq::platform::Arguments arguments(argc, argv);
    CLI::App app("Submits, lists and watches tasks of the local engine, and gives orders to them.", "rqctl");
    CommandLine line;
    AddCommands(app, line);
    try {
        app.parse(arguments.Count(), arguments.Vector());
    } catch (const CLI::RequiredError& problem) {
        const auto unknown = app.remaining();
        if (unknown.empty()) return app.exit(problem) == 0 ? 0 : kExitUsage;
        std::fprintf(stderr, "rqctl: there is no command \"%s\"; see rqctl --help\n", unknown[0].c_str());
        return kExitUsage;
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : kExitUsage;
    }
    std::error_code ignored;
    line.dataFolder = rq::Utf8FromPath(std::filesystem::absolute(rq::PathFromUtf8(line.dataFolder), ignored));
    return Conclude(Run(app, line), line.json || line.list.json || line.show.json);
}

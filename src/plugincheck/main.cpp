// rqplugin-check: the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "base/paths.h"
#include "platform/arguments.h"
#include "platform/console.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/start_up.h"
#include "plugincheck/session.h"
#include "plugincheck/supervise.h"

namespace {

using namespace rq::plugincheck;

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct CommandLine {
    CheckOptions options;
    std::int32_t type = 0;
    std::string task;
    bool json = false;
};

void AddOptions(CLI::App& app, CommandLine& line) {
    CheckOptions& options = line.options;
    app.allow_windows_style_options(false);  // "/plugins/x.dll" is a path
    app.set_version_flag("--version", std::string("rqplugin-check ") + RQ_VERSION);
    app.add_option("plugin", options.library, "The plug-in library")->required()->type_name("PLUGIN");
    app.add_option("--type", line.type, "Worker type; otherwise the first that the plug-in names")
        ->type_name("N");
    app.add_option("--task", line.task,
                   "File with a task text that succeeds each time; without one nothing is performed")
        ->type_name("FILE");
    app.add_option("--tasks", options.tasks, "Tasks in a row, at most")
        ->check(CLI::Range(0u, 1'000'000u))
        ->capture_default_str();
    app.add_option("--time", options.time_s, "Seconds after which no further task is begun")
        ->check(CLI::Range(1u, 86'400u))
        ->capture_default_str();
    app.add_option("--patience", options.patience_s,
                   "Seconds that a call may take, or take to end after a stop")
        ->check(CLI::Range(1u, 3'600u))
        ->capture_default_str();
    app.add_option("--patrol", options.patrol_s, "The progress patrol's time-out in seconds")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    app.add_option("--seed", options.seed,
                   "Seed of the random moments; otherwise a new one, which is printed")
        ->type_name("N");
    app.add_flag("--json", line.json, "The report as JSON");
    app.footer("Ends with 0 passed, 1 failed, 2 wrong use.");
}

// An empty text, or what is wrong with the files that were named.
std::string TakeFiles(const CLI::App& app, CommandLine& line) {
    std::error_code error;
    const auto path = std::filesystem::absolute(rq::PathFromUtf8(line.options.library), error);
    if (!error && std::filesystem::is_directory(path, error))
        return line.options.library + ": that is a folder; give the plug-in library in it";
    if (error || !std::filesystem::is_regular_file(path, error))
        return line.options.library + ": there is no such file";
    line.options.library = rq::Utf8FromPath(path.lexically_normal());
    if (app.count("--type") > 0) line.options.type = line.type;
    if (app.count("--task") == 0) return {};
    rq::platform::OsError problem;
    line.options.task = rq::platform::ReadWholeFile(line.task, &problem);
    return line.options.task ? std::string() : problem.message;
}

int Fault(const std::string& message) {
    std::fprintf(stderr, "rqplugin-check: %s\n", message.c_str());
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    rq::platform::OpenStandardStreams();
    rq::platform::Arguments arguments(argc, argv);
    char** words = arguments.Vector();
    if (arguments.Count() == 3 && std::strcmp(words[1], kSessionArgument) == 0) return RunSession(words[2]);
    const rq::platform::Utf8Console console;
    CLI::App app("Checks a plug-in library against the plug-in contract.", "rqplugin-check");
    CommandLine line;
    AddOptions(app, line);
    try {
        app.parse(arguments.Count(), words);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? kExitPassed : kExitUsage;
    }
    if (const std::string fault = TakeFiles(app, line); !fault.empty()) return Fault(fault);
    if (app.count("--seed") == 0) rq::platform::RandomBytes(&line.options.seed, sizeof(std::uint32_t));
    const auto report = RunCheck(rq::platform::ModuleFileName(), line.options);
    if (!report) return Fault(report.error().message);
    rq::platform::WriteStandardOutput(line.json ? ReportJson(*report) : ReportText(*report));
    return report->HasPassed() ? kExitPassed : kExitFailed;
}

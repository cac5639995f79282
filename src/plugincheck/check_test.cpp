// The program itself against real libraries: one plug-in for each rule that can be broken, plug-ins that keep
// them all, and wrong use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"
#include "kit/child.h"
#include "kit/temp_dir.h"
#include "plugincheck/catalogue.h"

namespace rq::plugincheck {
namespace {

using nlohmann::json;
using testing::HasSubstr;

// The leak checker would find what these plug-ins leave behind before the program can tell it.
kit::Child::Options Environment() {
    kit::Child::Options options;
    options.environment = {{"ASAN_OPTIONS", "detect_leaks=0"}};
    return options;
}

struct Ended {
    int exitCode = -1;
    std::string output;
    std::string errors;
    json report;

    std::set<std::string> Failed() const {
        std::set<std::string> names;
        for (const json& check : report.at("checks"))
            if (check.at("result") == "failed") names.insert(check.at("name").get<std::string>());
        return names;
    }
    json Find(const std::string& name) const {
        for (const json& check : report.at("checks"))
            if (check.at("name") == name) return check;
        return {};
    }
};

Ended RunProgram(const std::vector<std::string>& arguments) {
    kit::Child child(RQ_PROGRAM, arguments, Environment());
    Ended run;
    run.exitCode = child.ExitCode();
    run.output = child.Output();
    run.errors = child.Errors();
    return run;
}

// With the report as JSON. The task text is whatever these plug-ins take: they take anything.
Ended CheckPlugin(const std::string& library, std::vector<std::string> arguments,
                  const std::string& task = "<Task/>") {
    const kit::TempDir folder;
    folder.Write("task.xml", task);
    arguments.insert(arguments.begin(), {library, "--json", "--seed", "7"});
    if (!task.empty()) arguments.insert(arguments.end(), {"--task", folder.Utf8("task.xml")});
    Ended run = RunProgram(arguments);
    run.report = json::parse(run.output, nullptr, false);
    EXPECT_FALSE(run.report.is_discarded()) << run.output << run.errors;
    if (run.report.is_discarded()) run.report = {{"checks", json::array()}};
    return run;
}

// ---- a breach each ----

struct Breach {
    const char* plugin;
    const char* check;
    const char* seen;  // part of what the report says was seen
    std::vector<std::string> arguments = {};
};

void PrintTo(const Breach& breach, std::ostream* stream) {
    *stream << breach.plugin;
}

class EachBreach : public testing::TestWithParam<Breach> {};

TEST_P(EachBreach, IsReportedByItsNameAndNoOther) {
    const Breach& breach = GetParam();
    std::vector<std::string> arguments = breach.arguments;
    if (arguments.empty()) arguments = {"--tasks", "2"};
    const Ended run = CheckPlugin(test::BadPlugin(breach.plugin), arguments);
    EXPECT_EQ(run.exitCode, 1) << run.output << run.errors;
    EXPECT_THAT(run.Failed(), testing::ElementsAre(breach.check)) << run.output;
    const json check = run.Find(breach.check);
    ASSERT_TRUE(check.contains("seen"));
    EXPECT_THAT(check.at("seen").get<std::string>(), HasSubstr(breach.seen));
    EXPECT_EQ(run.report.at("passed"), false);
}

const std::vector<std::string> kRow = {"--tasks", "44"};

const std::vector<Breach> kBreaches = {
    Breach{"no_perform", "missing-export", "RQWorkerPerformTask"},
    Breach{"no_analyse", "missing-export", "RQWorkerAnalyseTask"},
    Breach{"wrong_version", "contract-version", "version 7"},
    Breach{"version_0", "contract-version", "version 0"},
    Breach{"version_0_silent", "contract-version", "contract version 0"},
    Breach{"short_description", "struct-size", "4 bytes"},
    Breach{"small_record", "struct-size", "record"},
    Breach{"half_described", "description", "2 task types"},
    Breach{"init_fails", "init-failed", "77"},
    Breach{"null_task_info", "no-record", "NULL"},
    Breach{"throws_in_init", "exception", "RQWorkerInit threw an exception: not caught"},
    Breach{"throws_in_analysis", "exception", "RQWorkerAnalyseTask"},
    Breach{"throws_in_release", "exception", "RQWorkerRelease"},
    Breach{"crash_in_perform", "crash", "in RQWorkerPerformTask of task 1"},
    Breach{"crash_on_thread", "crash", "in RQWorkerPerformTask of task 1"},
    Breach{"crash_at_end", "crash", "at the end of the process"},
    Breach{"changes_task_text", "host-text", "the task text"},
    Breach{"wipes_host_text", "host-text", "the error texts"},
    Breach{"progress_thread", "progress-thread", "0 of 10"},
    Breach{"progress_late", "progress-late", "10 of 10"},
    Breach{"progress_context", "progress-context", "no perform call"},
    Breach{"percent_above_100", "percent-above-100", "150 of 100"},
    Breach{"percent_backwards", "percent-backwards", "40.00 %) after 80.00 %"},
    Breach{"negative_figure", "negative-figure", "-5 of 100"},
    Breach{"status_running", "status-running", "task 1"},
    Breach{"status_unknown", "status-unknown", "status 9"},
    Breach{"cancel_as_error", "stop-status", "asked is 5"},
    Breach{"stop_late", "stop-late", "after stop flag 1"},
    Breach{"no_return", "no-return", "RQWorkerPerformTask", {"--patience", "1"}},
    Breach{"deaf_to_pause", "pause", "no progress call for "},
    Breach{"silent", "silence", "nothing for ", {"--tasks", "2", "--patrol", "1"}},
    Breach{"thread_left", "thread-left", "1 thread(s) more"},
    Breach{"memory_growth", "memory-growth", "for each", kRow},
    Breach{"handles_left", "handles-left", "more are open", kRow},
    Breach{"text_freed", "text-memory", "task"},
    Breach{"record_freed", "text-memory", "after the analysis of the next task"},
    Breach{"record_changed", "record-changed", "the task ID"},
    Breach{"entry_changed", "result-list", "entry 0 was"},
    Breach{"list_overcount", "result-list", "capacity"},
    Breach{"task_text_kept", "task-text-kept", "the task ID points into the task text"},
    Breach{"task_text_used", "task-text-kept", "with the text left in place it succeeds"},
    Breach{"invalid_utf8", "invalid-utf8", "the task ID"},
    Breach{"early_result", "wrong-order", "publishResult"}};

INSTANTIATE_TEST_SUITE_P(All, EachBreach, testing::ValuesIn(kBreaches),
                         [](const auto& breach) { return std::string(breach.param.plugin); });

#if defined(RQ_ABORTS_AT_WRONG_FREE)
INSTANTIATE_TEST_SUITE_P(WithThisAllocator, EachBreach,
                         testing::Values(Breach{"frees_host_text", "crash", "RQWorkerPerformTask"}),
                         [](const auto& breach) { return std::string(breach.param.plugin); });
#endif

// ---- nothing broken ----

TEST(Check, PassesAPluginThatKeepsTheContract) {
    const Ended run = CheckPlugin(test::BadPlugin("keeps_contract"), kRow);
    EXPECT_EQ(run.exitCode, 0) << run.output << run.errors;
    for (const json& check : run.report.at("checks")) EXPECT_EQ(check.at("result"), "passed") << check;
    EXPECT_EQ(run.report.at("figures").at("tasks_in_a_row"), 44);
    EXPECT_EQ(run.report.at("seed"), 7);
}

TEST(Check, PassesThePluginWithTheTwoRequiredExports) {
    const Ended run = CheckPlugin(test::BadPlugin("only_required"), {"--tasks", "2"});
    EXPECT_EQ(run.exitCode, 0) << run.output << run.errors;
}

TEST(Check, SaysWhatItDidNotCheckWithoutATask) {
    const Ended run = CheckPlugin(test::BadPlugin("keeps_contract"), {}, "");
    EXPECT_EQ(run.exitCode, 0) << run.output << run.errors;
    EXPECT_EQ(run.Find("stop-late").at("result"), "not checked");
    EXPECT_EQ(run.Find("no-record").at("result"), "passed");
    EXPECT_THAT(run.report.at("remarks").dump(), HasSubstr("nothing was performed"));
}

TEST(Check, SaysWhenTheFileOfType23IsNotThere) {
    const Ended run = CheckPlugin(test::BadPlugin("keeps_contract"), {"--type", "23"}, "");
    EXPECT_EQ(run.exitCode, 0) << run.output << run.errors;
    EXPECT_THAT(run.report.at("remarks").dump(), HasSubstr("there is no actor.xml in the plug-in's folder"));
    const Ended other = CheckPlugin(test::BadPlugin("keeps_contract"), {"--type", "3"}, "");
    EXPECT_THAT(other.report.at("remarks").dump(), testing::Not(HasSubstr("actor.xml")));
}

// A plug-in of the tests that no check above has looked at would be one that nobody holds against its rule.
TEST(Check, KnowsEveryPluginOfTheTests) {
    std::set<std::string> known;
    for (const Breach& breach : kBreaches) known.insert(breach.plugin);
    // Those that keep the contract, one that does what it is told, and one whose breach only some allocators
    // see.
    for (const char* name :
         {"keeps_contract", "only_required", "needs_neighbour", "scripted", "frees_host_text"})
        known.insert(name);
    std::set<std::string> there;
    for (const auto& entry : std::filesystem::directory_iterator(RQ_BAD_PLUGIN_DIR))
        if (std::filesystem::exists(PathFromUtf8(test::BadPlugin(Utf8FromPath(entry.path().filename())))))
            there.insert(Utf8FromPath(entry.path().filename()));
    EXPECT_EQ(there, known);
}

TEST(Check, LoadsFromThePluginsOwnFolder) {
    const Ended run = CheckPlugin(test::BadPlugin("needs_neighbour"), {}, "");
    EXPECT_EQ(run.Find("load").at("result"), "passed") << run.output;
}

TEST(Check, TellsALibraryThatDoesNotLoad) {
    const kit::TempDir folder;
    folder.Write("broken.so", "this is no library");
    const Ended run = CheckPlugin(folder.Utf8("broken.so"), {});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.Failed(), testing::ElementsAre("load"));
}

TEST(Check, PassesTheMd5Plugin) {
    const kit::TempDir folder;
    folder.Write("file.bin", std::string(300'000, 'x'));
    const std::string task = "<MD5Task><ID>check</ID><Files><File><Path>" + folder.Utf8("file.bin") +
                             "</Path></File></Files></MD5Task>";
    const Ended run = CheckPlugin(RQ_MD5_PLUGIN, {"--tasks", "60"}, task);
    EXPECT_EQ(run.exitCode, 0) << run.output << run.errors;
    EXPECT_TRUE(run.Failed().empty());
    EXPECT_EQ(run.Find("memory-growth").at("result"), "passed");
}

TEST(Check, SaysWhyATaskIsRefused) {
    const Ended run = CheckPlugin(RQ_MD5_PLUGIN, {"--tasks", "1"}, "<MD5Task/>");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.Failed(), testing::ElementsAre("analysis-failed"));
    EXPECT_THAT(run.Find("analysis-failed").at("seen").get<std::string>(), HasSubstr("<ID>"));
}

TEST(Check, SaysWhyATaskFails) {
    const Ended run = CheckPlugin(RQ_MD5_PLUGIN, {"--tasks", "1"},
                                  "<MD5Task><ID>check</ID><Files><File><Path>" + kit::TempDir().Utf8("gone") +
                                      "</Path></File></Files></MD5Task>");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.Failed(), testing::ElementsAre("task-failed"));
    EXPECT_THAT(run.Find("task-failed").at("seen").get<std::string>(), HasSubstr("status 4"));
}

// ---- the program ----

TEST(Program, ReportsInWords) {
    const kit::TempDir folder;
    folder.Write("task.xml", "<Task/>");
    const Ended run = RunProgram({test::BadPlugin("status_unknown"), "--task", folder.Utf8("task.xml"),
                                  "--tasks", "1", "--seed", "12"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.output, HasSubstr("plug-in breach 1.0.0, "));
    EXPECT_THAT(run.output, HasSubstr("\nseed 12\n"));
    EXPECT_THAT(run.output, HasSubstr("\nFAILED status-unknown: the perform call left a status that is none\n"
                                      "    seen:  status 9 after the perform call of task 1 (undisturbed)"));
    EXPECT_THAT(run.output,
                HasSubstr("    asked: it leaves 0, 4 or 5 (contract, \"Stop, pause, status\")\n"));
    EXPECT_EQ(run.errors, "");
}

TEST(Program, EndsWithTwoWhenItIsUsedWrongly) {
    EXPECT_EQ(RunProgram({}).exitCode, 2);
    EXPECT_EQ(RunProgram({"--bogus"}).exitCode, 2);
    EXPECT_EQ(RunProgram({test::BadPlugin("not_there")}).exitCode, 2);
    const Ended noTask = RunProgram({test::BadPlugin("keeps_contract"), "--task", "/not/there.xml"});
    EXPECT_EQ(noTask.exitCode, 2);
    EXPECT_THAT(noTask.errors, HasSubstr("/not/there.xml"));
    EXPECT_EQ(RunProgram({test::BadPlugin("keeps_contract"), "--tasks", "many"}).exitCode, 2);
    EXPECT_EQ(RunProgram({"--help"}).exitCode, 0);
}

TEST(Program, SaysThatAFolderIsOne) {
    const kit::TempDir folder;
    const Ended run = RunProgram({folder.Utf8()});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.errors,
              "rqplugin-check: " + folder.Utf8() + ": that is a folder; give the plug-in library in it\n");
}

// On Windows, too, where such words are options elsewhere.
TEST(Program, TakesAWordWithASlashForAPath) {
    const Ended run = RunProgram({"/not_there.dll"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.errors, "rqplugin-check: /not_there.dll: there is no such file\n");
}

TEST(Program, LeavesNoFolderBehind) {
    const kit::TempDir folder;
    kit::Child::Options options = Environment();
    for (const char* name : {"TMPDIR", "TMP", "TEMP"}) options.environment.emplace_back(name, folder.Utf8());
    const kit::TempDir tasks;
    tasks.Write("task.xml", "<Task/>");
    kit::Child child(RQ_PROGRAM, {test::BadPlugin("crash_in_perform"), "--task", tasks.Utf8("task.xml")},
                     options);
    EXPECT_EQ(child.ExitCode(), 1) << child.Output();
    EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
}

TEST(Catalogue, NamesEachCheckOnceAndInOrder) {
    std::set<std::string_view> names;
    for (std::size_t i = 0; i < Catalogue().size(); ++i) {
        EXPECT_EQ(static_cast<std::size_t>(Catalogue()[i].check), i);
        EXPECT_TRUE(names.insert(Catalogue()[i].name).second);
        EXPECT_EQ(CheckByName(Catalogue()[i].name), Catalogue()[i].check);
    }
    EXPECT_EQ(Catalogue().size(), static_cast<std::size_t>(Check::Crash) + 1);
    EXPECT_EQ(CheckByName("nothing"), std::nullopt);
}

}  // namespace
}  // namespace rq::plugincheck

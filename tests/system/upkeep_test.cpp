// What those do who look after a node: configuration, backup, removal, and a bundle for somebody else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "base/paths.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

Outcome RunEngine(const Node& node, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--data", Utf8FromPath(node.Data()), "--port", "0", "--http-port", "0"});
    kit::Child engine(kit::ProgramIn(node.Stage(), "rqengine"), arguments);
    Outcome outcome;
    outcome.code = engine.ExitCode(std::chrono::seconds(60));
    outcome.output = engine.Output();
    outcome.errors = engine.Errors();
    return outcome;
}

TEST(Upkeep, TheConfigurationIsReadPrintedAndChecked) {
    Node node(false);
    node.Folder().Write("data/engine.toml", "[engine]\nmax_workers = 3\n[store]\ndurability = \"process\"\n");
    const Outcome printed = RunEngine(node, {"--print-config", "--max-workers", "5"});
    EXPECT_EQ(printed.code, 0) << printed.errors;
    EXPECT_THAT(printed.output, HasSubstr("durability = \"process\"\n"));
    EXPECT_THAT(printed.output, HasSubstr("max_workers = 5\n")) << "the command line counts before the file";
    EXPECT_THAT(RunEngine(node, {"--print-config"}).output, HasSubstr("max_workers = 3\n"));
    node.Folder().Write("data/engine.toml", "[engine]\n\nmax_wrokers = 3\n");
    const Outcome refused = RunEngine(node, {});
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.errors, HasSubstr("engine.toml:3: \"max_wrokers\" is not a key of [engine]"));
    EXPECT_EQ(RunEngine(node, {"--config", node.Folder().Utf8("none.toml")}).code, 2);
}

TEST(Upkeep, EveryAnswerIsJsonWhenAskedFor) {
    Node node;
    const std::string film = Utf8FromPath(node.Folder().Write("film.bin", "content"));
    const auto ask = [&](std::vector<std::string> arguments, int code) {
        arguments.emplace_back("--json");
        const Outcome answer = node.Ctl(arguments);
        EXPECT_EQ(answer.code, code) << arguments[0] << ": " << answer.errors;
        return nlohmann::json::parse(answer.output);
    };
    EXPECT_EQ(ask({"submit", "md5", film}, 0)["id"], "t1");
    const Outcome waited = node.Ctl({"submit", "md5", film, "--wait", "--json"});
    EXPECT_EQ(waited.code, 0) << waited.errors;
    std::istringstream lines(waited.output);
    std::string line, last;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(nlohmann::json::parse(line)["id"], "t2");
    while (std::getline(lines, line)) last = line;
    EXPECT_EQ(nlohmann::json::parse(last)["state"], "finished");
    node.WaitForEnd("t1");
    const std::string copy = Utf8FromPath(node.Folder().Path() / "copy.db");
    EXPECT_GT(ask({"backup", copy}, 0)["bytes"], 0);
    const std::string bundle = Utf8FromPath(node.Folder().Path() / "b.tar.gz");
    const auto bundled = ask({"bundle", "t1", "--output", bundle}, 0);
    EXPECT_EQ(bundled["file"], bundle);
    EXPECT_EQ(bundled["bytes"], fs::file_size(PathFromUtf8(bundle)));
    const auto refused = ask({"suspend", "t1"}, 5)["error"];
    EXPECT_EQ(refused["exit_code"], 5);
    EXPECT_THAT(refused["message"].get<std::string>(), HasSubstr("t1 is finished"));
    EXPECT_EQ(ask({"show", "t9"}, 1)["error"]["exit_code"], 1);
    EXPECT_TRUE(ask({"shutdown"}, 0).is_object());
    EXPECT_EQ(node.Engine().ExitCode(std::chrono::seconds(60)), 0);
}

// What the path test says is what a worker then gets.
TEST(Upkeep, PathsOfOtherMachinesAreTestedAndUsed) {
    Node node(false);
    const fs::path film = node.Folder().Write("media/film.bin", "content").make_preferred();
    const std::string media = Utf8FromPath(film.parent_path());
    node.Folder().Write("data/engine.toml", "[paths.map]\n'Q:\\media' = '" + media + "'\n");
    node.StartEngine();
    const auto test = [&](const std::string& path) { return node.Ctl({"path", "test", path}); };
    const Outcome there = test("q:/media/film.bin");
    EXPECT_EQ(there.code, 0) << there.errors;
    EXPECT_EQ(there.output, "q:/media/film.bin\n  rule:   Q:\\media = " + media + "\n  local:  " +
                                Utf8FromPath(film) + "\n  found:  file, 7 bytes, can be read\n");
    const Outcome absent = test("Q:\\media\\new.bin");
    EXPECT_EQ(absent.code, 1);
    EXPECT_THAT(absent.output,
                HasSubstr("\n  PROBLEM: nothing is there\n  its folder: " + media + ": is there (folder)\n"));
    EXPECT_THAT(test("Q:\\media\\none\\new.bin").output, HasSubstr("none: nothing is there\n"));
    EXPECT_THAT(test(media).output, HasSubstr("\n  rule:   none; the path stays as it is\n"));
    const Outcome refused = test("film.bin");
    EXPECT_NE(refused.code, 0);
    const Outcome json = node.Ctl({"path", "test", "Q:\\media\\new.bin", "--json"});
    EXPECT_EQ(json.code, 1);
    const auto answer = nlohmann::json::parse(json.output);
    EXPECT_EQ(answer["local"], Utf8FromPath(film.parent_path() / "new.bin"));
    EXPECT_EQ(answer["reached"], false);
    EXPECT_EQ(answer["folder"]["kind"], "folder");
    EXPECT_EQ(nlohmann::json::parse(node.Ctl({"path", "test", media, "--json"}).output)["kind"], "folder");
    // A real worker with a real plug-in.
    const auto task = node.WaitForEnd(node.SubmitText(
        "mc", "<MD5Task><ID>1</ID><Files><File><Path>Q:\\media\\film.bin</Path></File></Files></MD5Task>"));
    EXPECT_EQ(task["state"], "finished") << task;
    EXPECT_THAT(task["result"].dump(), HasSubstr(kit::ReferenceMd5(film)));
}

TEST(Upkeep, ABackupMadeWhileTheEngineRunsIsAStore) {
    Node node;
    const fs::path file = node.Folder().Write("film.bin", "content");
    const auto before = node.WaitForEnd(node.SubmitMd5(file));
    const fs::path copy = node.Folder().Path() / "copy.db";
    const Outcome made = node.Ctl({"backup", Utf8FromPath(copy)});
    ASSERT_EQ(made.code, 0) << made.errors;
    EXPECT_TRUE(kit::IsOwnersAlone(copy));
    const Outcome again = node.Ctl({"backup", Utf8FromPath(copy)});
    EXPECT_EQ(again.code, 2);
    EXPECT_THAT(again.errors, HasSubstr("there already"));
    node.SubmitMd5(file);
    node.EndEngine();
    for (const char* name : {"store.db", "store.db-wal", "store.db-shm"}) fs::remove(node.Data() / name);
    fs::copy_file(copy, node.Data() / "store.db");
    node.StartEngine();
    const auto after = node.Show("t1");
    EXPECT_EQ(after["result"], before["result"]);
    EXPECT_EQ(node.Ctl({"show", "t2"}).code, 1) << "it came after the backup";
}

TEST(Upkeep, WhatIsNoLongerKeptGoesWhenAsked) {
    Node node(false);
    node.Folder().Write("data/engine.toml", "[retention]\noutput_days = 1\nlogs_days = 1\n");
    node.StartEngine();
    const auto record = node.WaitForEnd(node.SubmitMd5(node.Folder().Write("film.bin", "content")));
    const auto& attempt = record["attempt_list"][0];
    const fs::path output = PathFromUtf8(attempt.value("output", "")),
                   log = PathFromUtf8(attempt.value("log", ""));
    kit::WaitUntil([&] { return !node.Show("t1")["attempt_list"][0]["exited"].is_null(); });
    ASSERT_EQ(node.Ctl({"gc"}).code, 0);
    EXPECT_TRUE(fs::exists(output));
    EXPECT_TRUE(fs::exists(log));
    fs::last_write_time(output, fs::file_time_type::clock::now() - std::chrono::hours(48));
    fs::last_write_time(log, fs::file_time_type::clock::now() - std::chrono::hours(48));
    EXPECT_THAT(node.Ctl({"gc"}).output, HasSubstr("output: 1 files"));
    EXPECT_FALSE(fs::exists(output));
    EXPECT_FALSE(fs::exists(log));
    EXPECT_TRUE(node.Show("t1")["attempt_list"][0]["log"].is_null());
}

TEST(Upkeep, ABundleHasWhatThereIsAndNoSecrets) {
    Node node;
    const std::string task = node.SubmitText("mc", "<MD5Task><Token>hush hush</Token></MD5Task>");
    node.WaitForEnd(task);
    const fs::path bundle = node.Folder().Path() / "bundle.tar.gz",
                   folder = node.Folder().Path() / "unpacked";
    const Outcome made = node.Ctl({"bundle", task, "--output", Utf8FromPath(bundle)});
    ASSERT_EQ(made.code, 0) << made.errors;
    EXPECT_EQ(node.Ctl({"bundle", task, "--output", Utf8FromPath(bundle)}).code, 1) << "it is there already";
    EXPECT_TRUE(kit::IsOwnersAlone(bundle));
    EXPECT_EQ(kit::ReadBytes(bundle).substr(0, 2), "\x1f\x8b");
    if (PathSeparator() == L'\\') return;  // nothing unpacks it in Wine
    fs::create_directory(folder);
    kit::Child tar("/bin/tar", {"-xzf", Utf8FromPath(bundle), "-C", Utf8FromPath(folder)});
    ASSERT_EQ(tar.ExitCode(), 0) << tar.Errors();
    std::string all;
    for (const char* name : {"README.txt", "task.json", "parameters.xml", "events.json", "versions.txt",
                             "engine.json", "engine.log"}) {
        EXPECT_TRUE(fs::exists(folder / name)) << name;
        all += kit::ReadText(folder / name);
    }
    const auto logs = kit::FindFiles(folder / "attempt-1", "_W.log");
    ASSERT_EQ(logs.size(), 1u);
    all += kit::ReadText(logs[0]);
    EXPECT_EQ(kit::FindFiles(folder / "attempt-1", ".out").size(), 1u);
    EXPECT_THAT(all, HasSubstr("<Token>***</Token>"));
    EXPECT_THAT(all, testing::Not(HasSubstr("hush")));
    EXPECT_THAT(all, testing::Not(HasSubstr(node.Token())));
}

}  // namespace
}  // namespace rq::system_test

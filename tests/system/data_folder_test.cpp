// What an operator sees when something happens to the engine's data folder, and when a command line is wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// Windows does not let go of a folder with open files.
bool FoldersStayWhileInUse() {
    return PathSeparator() == L'\\';
}

TEST(DataFolder, AnEngineWhoseFolderIsRemovedSaysSoAndEnds) {
    if (FoldersStayWhileInUse()) GTEST_SKIP() << "its files cannot be removed here";
    Node node;
    fs::remove_all(node.Data());
    EXPECT_EQ(node.Engine().ExitCode(std::chrono::seconds(60)), 1);
    EXPECT_THAT(node.Engine().Errors(), HasSubstr("was removed or emptied"));
}

TEST(DataFolder, AnEngineThatIsReplacedLeavesTheOtherAlone) {
    if (FoldersStayWhileInUse()) GTEST_SKIP() << "its files cannot be removed here";
    Node node;
    const std::string other =
        "{\"pid\": 1, \"link_port\": 1, \"http_port\": 1, \"started\": \"\", \"version\": \"\"}\n";
    node.Folder().Write("other.json", other);
    fs::rename(node.Folder().Path() / "other.json", node.Data() / "engine.json");
    EXPECT_EQ(node.Engine().ExitCode(std::chrono::seconds(60)), 1);
    EXPECT_THAT(node.Engine().Errors(), HasSubstr("another engine has taken over"));
    EXPECT_EQ(kit::ReadText(node.Data() / "engine.json"), other);
}

TEST(DataFolder, AnAnnouncementThatIsRemovedIsWrittenAgain) {
    Node node;
    fs::remove(node.Data() / "engine.json");
    EXPECT_TRUE(kit::WaitUntil([&] { return fs::exists(node.Data() / "engine.json"); }));
    EXPECT_EQ(node.Ctl({"list"}).code, 0);
}

TEST(DataFolder, AnEmptyStoreIsNotTakenForANewOne) {
    Node node;
    EXPECT_EQ(node.EndEngine(), 0);
    fs::resize_file(node.Data() / "store.db", 0);
    kit::Child engine(kit::ProgramIn(node.Stage(), "rqengine"),
                      {"--data", Utf8FromPath(node.Data()), "--port", "0", "--http-port", "0"});
    EXPECT_EQ(engine.ExitCode(std::chrono::seconds(60)), 1);
    EXPECT_THAT(engine.Errors(), HasSubstr("store.db: the store is an empty file"));
}

// On Windows too, where others write options like that.
TEST(CommandLines, ASlashBeginsAPathAndNoOption) {
    Node node(false);
    kit::Child engine(kit::ProgramIn(node.Stage(), "rqengine"), {"/version"});
    EXPECT_EQ(engine.ExitCode(std::chrono::seconds(60)), 2);
    EXPECT_THAT(engine.Errors(), HasSubstr("/version"));
    const Outcome outcome = node.Ctl({"submit", "md5", "/version"});
    // On Windows a path of another system, of which the engine is asked; none runs.
    const bool isOfThisSystem = kit::RootName().empty();
    EXPECT_EQ(outcome.code, isOfThisSystem ? 2 : 3) << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr(isOfThisSystem ? "/version: no such file" : "no engine runs"));
    EXPECT_EQ(outcome.output, "");
}

TEST(CommandLines, ABadLogFolderIsToldWithItsVariable) {
    Node node(false);
    node.Folder().Write("file", "");
    const kit::ScopedEnvironment variable("RQ_LOG_DIR", Utf8FromPath(node.Folder().Path() / "file" / "logs"));
    kit::Child engine(kit::ProgramIn(node.Stage(), "rqengine"),
                      {"--data", Utf8FromPath(node.Data()), "--port", "0", "--http-port", "0"});
    EXPECT_EQ(engine.ExitCode(std::chrono::seconds(60)), 1);
    EXPECT_THAT(engine.Errors(), HasSubstr("RQ_LOG_DIR"));
}

TEST(CommandLines, AnEmptyTaskIdIsRefused) {
    Node node;
    for (const char* command : {"show", "watch", "cancel", "delete", "bundle"}) {
        const Outcome outcome = node.Ctl({command, ""});
        EXPECT_EQ(outcome.code, 2) << command;
        EXPECT_THAT(outcome.errors, HasSubstr("task ID is empty")) << command;
    }
}

}  // namespace
}  // namespace rq::system_test

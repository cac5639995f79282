// What an operator sees when the stage lacks something: tasks wait and say why, and go on once it is mended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/os.h"
#include "node.h"

namespace rq::system_test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class StageFaults : public testing::Test {
  protected:
    StageFaults() : m_file(m_node.Folder().Write("film.bin", "content")) {
        for (const char* name : {"plugins/md5/md5.so", "plugins/md5/md5.dll"})
            if (fs::exists(m_node.Stage() / name)) m_plugin = fs::path(name).make_preferred();
    }

    // Takes the file away, submits a task, and gives the file back: the task waits and is done then.
    void WaitsForThe(const fs::path& part, const std::string& reason) {
        const fs::path aside = m_node.Folder().Path() / "aside";
        fs::rename(m_node.Stage() / part, aside);
        const std::string task = m_node.SubmitMd5(m_file);
        nlohmann::json record;
        kit::WaitUntil([&] {
            record = m_node.Show(task);
            return record["reason"].is_string();
        });
        EXPECT_EQ(record["state"], "queued");
        EXPECT_THAT(record.value("reason", ""), HasSubstr(reason));
        EXPECT_EQ(record["attempts"], 0);
        fs::rename(aside, m_node.Stage() / part);
        record = m_node.WaitForEnd(task);
        EXPECT_EQ(record["state"], "finished") << record.dump(2);
        EXPECT_TRUE(record["reason"].is_null());
        EXPECT_EQ(record["attempts"], 1);
    }

    Node m_node;
    fs::path m_file;
    fs::path m_plugin;  // in the stage
};

TEST_F(StageFaults, TasksWaitForAMissingPlugin) {
    WaitsForThe(m_plugin, m_plugin.filename().string() + ", is missing");
}

TEST_F(StageFaults, TasksWaitForAMissingTypeTable) {
    WaitsForThe("RQWorkerConfig.xml", "RQWorkerConfig.xml is missing");
}

TEST_F(StageFaults, TasksWaitForAMissingWorkerProgram) {
    WaitsForThe(fs::relative(kit::ProgramIn(m_node.Stage(), "RQWorkerU"), m_node.Stage()), "is missing");
}

TEST_F(StageFaults, AWatcherIsToldWhyATaskWaits) {
    fs::remove(m_node.Stage() / "RQWorkerConfig.xml");
    const std::string task = m_node.SubmitMd5(m_file);
    kit::WaitUntil([&] { return m_node.Show(task)["reason"].is_string(); });
    kit::Child watch(kit::ProgramIn(m_node.Stage(), "rqctl"),
                     {"--data", Utf8FromPath(m_node.Data()), "watch", task});
    EXPECT_TRUE(kit::WaitUntil([&] { return watch.Errors().find("is missing") != std::string::npos; }))
        << watch.Errors();
    m_node.Ctl({"cancel", task});
    EXPECT_EQ(watch.ExitCode(std::chrono::seconds(60)), 4);
}

TEST_F(StageFaults, TheEngineSaysAtItsStartWhatIsMissing) {
    EXPECT_EQ(m_node.EndEngine(), 0);
    fs::remove(m_node.Stage() / m_plugin);
    m_node.StartEngine();
    EXPECT_THAT(m_node.Engine().Errors(), HasSubstr(m_plugin.filename().string() + ", is missing"));
}

// A worker that ends by itself before it has a status to report: its log says why, and the record says where.
TEST_F(StageFaults, ALibraryThatCannotBeLoadedIsTheReason) {
    fs::remove(m_node.Stage() / m_plugin);  // a link to the stage's own file
    m_node.Folder().Write("stage/" + Utf8FromPath(m_plugin), "no library");
    const auto record = m_node.WaitForEnd(m_node.SubmitMd5(m_file));
    EXPECT_EQ(record["state"], "failed");
    const std::string reason = record.value("reason", ""), log = record["attempt_list"][0].value("log", "");
    EXPECT_THAT(reason, HasSubstr("its log says last: "));
    EXPECT_THAT(reason, HasSubstr(m_plugin.filename().string()));
    EXPECT_THAT(reason, HasSubstr("; log: " + log));
    EXPECT_THAT(kit::ReadText(PathFromUtf8(log)), HasSubstr("Load worker library failed"));
    const std::string shown = m_node.Ctl({"show", record.value("id", "")}).output;
    EXPECT_THAT(shown, HasSubstr("  log:"));
}

}  // namespace
}  // namespace rq::system_test

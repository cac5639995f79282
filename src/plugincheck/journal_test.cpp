#include "plugincheck/journal.h"

#include <gtest/gtest.h>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "plugincheck/options.h"

namespace rq::plugincheck {
namespace {

class JournalFile : public testing::Test {
  protected:
    Journal Read() const { return ReadJournal(kit::ReadBytes(m_folder.Path() / "journal")); }

    kit::TempDir m_folder;
    std::unique_ptr<JournalWriter> m_writer = JournalWriter::Create(m_folder.Utf8("journal"));
};

TEST_F(JournalFile, KeepsTheFirstSightOfABreachAndCountsTheRest) {
    m_writer->Tell(Check::StatusRunning, "first \xFF");
    m_writer->Tell(Check::StatusRunning, "second");
    EXPECT_EQ(Read().findings.at(Check::StatusRunning).seen, "first \xEF\xBF\xBD");
    EXPECT_EQ(Read().findings.at(Check::StatusRunning).times, 1u);  // not finished
    m_writer->Finish();
    EXPECT_EQ(Read().findings.at(Check::StatusRunning).times, 2u);
    EXPECT_TRUE(Read().isFinished);
}

TEST_F(JournalFile, ShowsWhatWasUnderWayInEachLane) {
    const Step main(*m_writer, Lane::Main, "performing");
    {
        const Step link(*m_writer, Lane::Link, "reading", Check::TextMemory);
        ASSERT_TRUE(Read().steps[1]);
        EXPECT_EQ(Read().steps[1]->what, "reading");
        EXPECT_EQ(Read().steps[1]->blame, Check::TextMemory);
    }
    EXPECT_FALSE(Read().steps[1]);
    ASSERT_TRUE(Read().steps[0]);
    EXPECT_EQ(Read().steps[0]->blame, Check::Crash);
}

TEST_F(JournalFile, ReadsRemarksFiguresAndThePlugin) {
    m_writer->Remark("a remark");
    m_writer->Remark("a remark");
    m_writer->Figure("tasks", 12);
    m_writer->Exercised(Check::Load);
    m_writer->Plugin({"name", "1.2", {3, 4}, 5, true});
    const Journal journal = Read();
    EXPECT_EQ(journal.remarks, std::vector<std::string>{"a remark"});
    EXPECT_EQ(journal.figures.at("tasks"), 12);
    EXPECT_EQ(journal.exercised, std::set<Check>{Check::Load});
    EXPECT_EQ(journal.plugin.name, "name");
    EXPECT_EQ(journal.plugin.types, (std::vector<std::int32_t>{3, 4}));
    EXPECT_EQ(journal.plugin.abilities, 5u);
}

TEST(ReadJournal, TakesAnUnfinishedLineForNone) {
    const Journal journal =
        ReadJournal("{\"exercised\":\"load\"}\nrubbish\n[1]\n{\"lane\":7,\"step\":\"x\"}\n{\"fin");
    EXPECT_EQ(journal.exercised.size(), 1u);
    EXPECT_FALSE(journal.isFinished);
}

TEST(Options, SurviveTheirWayToTheCheckingProcess) {
    CheckOptions options;
    options.library = "/folder/新闻.so";
    options.type = 23;
    options.task = std::string("\xFF\0<", 3);
    options.seed = 0xFFFFFFFFFFFFFFFF;
    options.tasks = 5;
    options.time_s = 6;
    options.patience_s = 7;
    options.patrol_s = 8;
    const auto read = OptionsFromJson(ToJson(options));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->library, options.library);
    EXPECT_EQ(read->type, options.type);
    EXPECT_EQ(read->task, options.task);
    EXPECT_EQ(read->seed, options.seed);
    EXPECT_EQ(read->tasks, 5u);
    EXPECT_EQ(read->time_s, 6u);
    EXPECT_EQ(read->patience_s, 7u);
    EXPECT_EQ(read->patrol_s, 8);
    EXPECT_FALSE(OptionsFromJson("{}"));
}

}  // namespace
}  // namespace rq::plugincheck

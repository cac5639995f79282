#include "engine/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "engine/store.h"
#include "kit/temp_dir.h"
#include "records/task_codes.h"

namespace rq::engine {
namespace {

using testing::HasSubstr;

TEST(Metrics, EachFamilyIsToldWithItsKindAndHelp) {
    MetricsFacts facts;
    facts.version = "1\"2\\3";
    facts.now_us = 10'000'000;
    facts.workers = 1;
    facts.maxWorkers = 4;
    facts.held[3] = "why";
    facts.disks = {{"data", 1000, 500}};
    facts.census.types[3] = {{{"queued", 2}, {"finished", 1}}, 3, 1, 1, 2'500'000, 4'000'000};
    facts.census.types[299].attempts = 1;
    facts.census.running = {{"t5", 1, 41.5, 2.25}};
    const std::string text = MetricsText(facts);
    for (const char* line :
         {"rq_build_info{version=\"1\\\"2\\\\3\"} 1\n", "rq_workers 1\n", "rq_workers_max 4\n",
          "rq_tasks{state=\"queued\",type=\"mc\"} 2\n", "rq_attempts_total{type=\"299\"} 1\n",
          "rq_attempts_lost_total{type=\"mc\"} 1\n", "rq_task_duration_seconds_sum{type=\"mc\"} 2.500000\n",
          "rq_task_duration_seconds_count{type=\"mc\"} 1\n", "rq_queue_age_seconds{type=\"mc\"} 6\n",
          "rq_queue_age_seconds{type=\"299\"} 0\n", "rq_type_held{type=\"mc\"} 1\n",
          "rq_task_speed{task=\"t5\",type=\"tc\"} 2.250000\n", "rq_disk_free_bytes{folder=\"data\"} 500\n"})
        EXPECT_THAT(text, HasSubstr(line));
    // The format: comments and samples, each family announced before its samples.
    const std::regex form(
        R"(# (HELP [a-z_]+ .+|TYPE [a-z_]+ (gauge|counter|summary))|[a-z_]+(\{[a-z]+="([^"\\]|\\.)*"(,[a-z]+="([^"\\]|\\.)*")*\})? -?[0-9]+(\.[0-9]+)?)");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) EXPECT_TRUE(std::regex_match(line, form)) << line;
}

class CensusTest : public testing::Test {
  protected:
    CensusTest() { Open(); }
    void Open() {
        m_store = Store::Open(m_folder.Utf8("store.db"), [this] { return m_now; }).value();
    }
    void RunOne(std::uint32_t status) {
        const Claim claim = *m_store->ClaimNext().value();
        ASSERT_TRUE(m_store->Status(claim.token, kTaskRunning));
        m_now += 1'000'000;
        FinalStatus final;
        final.status = status;
        ASSERT_TRUE(m_store->Finish(claim.token, final));
    }

    kit::TempDir m_folder;
    std::int64_t m_now = 1'000'000;
    std::unique_ptr<Store> m_store;
};

TEST_F(CensusTest, CountsWhatTheStoreHas) {
    for (const int type : {3, 3, 1}) m_store->Submit({type, "", "<T/>"}).value();
    RunOne(0);
    const Claim running = *m_store->ClaimNext().value();
    ASSERT_TRUE(m_store->Status(running.token, kTaskRunning));
    ASSERT_TRUE(m_store->Progress(running.token, {10, 2, 0}));
    const StoreCensus census = m_store->Census().value();
    EXPECT_EQ(census.types.at(3).tasks.at("finished"), 1);
    EXPECT_EQ(census.types.at(3).tasks.at("running"), 1);
    EXPECT_EQ(census.types.at(3).attempts, 2);
    EXPECT_EQ(census.types.at(3).ended, 1);
    EXPECT_EQ(census.types.at(3).ended_us, 1'000'000);
    EXPECT_EQ(census.types.at(1).oldestQueued_us, 1'000'000);
    ASSERT_EQ(census.running.size(), 1u);
    EXPECT_EQ(census.running[0].task, "t2");
    EXPECT_EQ(census.running[0].speed, 2);
    EXPECT_GT(census.events, 10);
}

TEST_F(CensusTest, OldEventsOfEndedTasksGoAndNothingElse) {
    m_store->Submit({3, "", "<T/>"}).value();
    m_store->Submit({3, "", "<T/>"}).value();
    RunOne(0);
    const auto before = m_store->Events(1, 0, 1000).value().size();
    EXPECT_EQ(m_store->DropEvents(m_now, 0, 1000).value(), 0) << "it has ended just then";
    EXPECT_EQ(m_store->DropEvents(m_now + 1, 0, 3).value(), 3) << "no more than was asked for";
    EXPECT_EQ(m_store->DropEvents(m_now + 1, 0, 1000).value(), static_cast<std::int64_t>(before) - 3);
    EXPECT_TRUE(m_store->Events(1, 0, 1000).value().empty());
    EXPECT_EQ(m_store->Task(1).value()->state, TaskState::Finished);
    EXPECT_FALSE(m_store->Events(2, 0, 1000).value().empty());
    // From now on they are kept as before.
    auto database = Database::Open(m_folder.Utf8("store.db")).value();
    EXPECT_FALSE(database->Execute("DELETE FROM events"));
}

TEST_F(CensusTest, TheOldestEventsGoWhileThereAreTooMany) {
    m_store->Submit({3, "", "<T/>"}).value();
    RunOne(0);
    m_store->Submit({3, "", "<T/>"}).value();
    const auto all = static_cast<std::int64_t>(m_store->Events(1, 0, 1000).value().size() +
                                               m_store->Events(2, 0, 1000).value().size());
    EXPECT_EQ(m_store->DropEvents(0, all - 2, 1000).value(), 2);
    EXPECT_EQ(m_store->Events(1, 0, 1000).value().size() + m_store->Events(2, 0, 1000).value().size(),
              static_cast<std::size_t>(all - 2));
    EXPECT_EQ(m_store->DropEvents(0, 1, 1000).value(), all - 2 - 2) << "those of the queued task stay";
}

}  // namespace
}  // namespace rq::engine

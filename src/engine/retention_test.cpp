#include "engine/retention.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "engine/store.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;

class RetentionTest : public testing::Test {
  protected:
    void Make(const std::string& name, int age_days, std::size_t size_bytes = 10) {
        const auto path = m_root.Write(name, std::string(size_bytes, 'x'));
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(24 * age_days) -
                                      std::chrono::minutes(1));
    }
    bool IsThere(const std::string& name) { return fs::exists(m_root.Path() / name); }
    RemovedByKind Remove() { return RemoveOldFiles(m_root.Utf8(), m_kept, m_inUse, Store::SystemNow()()); }

    kit::TempDir m_root;
    Retention m_kept;
    std::set<std::string> m_inUse;
};

TEST_F(RetentionTest, EachKindHasItsAge) {
    m_kept.logs_days = 3;
    m_kept.output_days = 5;
    m_kept.dumps_days = 7;
    for (const int age_days : {2, 4, 6, 8}) {
        const std::string day = "RQWorker/2025010" + std::to_string(age_days) + "/";
        Make(day + "t1a1_00112233_W.log", age_days);
        Make(day + "RQWorkerU_20250101.000000_1.txt", age_days);
        Make("workers/t" + std::to_string(age_days) + "a1.out", age_days);
    }
    const auto removed = Remove();
    EXPECT_EQ(removed.at("logs").files, 3u);
    EXPECT_EQ(removed.at("output").files, 2u);
    EXPECT_EQ(removed.at("dumps").files, 1u);
    EXPECT_EQ(removed.at("logs").bytes, 30u);
    EXPECT_TRUE(IsThere("RQWorker/20250102/t1a1_00112233_W.log"));
    EXPECT_FALSE(IsThere("RQWorker/20250104/t1a1_00112233_W.log"));
    EXPECT_TRUE(IsThere("RQWorker/20250106/RQWorkerU_20250101.000000_1.txt"));
    EXPECT_FALSE(IsThere("workers/t6a1.out"));
}

TEST_F(RetentionTest, TheOldestGoWhileThereIsTooMuch) {
    m_kept.output_MiB = 2;
    for (int age_days = 1; age_days <= 4; ++age_days)
        Make("workers/t" + std::to_string(age_days) + ".out", age_days, 1024 * 1024);
    EXPECT_EQ(Remove().at("output").files, 2u);
    EXPECT_TRUE(IsThere("workers/t1.out"));
    EXPECT_TRUE(IsThere("workers/t2.out"));
    EXPECT_FALSE(IsThere("workers/t3.out"));
}

TEST_F(RetentionTest, NoughtKeepsEverything) {
    m_kept = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    Make("workers/old.out", 10'000, 1024 * 1024);
    Make("RQWorker/20000101/a_W.log", 10'000);
    for (const auto& [kind, removed] : Remove()) EXPECT_EQ(removed.files, 0u) << kind;
}

TEST_F(RetentionTest, WhatIsInUseAndWhatIsNotOursStays) {
    m_inUse = {"t1a1_00112233"};
    Make("RQWorker/20000101/t1a1_00112233_W.log", 1000);
    Make("RQWorker/20000101/notes.doc", 1000);
    Make("RQWorker/mine/a_W.log", 1000);
    Make("workers/t1a1_00112233.out", 1000);
    Make("engine.log", 1000);
    Make("other/a_W.log", 1000);
    for (const auto& [kind, removed] : Remove()) EXPECT_EQ(removed.files, 0u) << kind;
    m_inUse.clear();
    EXPECT_EQ(Remove().at("logs").files, 1u);
    EXPECT_TRUE(IsThere("RQWorker/20000101/notes.doc"));
}

TEST_F(RetentionTest, EmptyDaysGoOnceTheyAreOver) {
    Make("RQWorker/20000101/a_W.log", 1000);
    Make("RQWorker/20990101/notes.doc", 1000);
    Remove();
    EXPECT_TRUE(IsThere("RQWorker/20000101")) << "it has just been changed";
    constexpr std::int64_t kTwoDays_us = std::int64_t{48} * 3600 * 1'000'000;
    RemoveOldFiles(m_root.Utf8(), m_kept, m_inUse, Store::SystemNow()() + kTwoDays_us);
    EXPECT_FALSE(IsThere("RQWorker/20000101"));
    EXPECT_TRUE(IsThere("RQWorker/20990101"));
}

}  // namespace
}  // namespace rq::engine

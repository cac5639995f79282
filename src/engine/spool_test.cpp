#include "engine/spool.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "kit/temp_dir.h"
#include "link/codec.h"
#include "link/spool_file.h"
#include "records/engine_messages.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;

class SpoolTest : public testing::Test {
  protected:
    static std::string Status() {
        EngineStateMessage message{TCP_WORKER_STATE_ID, "state", "Worker", "Lite/Agent", {}};
        message.entries.emplace_back().status = kTaskFinished;
        return link::EncodeSpoolFile(7, link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, message).value());
    }

    kit::TempDir m_folder;
    EngineLog m_log{""};
    Spool m_spool{m_folder.Utf8(), m_log};
};

TEST_F(SpoolTest, GivesWhatIsThereAndSetsTheDamagedAside) {
    EXPECT_FALSE(m_spool.Read("a").value());
    m_folder.Write("spool/a.final", Status());
    const auto status = m_spool.Read("a");
    ASSERT_TRUE(status && *status);
    EXPECT_EQ((*status)->seq, 7u);
    m_folder.Write("spool/b.final", "no status");
    EXPECT_FALSE(m_spool.Read("b").value());
    EXPECT_TRUE(fs::exists(m_folder.Path() / "spool/b.bad"));
    m_spool.Remove("a");
    EXPECT_TRUE(m_spool.Attempts().empty());
}

TEST_F(SpoolTest, WhatIsTooLargeOrNoFileIsDamaged) {
    fs::create_directory(m_folder.Path() / "spool/a.final");
    EXPECT_FALSE(m_spool.Read("a").value());
    EXPECT_TRUE(fs::exists(m_folder.Path() / "spool/a.bad"));
    m_folder.Write("spool/b.final", "x");
    fs::resize_file(m_folder.Path() / "spool/b.final", link::kSpoolLimit_bytes + 1);
    EXPECT_FALSE(m_spool.Read("b").value());
    EXPECT_TRUE(fs::exists(m_folder.Path() / "spool/b.bad"));
}

}  // namespace
}  // namespace rq::engine

#include "engine/stage_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class StageCheckTest : public testing::Test {
  protected:
    StageCheckTest() {
        const auto program = m_stage.Write(RQ_WORKER_FILE_NAME, "program");
        fs::permissions(program, fs::perms::owner_all);
        m_stage.Write("plugins/md5/md5.lib", "library");
        Table("<WORKER><TYPE>3</TYPE><PATH>plugins/md5/md5.lib</PATH></WORKER>");
    }
    void Table(const std::string& workers) {
        m_stage.Write("RQWorkerConfig.xml", "<WorkerConfig>" + workers + "</WorkerConfig>");
    }
    std::string Problem(std::int32_t type) const { return Check().Problem(type).value_or(""); }
    StageCheck Check() const { return StageCheck(Utf8FromPath(m_stage.Path())); }

    kit::TempDir m_stage;
};

TEST_F(StageCheckTest, AWholeStageHasNoProblem) {
    EXPECT_EQ(Problem(3), "");
    EXPECT_THAT(Check().Problems(), testing::IsEmpty());
}

TEST_F(StageCheckTest, BackslashesInTheTableAreTakenAsTheWorkerTakesThem) {
    Table("<WORKER><TYPE>3</TYPE><PATH>plugins\\md5\\md5.lib</PATH></WORKER>");
    EXPECT_EQ(Problem(3), "");
}

TEST_F(StageCheckTest, WhatIsMissingIsNamed) {
    fs::remove(m_stage.Path() / "plugins/md5/md5.lib");
    EXPECT_THAT(Problem(3), HasSubstr("md5.lib, is missing"));
    EXPECT_THAT(Check().Problems(), testing::ElementsAre(HasSubstr("md5.lib, is missing")));
    EXPECT_THAT(Problem(299), HasSubstr("has no WORKER for type 299"));
    fs::remove(m_stage.Path() / "RQWorkerConfig.xml");
    EXPECT_THAT(Problem(3), HasSubstr("RQWorkerConfig.xml is missing"));
    fs::remove(m_stage.Path() / RQ_WORKER_FILE_NAME);
    EXPECT_THAT(Problem(3), HasSubstr(RQ_WORKER_FILE_NAME " is missing"));
    EXPECT_EQ(Check().Problems().size(), 2u);
}

TEST_F(StageCheckTest, ATableThatCannotBeReadIsNamedWithItsLine) {
    m_stage.Write("RQWorkerConfig.xml", "<WorkerConfig>\n<WORKER></TYPE></WORKER>\n</WorkerConfig>");
    EXPECT_THAT(Problem(3), HasSubstr("RQWorkerConfig.xml cannot be used: line 2"));
    m_stage.Write("RQWorkerConfig.xml", "");
    EXPECT_THAT(Problem(3), HasSubstr("cannot be used"));
    Table("<WORKER><TYPE>3</TYPE></WORKER>");
    EXPECT_THAT(Problem(3), HasSubstr("names no PATH for type mc"));
}

}  // namespace
}  // namespace rq::engine

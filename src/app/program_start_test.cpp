// The program on systems where its start fails, made by linking it with a failing piece of the platform room.
#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/child.h"
#include "platform/codepage.h"

namespace rq {
namespace {

class ProgramStart : public ::testing::Test {
  protected:
    // What the program writes before it ends with 1, from GBK.
    std::string FailureOf(const char* program) {
        kit::Child::Options options;
        options.environment = {{"RQ_LOG_DIR", m_dir.Utf8("logs")}, {"RQ_CONSOLE_ENCODING", ""}};
        options.directory = m_dir.Path();
        kit::Child child(PathFromUtf8(program), {"mc", "<x/>", "1"}, options);
        EXPECT_EQ(child.ExitCode(), 1);
        EXPECT_EQ(child.Errors(), "");
        return platform::GbkToUtf8(child.Output()).value_or("not GBK");
    }

    kit::TempDir m_dir;
};

TEST_F(ProgramStart, WithoutAModuleHandle) {
    EXPECT_EQ(FailureOf(RQ_NO_MODULE_FIXTURE), "错误: GetModuleHandle 失败\n");
    EXPECT_TRUE(kit::FindFiles(m_dir.Path(), "").empty()) << "there is no log yet";
}

TEST_F(ProgramStart, WithoutMfc) {
    EXPECT_EQ(FailureOf(RQ_NO_MFC_FIXTURE), "错误: MFC 初始化失败\n");
    EXPECT_TRUE(kit::FindFiles(m_dir.Path(), "").empty()) << "there is no log yet";
}

}  // namespace
}  // namespace rq

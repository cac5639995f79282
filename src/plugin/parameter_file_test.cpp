// The running-parameter file of worker type 23: its plug-in gets a name and opens it where it stands.

#include "kit/files.h"
#include "platform/files.h"
#include "plugin/runner_fixture.h"

namespace rq {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class RunnerParameterFileTest : public RunnerTest {
  protected:
    RunnerParameterFileTest() {
        WriteTable("<c><WORKER><TYPE>23</TYPE><PATH>" + FakePath() +
                   "</PATH></WORKER><WORKER><TYPE>14</TYPE><PATH>" + FakePath() + "</PATH></WORKER></c>");
        m_plugin.init = [this](const void* parameter) {
            ++m_inits;
            if (m_type != 23) return 0;
            m_read = platform::ReadWholeFile(static_cast<const char*>(parameter));
            return 0;
        };
    }
    // What Init logged between the change of the directory and the call.
    std::vector<std::string> InitLines(std::int32_t type = 23) {
        m_type = type;
        MakeRunner();
        m_log.Clear();
        EXPECT_EQ(Init(type), 0);
        EXPECT_EQ(m_inits, 1);
        std::vector<std::string> lines = Lines();
        EXPECT_EQ(lines.front(), "4 ====> Change Work Path to [" + m_dir.Utf8("fake") + "]");
        EXPECT_EQ(lines.back(), "1 m_workerPlugin.pInitFunc end..");
        return {lines.begin() + 1, lines.end() - 2};
    }
    bool IsCopied() const { return std::filesystem::exists(m_dir.Path() / "fake" / "actor.xml"); }

    std::int32_t m_type = 0;
    int m_inits = 0;
    std::optional<std::string> m_read;
};

TEST_F(RunnerParameterFileTest, IsFoundFromThePluginsFolder) {
    m_dir.Write("actor.xml", "<of the worker/>");
    const std::vector<std::string> lines = InitLines();
    EXPECT_EQ(m_read, "<of the worker/>");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("2 actor.xml was copied to "));
}

TEST_F(RunnerParameterFileTest, OneThatIsThereStaysAndIsToldWhenItDiffers) {
    m_dir.Write("actor.xml", "<of the worker/>");
    m_dir.Write("fake/actor.xml", "<of the plug-in/>");
    const std::vector<std::string> lines = InitLines();
    EXPECT_EQ(m_read, "<of the plug-in/>");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("3 the plug-in reads the actor.xml in "));
    EXPECT_THAT(lines[0], HasSubstr("differs from " + m_dir.Utf8("actor.xml")));
}

TEST_F(RunnerParameterFileTest, OneThatIsTheSameIsNotToldOf) {
    m_dir.Write("actor.xml", "<of the worker/>");
    m_dir.Write("fake/actor.xml", "<of the worker/>");
    EXPECT_THAT(InitLines(), ElementsAre());
    EXPECT_EQ(m_read, "<of the worker/>");
}

TEST_F(RunnerParameterFileTest, WithoutTheWorkersTheCallIsMadeAllTheSame) {
    const std::vector<std::string> lines = InitLines();
    EXPECT_EQ(m_read, std::nullopt);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("3 there is no actor.xml for the plug-in in "));
}

TEST_F(RunnerParameterFileTest, OtherTypesGetNone) {
    m_dir.Write("actor.xml", "<of the worker/>");
    EXPECT_THAT(InitLines(14), ElementsAre());
    EXPECT_FALSE(IsCopied());
}

}  // namespace
}  // namespace rq

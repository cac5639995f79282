// The real program and the files that it is given or finds: parameter files that are of no use, and the
// running parameters of many workers at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/sparse_file.h"
#include "kit/stage_copy.h"
#include "platform/codepage.h"

namespace rq {
namespace {

class ProgramFiles : public ::testing::Test {
  protected:
    ProgramFiles() {
        m_options.environment = {{"RQ_LOG_DIR", m_dir.Utf8("logs")}, {"RQ_CONSOLE_ENCODING", ""}};
        m_options.directory = m_dir.Path();
    }

    std::unique_ptr<kit::Child> Start(const std::vector<std::string>& arguments,
                                      const std::filesystem::path& stage = kit::StageFolder()) const {
        return std::make_unique<kit::Child>(kit::ProgramIn(stage, "RQWorkerU"), arguments, m_options);
    }
    std::string Log() const {
        std::string all;
        for (const auto& path : kit::FindFiles(m_dir.Path() / "logs", "_W.log")) all += kit::ReadText(path);
        return all;
    }
    std::size_t CountInLog(const std::string& part) const {
        const std::string all = Log();
        std::size_t count = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) ++count;
        return count;
    }

    kit::TempDir m_dir;
    kit::Child::Options m_options;
};

// The run goes on with what was read; the log has one line more. (The type is no good, so that it ends.)
TEST_F(ProgramFiles, AParameterFileOfNoUseStopsNothingAndIsNamedInTheLog) {
    kit::MakeSparseFile(m_dir.Path() / "huge.xml", 256ull * 1024 * 1024 + 1);
    m_dir.Write("binary.xml", std::string("\x7f"
                                          "ELF\0\0",
                                          6));
    m_dir.Write("empty.xml", "");
    m_dir.Write("folder.xml/x", "");
    struct Case {
        std::string file;
        std::string level;
        std::string words;
    };
    for (const Case& each :
         {Case{"missing.xml", "4", "\" is not used: "}, Case{"folder.xml", "4", "\" is not used: "},
          Case{"huge.xml", "4", "\" is not used: "},
          Case{"binary.xml", "3", "\" holds zero bytes, as no text does"},
          Case{"empty.xml", "3", "\" is empty"}}) {
        const auto child = Start({"300", m_dir.Utf8(each.file), "1", "1"});
        EXPECT_EQ(child->ExitCode(), 0) << each.file;
        const std::string output = child->Output();
        EXPECT_TRUE(output.ends_with(platform::Utf8ToGbk("输入的类型参数不正确\n"))) << each.file;
        EXPECT_NE(output.find("FileFlag:\n0x"), std::string::npos) << each.file;
        const std::string line = "The file \"" + m_dir.Utf8(each.file) + each.words;
        EXPECT_EQ(CountInLog(line), 1u) << line << " is not once in:\n" << Log();
        const std::string log = Log();
        const auto begin = log.rfind('\n', log.find(line)) + 1;  // 0 in the first line
        EXPECT_EQ(log.substr(begin + 27, 3), "[" + each.level + "]") << log.substr(begin, 200);
    }
    EXPECT_EQ(CountInLog("The input type para is wrong. type:300"), 5u);
}

// They share a folder and find its "actor.xml" damaged: one backup, and a whole file for all of them.
TEST_F(ProgramFiles, ManyWorkersMendADamagedRunningParameterFileTogether) {
    const auto stage = m_dir.Path() / "stage";
    kit::CopyStage(stage);
    const std::string whole = kit::ReadBytes(stage / "actor.xml");
    ASSERT_FALSE(whole.empty());
    const std::string damaged = whole.substr(0, whole.size() / 2);
    std::filesystem::remove(stage / "actor.xml");
    m_dir.Write("stage/actor.xml", damaged);

    std::vector<std::unique_ptr<kit::Child>> workers;
    for (int i = 0; i < 6; ++i) workers.push_back(Start({"mc", "<x/>", "1"}, stage));  // port 1 is nobody's
    for (auto& worker : workers) {
        EXPECT_TRUE(kit::WaitForText(worker->OutputFile(), platform::Utf8ToGbk("通信服务端没有启动\n")))
            << worker->Output() << worker->Errors();
    }
    for (auto& worker : workers) {
        EXPECT_TRUE(worker->IsRunning()) << "it waits for its engine for ever";
        worker->Kill();
        worker->Wait();
    }
    EXPECT_EQ(kit::ReadBytes(stage / "actor.xml"), whole);
    std::vector<std::string> kept;
    for (const auto& path : std::filesystem::directory_iterator(stage)) {
        const std::string name = Utf8FromPath(path.path().filename());
        if (name.find("actor") != std::string::npos) kept.push_back(name);
    }
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(kept, (std::vector<std::string>{"actor.xml", "actor.xml.damaged"}));
    EXPECT_EQ(kit::ReadBytes(stage / "actor.xml.damaged"), damaged);
    EXPECT_GE(CountInLog("actor.xml is damaged, the defaults are used: "), 1u) << Log();
    EXPECT_GE(CountInLog("the damaged file is kept as "), 1u);
}

}  // namespace
}  // namespace rq

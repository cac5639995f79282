// The source_size plug-in through its exported functions.
#include <chrono>
#include <thread>

#include "plugin_common/plugin_driver.h"

namespace rq::source_size {
namespace {

using Lines = std::vector<std::string>;

class SizeTest : public task::PluginDriver {
  protected:
    std::string File(const std::string& name, const std::string& size = {}) const {
        return "<File><Path>" + PathOf(name) + "</Path>" + size + "</File>";
    }
    static std::string Text(const std::string& files, const std::string& stable_s = "0.2",
                            const std::string& timeout_s = "60") {
        return "<SourceSizeTask><ID>t1</ID><StableFor_s>" + stable_s + "</StableFor_s><Timeout_s>" +
               timeout_s + "</Timeout_s><Files>" + files + "</Files></SourceSizeTask>";
    }
    static std::string Exact(int size) { return "<Size_bytes>" + std::to_string(size) + "</Size_bytes>"; }
    static std::string Least(int size) {
        return "<MinSize_bytes>" + std::to_string(size) + "</MinSize_bytes>";
    }
};

TEST_F(SizeTest, DescribesItself) {
    EXPECT_EQ(plugin::View(m_description->name), "source_size");
    ASSERT_EQ(m_description->typeCount, 1u);
    EXPECT_EQ(m_description->types[0], 5);
}

TEST_F(SizeTest, PassesTheCheck) {
    Write("a", "abc");
    ExpectCheckPasses(Text(File("a", Exact(3)), "0"));
    ExpectCheckPasses(Text(File("a", Exact(3)), "0.2"), "20");
}

TEST_F(SizeTest, FilesThatStayAreComplete) {
    Write("a 新", "abc");
    Write("empty", "");
    EXPECT_EQ(Do(Text(File("a 新", Exact(3)) + File("a 新", Least(2)) + File("empty"))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_EQ(Further().rfind("3 of 3 files complete; report: ", 0), 0u) << Further();
    const Lines report = Report();
    ASSERT_EQ(report.size(), 5u);
    EXPECT_NE(report[1].find(": it has 3 bytes"), std::string::npos);
    EXPECT_EQ(report[4], "end 3 of 3 files complete");
    ExpectWholeProgress();
}

// The file comes into being, grows while it is looked at, pauses for less than the asked time, and stops
// growing.
TEST_F(SizeTest, WaitsForAFileThatIsWritten) {
    std::string bytes;
    auto wroteAt = std::chrono::steady_clock::now();
    m_onProgress = [&] {
        const auto now = std::chrono::steady_clock::now();
        if (bytes.size() == 12 || now - wroteAt < std::chrono::milliseconds(300)) return;
        bytes += "xxxx";
        Write("a", bytes);
        wroteAt = now;
    };
    EXPECT_EQ(Do(Text(File("a"), "0.8")), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(bytes.size(), 12u);
    EXPECT_GE(std::chrono::steady_clock::now() - wroteAt, std::chrono::milliseconds(800));
    EXPECT_NE(Report()[1].find(": it has 12 bytes"), std::string::npos);
    EXPECT_GT(m_signsOfLife, 1);
    EXPECT_GT(m_progress.size(), 10u);
    ExpectWholeProgress();
}

// The same size, but written again: not complete yet.
TEST_F(SizeTest, AFileThatIsWrittenAnewIsNotComplete) {
    Write("a", "1");
    int rounds = 0;
    m_onProgress = [&] { Write("a", std::to_string(rounds++ % 10)); };
    EXPECT_EQ(Do(Text(File("a"), "0.5", "1.2")), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100035u);
    EXPECT_EQ(Detail(), PathOf("a") + ": still changing, or unchanged for less than 0.5 s; it has 1 bytes");
    EXPECT_EQ(Further().rfind("0 of 1 files complete after 1.2 s; report: ", 0), 0u) << Further();
}

TEST_F(SizeTest, AFileThatNeverComesEndsWithTheTimeout) {
    Write("there", "1");
    EXPECT_EQ(Do(Text(File("there") + File("absent"), "0", "0.3")), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100010u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(kit::Codes().notFound));
    EXPECT_EQ(Detail(), PathOf("absent") + ": " + kit::Words(kit::Codes().notFound));
    EXPECT_EQ(Further().rfind("1 of 2 files complete after 0.3 s", 0), 0u) << Further();
}

TEST_F(SizeTest, AFolderIsNoFile) {
    EXPECT_EQ(Do(Text("<File><Path>" + m_dir.Utf8() + "</Path></File>", "0", "0")), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100010u);
    EXPECT_NE(m_info->detailErrorCode, 0u);
}

TEST_F(SizeTest, OneThatStaysTooSmallIsSaid) {
    Write("a", "abc");
    EXPECT_EQ(Do(Text(File("a", Exact(4)), "0", "0.2")), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100036u);
    EXPECT_EQ(Detail(), PathOf("a") + ": too small: it has 3 bytes, not 4");
    EXPECT_EQ(Do(Text(File("a", Least(5)), "0", "0.2")), RQ_STATUS_ERROR);
    EXPECT_EQ(Detail(), PathOf("a") + ": too small: it has 3 bytes, not at least 5");
}

TEST_F(SizeTest, OneThatIsTooLargeEndsTheWait) {
    Write("a", "abc");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Do(Text(File("a", Exact(2)) + File("absent"), "0", "3600")), RQ_STATUS_ERROR);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(5));
    EXPECT_EQ(Error(), 0x84100036u);
    EXPECT_EQ(Detail(), PathOf("a") + ": too large: it has 3 bytes, not 2");
}

TEST_F(SizeTest, AStopEndsTheWait) {
    m_onProgress = [&] { RQStore32(&m_stop, RQ_STOP_CANCEL); };
    EXPECT_EQ(Do(Text(File("absent"))), RQ_STATUS_CANCELLED);
    EXPECT_EQ(Report().back(), "end ended early: 0 of 1 files complete");
    m_onProgress = [&] { RQStore32(&m_stop, RQ_STOP_FINISH); };
    RQStore32(&m_stop, RQ_STOP_NONE);
    EXPECT_EQ(Do(Text(File("absent"))), RQ_STATUS_FINISHED);
    EXPECT_EQ(Further().rfind("ended early: 0 of 1 files complete", 0), 0u);
    RQStore32(&m_stop, RQ_STOP_NONE);
}

// One look at many files is no silence, and ends when it is to.
TEST_F(SizeTest, ALookAtManyFilesIsToldAndCanBeEnded) {
    Write("a", "abc");
    std::string files;
    for (int i = 0; i < 100'000; ++i) files += File("a");
    m_onSignOfLife = [&] {
        // The first is of the report, the next of the beginning.
        if (m_signsOfLife >= 3) RQStore32(&m_stop, RQ_STOP_FINISH);
    };
    EXPECT_EQ(Do(Text(files, "0", "0")), RQ_STATUS_FINISHED) << Detail();
    EXPECT_GE(m_signsOfLife, 3);
    EXPECT_EQ(Further().rfind("ended early: ", 0), 0u) << Further().substr(0, 200);
    EXPECT_NE(Further().find(PathOf("a") + ": not looked at\n"), std::string::npos)
        << Further().substr(0, 200);
    RQStore32(&m_stop, RQ_STOP_NONE);
}

// A suspended task is held in the progress callback: that time is not the task's.
TEST_F(SizeTest, ThePauseIsNotTheTasksTime) {
    m_onProgress = [&] {
        if (m_progress.size() != 3) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        Write("late", "1");
    };
    EXPECT_EQ(Do(Text(File("late"), "0.1", "1")), RQ_STATUS_FINISHED) << Detail();
}

TEST_F(SizeTest, AReportThatCannotBeMadeIsSaid) {
    const kit::ScopedEnvironment folder("RQ_REPORT_DIR", Write("file", ""));
    EXPECT_EQ(Do(Text(File("file"))), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100033u);
}

}  // namespace
}  // namespace rq::source_size

// Several threads: the same results in the same order, progress, pause and stop.
#include <chrono>
#include <new>
#include <thread>

#include "kit/os.h"
#include "kit/reference_md5.h"
#include "md5_task.h"
#include "md5_test_driver.h"
#include "md5_work.h"
#include "plugin_common/codes.h"

namespace rq::md5 {
namespace {

class Md5Threads : public PluginDriver {
  protected:
    static std::string Threads(int count) { return "<Threads>" + std::to_string(count) + "</Threads>"; }
    std::uint32_t Status() const { return RQLoad32(&m_info->status); }
    std::string SparseFiles(int count, std::uintmax_t size_bytes) const {
        std::string files;
        for (int i = 0; i < count; ++i)
            files += FileElement(WriteSparse("sparse " + std::to_string(i), size_bytes));
        return files;
    }
};

TEST_F(Md5Threads, GiveTheResultsInTheOrderOfTheFiles) {
    // The first is the longest by far, and more than the window holds are done before it.
    std::string files = FileElement(WriteSparse("large", 200u << 20));
    std::int64_t total = 200 << 20;
    std::vector<std::string> paths = {PathOf("large")};
    for (int i = 0; i < static_cast<int>(kWindow_files) + 300; ++i) {
        const std::string bytes = "file " + std::to_string(i);
        paths.push_back(Write("f" + std::to_string(i), bytes));
        files += FileElement(paths.back());
        total += static_cast<std::int64_t>(bytes.size());
    }
    files += FileElement(PathOf("missing"));
    Do(files, Threads(4));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceUnreadable);
    ASSERT_EQ(ResultCount(), paths.size() + 1);
    for (std::size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(Text(Result(i).first), paths[i]);
    EXPECT_EQ(Hex(Result(0).computedMd5), kit::ReferenceMd5(PathFromUtf8(paths[0])));
    EXPECT_EQ(Hex(Result(700).computedMd5), kit::ReferenceMd5(PathFromUtf8(paths[700])));
    EXPECT_EQ(Result(paths.size()).has, 0u);
    ExpectWholeProgress(total);
}

// The submission's cores, unless the text names a number.
TEST_F(Md5Threads, AreAsManyAsTheTaskHasCores) {
    for (const auto& [cores, named, count] :
         {std::tuple{"3", 0, 3}, std::tuple{"3", 2, 2}, std::tuple{"", 0, 1}, std::tuple{"0", 0, 1},
          std::tuple{"-4", 0, 1}, std::tuple{"3 cores", 0, 1}, std::tuple{"200", 0, kMaxThreads}}) {
        const kit::ScopedEnvironment given("RQ_TASK_CORES", cores);
        Md5Task task;
        task.threads = named;
        EXPECT_EQ(ThreadsOf(task), count) << cores;
    }
}

TEST_F(Md5Threads, GoThroughFoldersInOrder) {
    for (int i = 100; i < 140; ++i)
        Write("sub/" + std::to_string(i), std::string(static_cast<std::size_t>(i), 'x'));
    Do("<Folder><Path>" + m_dir.Utf8() + "</Path></Folder>", Threads(8));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    ASSERT_EQ(m_published.size(), 40u);
    for (std::size_t i = 1; i < m_published.size(); ++i)
        EXPECT_LT(m_published[i - 1].path, m_published[i].path);
}

TEST_F(Md5Threads, GiveTheDigestsOfLargeFiles) {
    Do(SparseFiles(4, 64u << 20), Threads(4));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    ExpectWholeProgress(4 * (std::int64_t{64} << 20));
    const std::string reference = kit::ReferenceMd5(PathFromUtf8(PathOf("sparse 0")));
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(Hex(Result(i).computedMd5), reference);
}

TEST_F(Md5Threads, CancelEndsThem) {
    m_onProgress = [&] {
        if (m_progress.back().done > 0) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    Do(SparseFiles(4, 400u << 20), Threads(4));
    EXPECT_EQ(Status(), RQ_STATUS_CANCELLED);
    EXPECT_EQ(ResultCount(), 0u);
}

TEST_F(Md5Threads, FinishKeepsWhatIsDone) {
    m_onProgress = [&] {
        if (ResultCount() > 0) RQStore32(&m_stop, RQ_STOP_FINISH);
    };
    const std::string small = Write("small", "abc");
    Do(FileElement(small) + SparseFiles(2, 2000u << 20), Threads(3));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(ResultCount(), 1u);
    EXPECT_EQ(Text(m_info->furtherText), "ended early: 1 of 3 files done");
}

// A suspended task is held in the callback: the threads then soon wait, too.
TEST_F(Md5Threads, StopSoonWhileTheTaskIsHeld) {
    m_onProgress = [&] {
        if (m_progress.size() == 3) std::this_thread::sleep_for(std::chrono::seconds(1));
    };
    const std::int64_t total = 3 * (std::int64_t{300} << 20);
    Do(SparseFiles(3, 300u << 20), Threads(3));
    ASSERT_GT(m_progress.size(), 4u);
    // Behind the third call: what they may be ahead, and a buffer each.
    const std::int64_t most = 3 * (kAhead_bytes + static_cast<std::int64_t>(kBuffer_bytes)) + kReport_bytes;
    EXPECT_LE(m_progress[3].done - m_progress[2].done, most);
    ExpectWholeProgress(total);
}

// As when the memory is at its end: the task fails, and no thread is left that would use what is gone.
TEST_F(Md5Threads, EndWhenTheCallsOwnThreadFails) {
    m_onProgress = [&] {
        if (m_progress.size() == 3) throw std::bad_alloc();
    };
    Do(SparseFiles(4, 400u << 20), Threads(4));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, plugin::kInternalError);
}

TEST_F(Md5Threads, PassTheCheck) {
    for (const char* name : {"a/one", "a/two", "b"}) Write(name, name);
    ExpectCheckPasses(TaskText("<Folder><Path>" + m_dir.Utf8() + "</Path></Folder>",
                               Threads(3) + "<WriteChecksums><Path>" + PathOf("sums") +
                                   "</Path><Overwrite>true</Overwrite></WriteChecksums>"));
    std::string files;
    for (const char* name : {"a/one", "a/two", "b"})
        files += FileElement(PathOf(name), kit::ReferenceMd5(PathFromUtf8(PathOf(name))));
    const std::string sums = "<ChecksumFile><Path>" + PathOf("sums") + "</Path></ChecksumFile>";
    ExpectCheckPasses(TaskText(files, Threads(1)), "100", {"--type", "4"});
    ExpectCheckPasses(TaskText(files + sums, Threads(2)), "100", {"--type", "4"});
}

TEST_F(Md5Threads, AreFromOneTo64) {
    const std::string file = FileElement(Write("a", "abc"));
    for (const char* text : {"0", "65", "1000", "-1", "2.5", "x"})
        EXPECT_EQ(Analyse(TaskText(file, "<Threads>" + std::string(text) + "</Threads>")),
                  task::kAnalysisTaskText)
            << text;
    Do(file, Threads(64));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(ResultCount(), 1u);
}

}  // namespace
}  // namespace rq::md5

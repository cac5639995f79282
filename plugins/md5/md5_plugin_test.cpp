// The md5 plug-in through its exported functions: results, errors, progress, stop, update.
#include <thread>

#include "kit/files.h"
#include "kit/os.h"
#include "kit/reference_md5.h"
#include "md5_test_driver.h"
#include "md5_work.h"
#include "platform/library.h"
#include "plugin_common/codes.h"

namespace rq::md5 {
namespace {

constexpr const char* kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";

// What the system says of a file that is not there, and of a folder that is opened as a file.
std::string NotFound() {
    return kit::Words(kit::Codes().notFound);
}

using Md5Plugin = PluginDriver;

TEST_F(Md5Plugin, DescribesItself) {
    ASSERT_NE(m_description, nullptr);
    EXPECT_EQ(m_description->contractVersion, RQ_CONTRACT_VERSION);
    EXPECT_EQ(Text(m_description->name), "md5");
    ASSERT_EQ(m_description->typeCount, 2u);
    EXPECT_EQ(m_description->types[0], 3);
    EXPECT_EQ(m_description->types[1], 4);
    EXPECT_EQ(m_description->abilities, RQ_ABILITY_PAUSE | RQ_ABILITY_FINISH);
}

// The library itself: it resolves every symbol and has the five functions under their names.
TEST(Md5Library, LoadsAndExportsTheContract) {
    platform::OsError error;
    void* library = platform::LoadPlainLibrary(RQ_PLUGIN_FILE, &error);
    ASSERT_NE(library, nullptr) << error.message;
    for (const char* name : {"RQWorkerAnalyseTask", "RQWorkerPerformTask", "RQWorkerInit", "RQWorkerRelease"})
        EXPECT_NE(platform::FindSymbol(library, name), nullptr) << name;
    auto describe =
        reinterpret_cast<decltype(&RQWorkerDescribe)>(platform::FindSymbol(library, "RQWorkerDescribe"));
    ASSERT_NE(describe, nullptr);
    EXPECT_EQ(plugin::View(describe(nullptr)->name), "md5");
    // As in the worker, it stays loaded until the process ends.
}

TEST_F(Md5Plugin, AnalysisGivesTheRecord) {
    ASSERT_EQ(Analyse(TaskText(FileElement(kit::RootName() + "/a") + FileElement(kit::RootName() + "/b"))),
              0);
    EXPECT_EQ(m_info->size, sizeof(TaskInfo));
    EXPECT_EQ(Text(m_info->taskId), "t 1");
    EXPECT_EQ(m_info->taskType, RQ_TYPE_MD5_COMPUTE);
    EXPECT_EQ(m_info->errorCode, 0);
    EXPECT_EQ(Results().capacity, 2u);
    EXPECT_EQ(ResultCount(), 0u);
    ASSERT_EQ(Analyse(TaskText(FileElement(kit::RootName() + "/a", kAbcMd5))), 0);
    EXPECT_EQ(m_info->taskType, RQ_TYPE_MD5_VERIFY);
    EXPECT_TRUE(m_log.empty());
}

TEST_F(Md5Plugin, RefusedTextsLeaveARecordAndALogLine) {
    EXPECT_EQ(Analyse("no xml at all"), task::kAnalysisTaskText);
    ASSERT_NE(m_info, nullptr);
    EXPECT_EQ(Text(m_info->taskId), "");
    EXPECT_EQ(Text(m_info->furtherText), "line 1: not well-formed XML: syntax error");
    ASSERT_EQ(m_log.size(), 1u);
    EXPECT_EQ(m_log[0], "4 md5: the task text is refused: line 1: not well-formed XML: syntax error");

    EXPECT_EQ(Analyse("<MD5Task><ID>known</ID>\n<Files><File><Path>a</Path></File></Files></MD5Task>"),
              task::kAnalysisTaskText);
    EXPECT_EQ(Text(m_info->taskId), "known");
    EXPECT_EQ(m_log[1],
              "4 md5: the task text is refused: line 2: <Path> is not an absolute path: \"a\"; the worker "
              "has no folder "
              "of its own to start from");

    Perform();  // nobody should, but then it is an error and no crash
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kAnalysisTaskText);
    EXPECT_EQ(Text(m_info->furtherText).rfind("line 2: <Path> is not an absolute path", 0), 0u);
}

TEST_F(Md5Plugin, ComputesFilesOfEverySize) {
    const std::size_t n = kBuffer_bytes;
    std::size_t index = 0;
    for (const std::size_t size : {std::size_t{1}, n - 1, n, n + 1, 2 * n, 8 * n, 9 * n + 5}) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 255);
        const std::string path = Write("f" + std::to_string(index++), bytes);
        m_progress.clear();
        Do(FileElement(path));
        EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED) << size;
        ASSERT_EQ(ResultCount(), 1u);
        EXPECT_EQ(Result(0).size, sizeof(RQMd5File));
        EXPECT_EQ(Result(0).has, RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
        EXPECT_EQ(Text(Result(0).first), path);
        EXPECT_EQ(Text(Result(0).second), "");
        EXPECT_EQ(Hex(Result(0).computedMd5), kit::ReferenceMd5(PathFromUtf8(path))) << size;
        ExpectWholeProgress(static_cast<std::int64_t>(size));
    }
}

TEST_F(Md5Plugin, AnEmptyFileIsOneOfOne) {
    Do(FileElement(Write("empty", "")));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(Hex(Result(0).computedMd5), kEmptyMd5);
    ExpectWholeProgress(1);
}

TEST_F(Md5Plugin, ReadsALargeFile) {
    const std::string path = WriteSparse("large", 300u << 20);
    Do(FileElement(path));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(Hex(Result(0).computedMd5), kit::ReferenceMd5(PathFromUtf8(path)));
    ExpectWholeProgress(300 << 20);
    for (std::size_t i = 1; i < m_progress.size(); ++i)
        EXPECT_LE(m_progress[i].done - m_progress[i - 1].done, kReport_bytes);
}

TEST_F(Md5Plugin, TakesChineseNamesAndBlanksAsTheyStand) {
    const std::string path = Write("新闻  联播 第1条 &.mxf", "abc");
    Write("新闻 联播 第1条 &.mxf", "another");
    std::string escaped = path;
    escaped.replace(escaped.find('&'), 1, "&amp;");
    Do(FileElement(escaped));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(Text(Result(0).first), path);
    EXPECT_EQ(Hex(Result(0).computedMd5), kAbcMd5);
}

TEST_F(Md5Plugin, VerifiesEqualFiles) {
    Do(FileElement(Write("a", "abc"), kAbcMd5) +
       FileElement(Write("e", ""), "D41D8CD98F00B204E9800998ECF8427E"));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    ASSERT_EQ(ResultCount(), 2u);
    EXPECT_EQ(Result(0).has, RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
    EXPECT_EQ(Hex(Result(0).firstMd5), kAbcMd5);
    EXPECT_EQ(Hex(Result(0).secondMd5), kAbcMd5);
    EXPECT_EQ(Hex(Result(1).secondMd5), kEmptyMd5);
}

TEST_F(Md5Plugin, ReportsADifference) {
    const std::string path = Write("a", "abc");
    Do(FileElement(path, kEmptyMd5) + FileElement(path, kAbcMd5));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, 7);
    EXPECT_EQ(m_info->detailErrorCode, 0u);
    const std::string words = std::string("the MD5 is ") + kAbcMd5 + ", not " + kEmptyMd5;
    EXPECT_EQ(Text(m_info->detailErrorText), path + ": " + words);
    EXPECT_EQ(Text(m_info->furtherText), path + ": " + words);
    ASSERT_EQ(ResultCount(), 2u);
    EXPECT_EQ(Text(Result(0).second), words);
    EXPECT_EQ(Hex(Result(0).firstMd5), kEmptyMd5);
    EXPECT_EQ(Hex(Result(0).secondMd5), kAbcMd5);
    EXPECT_EQ(Text(Result(1).second), "");
    EXPECT_EQ(m_log.back(), "4 md5: " + path + ": " + words);
}

TEST_F(Md5Plugin, DoesNotCompareWithThePlaceholder) {
    Do(FileElement(Write("a", "abc"), std::string(32, '0')));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(Hex(Result(0).secondMd5), kAbcMd5);
}

TEST_F(Md5Plugin, GoesOnAfterFilesThatFail) {
    const std::string good = Write("good", "abc");
    const std::string folder = m_dir.Utf8();
    Do(FileElement(PathOf("missing")) + FileElement(good) + FileElement(folder));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceUnreadable);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(kit::Codes().notFound));
    EXPECT_EQ(Text(m_info->detailErrorText), PathOf("missing") + ": " + NotFound());
    ASSERT_EQ(ResultCount(), 3u);
    const std::string aFolder = Text(Result(2).second);
    EXPECT_NE(aFolder.find("irectory"), std::string::npos) << aFolder;
    EXPECT_EQ(Text(m_info->furtherText),
              PathOf("missing") + ": " + NotFound() + "\n" + folder + ": " + aFolder);
    EXPECT_EQ(Result(0).has, 0u);
    EXPECT_EQ(Text(Result(0).second), NotFound());
    EXPECT_EQ(Result(1).has, RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
    EXPECT_EQ(Hex(Result(1).computedMd5), kAbcMd5);
    ExpectWholeProgress(3);
}

TEST_F(Md5Plugin, CutsAVeryLongListOfFailures) {
    std::string files;
    for (int i = 0; i < 2000; ++i) files += FileElement(PathOf("missing file number " + std::to_string(i)));
    Do(files);
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(ResultCount(), 2000u);
    EXPECT_LE(m_info->furtherText.n, kMaxFurtherText_bytes + 32);
    const std::string further = Text(m_info->furtherText);
    const auto listed = static_cast<std::size_t>(std::count(further.begin(), further.end(), '\n'));
    EXPECT_EQ(further.substr(further.rfind('\n')), "\nand " + std::to_string(2000 - listed) + " more");
}

TEST_F(Md5Plugin, AFileThatGrowsIsReportedAndProgressStaysInRange) {
    const std::string path = WriteSparse("grows", 40u << 20);
    m_onProgress = [&] {
        if (m_progress.size() == 2) kit::MakeSparseFile(PathFromUtf8(path), 60u << 20);
    };
    Do(FileElement(path));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceChanged);
    EXPECT_EQ(m_info->detailErrorCode, 0u);
    EXPECT_EQ(Text(Result(0).second), "the file changed while it was read");
    ExpectWholeProgress(40 << 20);
}

TEST_F(Md5Plugin, AFileThatShrinksIsReported) {
    const std::string path = WriteSparse("shrinks", 40u << 20);
    m_onProgress = [&] {
        if (m_progress.size() == 2) kit::MakeSparseFile(PathFromUtf8(path), 20u << 20);
    };
    Do(FileElement(path));
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceChanged);
    ExpectWholeProgress(40 << 20);
}

TEST_F(Md5Plugin, CancelEndsWithStatus5) {
    m_onProgress = [&] {
        if (m_progress.back().done > 0) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    Do(FileElement(WriteSparse("a", 100u << 20)) + FileElement(WriteSparse("b", 100u << 20)));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_CANCELLED);
    EXPECT_EQ(ResultCount(), 0u);
    EXPECT_LE(m_progress.back().done, kReport_bytes);
    EXPECT_EQ(m_info->errorCode, 0);
}

TEST_F(Md5Plugin, FinishKeepsWhatIsDone) {
    m_onProgress = [&] {
        if (m_progress.back().done > 4) RQStore32(&m_stop, RQ_STOP_FINISH);
    };
    Do(FileElement(Write("a", "abc")) + FileElement(PathOf("missing")) +
       FileElement(WriteSparse("b", 100u << 20)));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    ASSERT_EQ(ResultCount(), 2u);
    EXPECT_EQ(Hex(Result(0).computedMd5), kAbcMd5);
    EXPECT_EQ(Text(m_info->furtherText),
              "ended early: 2 of 3 files done\n" + PathOf("missing") + ": " + NotFound());
}

TEST_F(Md5Plugin, AStopBeforeTheBeginningReadsNothing) {
    RQStore32(&m_stop, RQ_STOP_CANCEL);
    Do(FileElement(Write("a", "abc")));
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_CANCELLED);
    EXPECT_EQ(ResultCount(), 0u);
}

TEST_F(Md5Plugin, AnUpdateLeavesTheRecordInUseAlone) {
    std::int32_t updateCode = 0;
    TaskInfo* updated = nullptr;
    m_onProgress = [&] {
        if (m_progress.size() != 2) return;
        // From another thread, as the worker does.
        std::thread([&] {
            const std::string text = TaskText(FileElement(kit::RootName() + "/other"));
            updateCode = RQWorkerAnalyseTask(plugin::Borrow(text), &updated);
        }).join();
    };
    const std::string path = WriteSparse("a", 20u << 20);
    Do(FileElement(path));
    EXPECT_EQ(updateCode, plugin::kUpdateNotTaken);
    EXPECT_EQ(updated, m_info);
    EXPECT_EQ(RQLoad32(&m_info->status), RQ_STATUS_FINISHED);
    EXPECT_EQ(Text(m_info->taskId), "t 1");
    EXPECT_EQ(Hex(Result(0).computedMd5), kit::ReferenceMd5(PathFromUtf8(path)));
    EXPECT_EQ(m_log.back(), "3 md5: the update is not taken, the task goes on as it is");

    // Once it has returned, an analysis is a new task again.
    ASSERT_EQ(Analyse(TaskText(FileElement(kit::RootName() + "/other"))), 0);
    EXPECT_EQ(ResultCount(), 0u);
}

TEST_F(Md5Plugin, ResultsCanBeReadWhileTheyGrow) {
    std::atomic<bool> stop{false};
    std::string files;
    for (int i = 0; i < 200; ++i)
        files += FileElement(Write("f" + std::to_string(i), std::string(5000, 'x')));
    ASSERT_EQ(Analyse(TaskText(files)), 0);
    std::size_t seen = 0;
    std::thread reader([&] {
        while (!stop.load()) {
            for (; seen < ResultCount(); ++seen)
                EXPECT_EQ(Result(seen).has, RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
        }
    });
    Perform();
    stop = true;
    reader.join();
    EXPECT_EQ(ResultCount(), 200u);
    EXPECT_LE(seen, 200u);
}

}  // namespace
}  // namespace rq::md5

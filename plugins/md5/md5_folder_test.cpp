// Folders, and checksum files that are read and written.
#include <filesystem>

#include "checksum_line.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/reference_md5.h"
#include "md5_test_driver.h"
#include "plugin_common/codes.h"
#include "plugin_common/folder.h"

namespace rq::md5 {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";

class Md5Folder : public PluginDriver {
  protected:
    static std::string FolderElement(const std::string& path) {
        return "<Folder><Path>" + path + "</Path></Folder>";
    }
    static std::string ChecksumElement(const std::string& path) {
        return "<ChecksumFile><Path>" + path + "</Path></ChecksumFile>";
    }
    static std::string WriteElement(const std::string& path, const std::string& more = {}) {
        return "<WriteChecksums><Path>" + path + "</Path>" + more + "</WriteChecksums>";
    }
    std::uint32_t Status() const { return RQLoad32(&m_info->status); }
    std::string Below(const std::string& name) const {
        return task::PathBelow(m_dir.Utf8(), task::WithSeparators(name));
    }
    std::vector<std::string> Paths() const {
        std::vector<std::string> paths;
        for (const Published& entry : m_published) paths.push_back(entry.path);
        return paths;
    }
};

using Strings = std::vector<std::string>;

TEST_F(Md5Folder, IsGoneThroughInTheOrderOfTheNames) {
    for (const char* name : {"b", "a.txt", "a/z", "a/中文/深/f", "a/B", "c  d"}) Write(name, name);
    fs::create_directory(m_dir.Path() / "empty");
    Do(FolderElement(m_dir.Utf8()));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(Paths(), (Strings{Below("a/B"), Below("a/z"), Below("a/中文/深/f"), Below("a.txt"), Below("b"),
                                Below("c  d")}));
    for (const Published& entry : m_published) {
        EXPECT_EQ(entry.has, RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
        EXPECT_EQ(entry.computed, kit::ReferenceMd5(PathFromUtf8(entry.path))) << entry.path;
    }
    EXPECT_EQ(ResultCount(), 0u);  // the text did not name them: the worker copies
    ExpectWholeProgress(static_cast<std::int64_t>(std::string("ba.txta/za/中文/深/fa/Bc  d").size()));
    EXPECT_EQ(Text(m_info->furtherText), "");
}

TEST_F(Md5Folder, StandsBesideFilesAndKeepsTheTasksOrder) {
    Write("one/x", "abc");
    Write("two/y", "");
    const std::string file = Write("file", "abc");
    Do(FolderElement(PathOf("two")) + FileElement(file) + FolderElement(PathOf("one")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    ASSERT_EQ(m_published.size(), 3u);
    EXPECT_EQ(m_published[0].computed, kEmptyMd5);
    EXPECT_EQ(m_published[1].path, file);
    EXPECT_EQ(m_published[2].computed, kAbcMd5);
}

TEST_F(Md5Folder, WithoutAFileIsDone) {
    fs::create_directory(m_dir.Path() / "empty");
    Do(FolderElement(PathOf("empty")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_TRUE(m_published.empty());
}

TEST_F(Md5Folder, ThatIsMissingFailsAndTheOthersAreDone) {
    Write("good/a", "abc");
    Do(FolderElement(PathOf("gone")) + FolderElement(PathOf("good")));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceUnreadable);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(kit::Codes().folderNotFound));
    ASSERT_EQ(m_published.size(), 2u);
    EXPECT_EQ(m_published[0].path, PathOf("gone"));
    EXPECT_EQ(m_published[0].has, 0u);
    EXPECT_EQ(m_published[0].failure, kit::Words(kit::Codes().folderNotFound));
    EXPECT_EQ(m_published[1].computed, kAbcMd5);
}

TEST_F(Md5Folder, LeavesLinksOutAndSaysSo) {
    Write("in/a", "abc");
    Write("out/b", "abc");
    std::error_code problem;
    fs::create_directory_symlink("..", m_dir.Path() / "in" / "up", problem);  // followed, it would never end
    if (problem == std::errc::function_not_supported) GTEST_SKIP() << "no links here";
    fs::create_symlink("../out/b", m_dir.Path() / "in" / "b");
    Write("in/.x.0123456789abcdef.rqpart", "a file that is being made");
    fs::create_directory_symlink("in", m_dir.Path() / "link");
    Do(FolderElement(PathOf("link")));  // the folder itself may be a link
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(Paths(), Strings{Below("link/a")});
    EXPECT_EQ(Text(m_info->furtherText), "3 left out: links, pipes, devices or unfinished files");
}

// Of a long list, too, signs of life are given, and it can be ended.
TEST_F(Md5Folder, AListOfAFolderIsToldAndCanBeEnded) {
    for (int i = 0; i < 20; ++i) Write("in/" + std::to_string(i), "abc");
    Do(FolderElement(PathOf("in")), "<Threads>4</Threads>");
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_GE(m_signsOfLife, 2);  // of the list that measures, and of that which is worked on
    m_onSignOfLife = [&] { RQStore32(&m_stop, RQ_STOP_FINISH); };
    Do(FolderElement(PathOf("in")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(m_signsOfLife, 1);
    EXPECT_EQ(Text(m_info->furtherText), "ended early: 0 of 0 files done");
}

TEST_F(Md5Folder, CancelEndsIt) {
    WriteSparse("a", 100u << 20);
    Write("b", "abc");
    m_onProgress = [&] {
        if (m_progress.back().done > 0) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    Do(FolderElement(m_dir.Utf8()), WriteElement(PathOf("sums")));
    EXPECT_EQ(Status(), RQ_STATUS_CANCELLED);
    EXPECT_TRUE(m_published.empty());
    std::vector<task::FolderEntry> entries;
    ASSERT_EQ(task::ListFolder(m_dir.Utf8(), entries), 0u);
    EXPECT_EQ(entries.size(), 2u);  // neither the checksum file nor a temporary
}

// ---- checksum files that are read ----

TEST_F(Md5Folder, VerifiesWhatAChecksumFileNames) {
    Write("sub/a", "abc");
    Write("e f", "");
    const std::string far = Write("far", "abc");
    const std::string sums =
        Write("sub/sums.md5", std::string("\xEF\xBB\xBF# made by hand\r\n\r\n") + kAbcMd5 + "  a\r\n" +
                                  kEmptyMd5 + " *../e f\n" + "MD5 (" + far + ") = " + kAbcMd5);
    Do(ChecksumElement(sums));
    EXPECT_EQ(m_info->taskType, RQ_TYPE_MD5_VERIFY);
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << Text(m_info->furtherText);
    const std::string beside(task::FolderPart(sums));  // as the task text has it
    EXPECT_EQ(Paths(),
              (Strings{beside + "a", beside + task::WithSeparators("../e f"), task::WithSeparators(far)}));
    for (const Published& entry : m_published) {
        EXPECT_EQ(entry.has, RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5);
        EXPECT_EQ(entry.first, entry.computed);
    }
}

TEST_F(Md5Folder, ReportsWhatDiffersAndWhatIsMissing) {
    const std::string a = Write("a", "abc");
    const std::string sums =
        Write("sums", std::string(kEmptyMd5) + "  a\n" + kAbcMd5 + "  gone\n" + kAbcMd5 + "  a\n");
    Do(ChecksumElement(sums) + FileElement(a, kAbcMd5));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorMd5Differs);
    ASSERT_EQ(m_published.size(), 4u);
    EXPECT_EQ(m_published[0].failure, std::string("the MD5 is ") + kAbcMd5 + ", not " + kEmptyMd5);
    EXPECT_EQ(m_published[1].failure, kit::Words(kit::Codes().notFound));
    EXPECT_EQ(m_published[2].failure, "");
    EXPECT_EQ(m_published[3].failure, "");
}

TEST_F(Md5Folder, AChecksumFileThatIsNoneVerifiesNothing) {
    Write("a", "abc");
    const std::string good = std::string(kAbcMd5) + "  a\n";
    const struct {
        std::string text, why;
    } cases[] = {{good + "\nnonsense\n" + good, "line 3 is no checksum as md5sum writes it"},
                 {"", "the checksum file names no file"},
                 {"# only a comment\n", "the checksum file names no file"},
                 {std::string(1000, '\0'), "line 1 is no checksum as md5sum writes it"}};
    for (const auto& one : cases) {
        m_published.clear();
        Do(ChecksumElement(Write("sums", one.text)));
        EXPECT_EQ(Status(), RQ_STATUS_ERROR) << one.why;
        EXPECT_EQ(m_info->errorCode, task::kErrorSourceDamaged) << one.why;
        ASSERT_EQ(m_published.size(), 1u) << one.why;
        EXPECT_EQ(m_published[0].path, PathOf("sums"));
        EXPECT_EQ(m_published[0].failure, one.why);
    }
    Do(ChecksumElement(PathOf("gone")));
    EXPECT_EQ(m_info->errorCode, task::kErrorSourceUnreadable);
    Do(ChecksumElement(WriteSparse("huge", 65u << 20)));
    EXPECT_EQ(m_published.back().failure, "the checksum file has more than 64 MiB");
}

// ---- and written ----

TEST_F(Md5Folder, WritesWhatMd5sumWouldAndReadsItAgain) {
    Write("media/b", "abc");
    Write("media/a/x y", "");
    const std::string outside = Write("outside", "abc");
    Do(FolderElement(PathOf("media")) + FileElement(outside), WriteElement(PathOf("media/sums.md5")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << Text(m_info->furtherText);
    EXPECT_EQ(kit::ReadBytes(m_dir.Path() / "media" / "sums.md5"),
              std::string(kEmptyMd5) + "  a/x y\n" + kAbcMd5 + "  b\n" +
                  ChecksumLine(task::WithSlashes(outside), *task::ParseMd5(kAbcMd5)));
    // Whatever separators the paths are given with.
    m_published.clear();
    Do("<Folder><Path>" + task::WithSlashes(PathOf("media")) + "</Path></Folder>",
       WriteElement(task::WithSeparators(PathOf("media/again.md5"))));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << Text(m_info->furtherText);
    EXPECT_EQ(kit::ReadBytes(m_dir.Path() / "media" / "again.md5").substr(0, 39),
              std::string(kEmptyMd5) + "  a/x y");
    m_published.clear();
    Do(ChecksumElement(PathOf("media/sums.md5")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << Text(m_info->furtherText);
    EXPECT_EQ(m_published.size(), 3u);
}

TEST_F(Md5Folder, AChecksumFileIsReplacedOnlyWhenAsked) {
    Write("a", "abc");
    const std::string sums = Write("sums", "old");
    Do(FolderElement(m_dir.Utf8()), WriteElement(sums));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(m_info->errorCode, task::kErrorTargetExists);
    EXPECT_EQ(kit::ReadBytes(m_dir.Path() / "sums"), "old");
    EXPECT_TRUE(m_published.empty());
    // It is no file of its own.
    Do(FolderElement(m_dir.Utf8()), WriteElement(sums, "<Overwrite>true</Overwrite>"));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << Text(m_info->furtherText);
    EXPECT_EQ(kit::ReadBytes(m_dir.Path() / "sums"), std::string(kAbcMd5) + "  a\n");
    EXPECT_EQ(Paths(), Strings{Below("a")});
    Do(FileElement(PathOf("a")), WriteElement(PathOf("a"), "<Overwrite>true</Overwrite>"));
    EXPECT_EQ(m_info->errorCode, task::kErrorTargetIsSource);
}

TEST_F(Md5Folder, AChecksumFileNamesEveryFileOrIsNotMade) {
    Write("a", "abc");
    Do(FileElement(PathOf("a")) + FileElement(PathOf("gone")), WriteElement(PathOf("sums")));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_FALSE(fs::exists(m_dir.Path() / "sums"));
    EXPECT_EQ(ResultCount(), 2u);
}

TEST_F(Md5Folder, AFinishWritesWhatIsDone) {
    Write("a", "abc");
    WriteSparse("b", 100u << 20);
    m_onProgress = [&] {
        if (m_progress.back().done > 4) RQStore32(&m_stop, RQ_STOP_FINISH);
    };
    Do(FolderElement(m_dir.Utf8()), WriteElement(PathOf("sums")));
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    EXPECT_EQ(Text(m_info->furtherText), "ended early: 1 of 2 files done");
    EXPECT_EQ(kit::ReadBytes(m_dir.Path() / "sums"), std::string(kAbcMd5) + "  a\n");
}

}  // namespace
}  // namespace rq::md5

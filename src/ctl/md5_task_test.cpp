#include "ctl/md5_task.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "base/paths.h"
#include "ctl/file_argument.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::ctl {
namespace {

namespace fs = std::filesystem;

TEST(Md5TaskXml, HasOneFileElementForEachJob) {
    EXPECT_EQ(BuildMd5TaskXml("job-1", {{"/a", ""}, {"/片 & b", ""}}),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<MD5Task>\n"
              "  <ID>job-1</ID>\n"
              "  <Files>\n"
              "    <File><Path>/a</Path></File>\n"
              "    <File><Path>/片 &amp; b</Path></File>\n"
              "  </Files>\n"
              "</MD5Task>\n");
    EXPECT_NE(BuildMd5TaskXml("j", {{"/a", "d41d8cd98f00b204e9800998ecf8427e"}})
                  .find("<File><Path>/a</Path><MD5>d41d8cd98f00b204e9800998ecf8427e</MD5></File>"),
              std::string::npos);
}

TEST(Md5TaskXml, EscapesWhatAParserWouldChange) {
    EXPECT_EQ(EscapeXml("a<b>&\"'\t\r\n ]]> 片"), "a&lt;b&gt;&amp;\"'&#9;&#13;&#10; ]]&gt; 片");
}

TEST(PrepareMd5Jobs, MakesNamesAbsoluteAndKeepsTheirOrder) {
    kit::TempDir folder;
    folder.Write("a  b.bin", "1");
    folder.Write("sub/c", "2");
    kit::ScopedDirectory inside(folder.Path());
    const auto jobs = PrepareMd5Jobs({"./a  b.bin", "sub/c", folder.Utf8("a  b.bin")}, {});
    ASSERT_TRUE(jobs) << jobs.error().message;
    ASSERT_EQ(jobs->size(), 3u);
    EXPECT_TRUE(PathFromUtf8(jobs->at(0).path).is_absolute());
    EXPECT_EQ(PathFromUtf8(jobs->at(0).path).filename(), "a  b.bin");
    EXPECT_EQ(jobs->at(0).path.find("/./"), std::string::npos);
    EXPECT_TRUE(fs::equivalent(PathFromUtf8(jobs->at(1).path), folder.Path() / "sub" / "c"));
    EXPECT_EQ(jobs->at(2).expected, "");
    const auto up = PrepareMd5Jobs({"sub/../sub/./c"}, {});
    ASSERT_TRUE(up);
    EXPECT_EQ(up->at(0).path, jobs->at(1).path);
}

// Results name files as the task text does: as the system writes them, however they were typed.
TEST(PrepareMd5Jobs, GivesPathsWithTheSystemsSeparators) {
    kit::TempDir folder;
    const fs::path file = folder.Write("sub/a", "");
    std::string typed = Utf8FromPath(file);
    std::replace(typed.begin(), typed.end(), static_cast<char>(fs::path::preferred_separator), '/');
    const auto jobs = PrepareMd5Jobs({typed}, {});
    ASSERT_TRUE(jobs) << jobs.error().message;
    EXPECT_EQ(jobs->at(0).path, Utf8FromPath(fs::path(file).make_preferred()));
    const auto target = NewFile(typed + ".new", false);
    ASSERT_TRUE(target) << target.error().message;
    EXPECT_EQ(*target, jobs->at(0).path + ".new");
}

TEST(PrepareMd5Jobs, DotDotBehindALinkKeepsItsMeaning) {
    kit::TempDir folder;
    folder.Write("far/away/x", "");
    folder.Write("far/y", "right");
    folder.Write("y", "wrong");
    std::error_code code;
    fs::create_directory_symlink(folder.Path() / "far" / "away", folder.Path() / "link", code);
    if (code == std::errc::function_not_supported) GTEST_SKIP() << "no links here";
    ASSERT_FALSE(code) << code.message();
    const auto jobs = PrepareMd5Jobs({folder.Utf8("link/../y")}, {});
    ASSERT_TRUE(jobs);
    EXPECT_TRUE(fs::equivalent(PathFromUtf8(jobs->at(0).path), folder.Path() / "far" / "y"));
}

TEST(PrepareMd5Jobs, SaysWhatIsWrongWithAFile) {
    kit::TempDir folder;
    folder.Write("ok", "");
    const struct {
        std::string name, why;
    } cases[] = {
        {folder.Utf8("gone"), "no such file"},
        {kit::NullDevice(), kit::IsWine() ? "no such file" : "not a plain file"},  // Wine shows no device
        {"", "empty file name"},
        {"/tmp/\xff\xfe", "not UTF-8"},
        {"/tmp/a\x01", "control character"},
        {"/tmp/a\xEF\xBF\xBF", "control character"},
    };
    for (const auto& one : cases) {
        const auto jobs = PrepareMd5Jobs({folder.Utf8("ok"), one.name}, {});
        ASSERT_FALSE(jobs) << one.name;
        EXPECT_NE(jobs.error().message.find(one.why), std::string::npos) << jobs.error().message;
    }
    EXPECT_FALSE(PrepareMd5Jobs({}, {}));
}

TEST(PrepareMd5Jobs, TakesFoldersWhereNothingIsExpected) {
    kit::TempDir folder;
    folder.Write("sub/a", "");
    const auto jobs = PrepareMd5Jobs({folder.Utf8("sub"), folder.Utf8("sub/a")}, {});
    ASSERT_TRUE(jobs) << jobs.error().message;
    EXPECT_EQ(jobs->at(0).element, "Folder");
    EXPECT_EQ(jobs->at(1).element, "File");
    EXPECT_EQ(BuildMd5TaskXml("j", {{"/a & b", "", "Folder"}}, {4, "/s<", true}),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<MD5Task>\n"
              "  <ID>j</ID>\n"
              "  <Files>\n"
              "    <Folder><Path>/a &amp; b</Path></Folder>\n"
              "  </Files>\n"
              "  <Threads>4</Threads>\n"
              "  <WriteChecksums><Path>/s&lt;</Path><Overwrite>true</Overwrite></WriteChecksums>\n"
              "</MD5Task>\n");
    const auto refused = PrepareMd5Jobs({folder.Utf8("sub")}, {std::string(32, 'a')});
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find("is a folder"), std::string::npos);
    const auto checks = PrepareMd5Checks({folder.Utf8("sub/a")});
    ASSERT_TRUE(checks);
    EXPECT_EQ(checks->at(0).element, "ChecksumFile");
    EXPECT_FALSE(PrepareMd5Checks({folder.Utf8("gone")}));
}

TEST(PrepareMd5Jobs, WantsAnExpectedDigestForEachFile) {
    kit::TempDir folder;
    folder.Write("a", "");
    const std::string sum(32, 'A');
    const auto jobs = PrepareMd5Jobs({folder.Utf8("a")}, {sum});
    ASSERT_TRUE(jobs);
    EXPECT_EQ(jobs->at(0).expected, sum);
    EXPECT_FALSE(PrepareMd5Jobs({folder.Utf8("a")}, {sum, sum}));
    EXPECT_FALSE(PrepareMd5Jobs({folder.Utf8("a"), folder.Utf8("a")}, {sum}));
    EXPECT_FALSE(PrepareMd5Jobs({folder.Utf8("a")}, {"12"}));
    EXPECT_FALSE(PrepareMd5Jobs({folder.Utf8("a")}, {std::string(32, 'g')}));
}

TEST(PrepareMd5Jobs, ZerosAloneVerifyNothingAndAreRefused) {
    kit::TempDir folder;
    folder.Write("a", "");
    const std::string a = folder.Utf8("a"), zeros(32, '0'), sum(32, 'a');
    const auto refused = PrepareMd5Jobs({a, a}, {zeros, zeros});
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find("not known"), std::string::npos) << refused.error().message;
    EXPECT_TRUE(PrepareMd5Jobs({a, a}, {zeros, sum})) << "of some files it may be unknown";
}

}  // namespace
}  // namespace rq::ctl

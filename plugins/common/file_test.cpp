#include "plugin_common/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "plugin_common/digest.h"

namespace fs = std::filesystem;
using rq::task::InputFile;

namespace {

class FileTest : public testing::Test {
  protected:
    FileTest() {
        std::string name = (fs::temp_directory_path() / "plugin-file-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
    }
    ~FileTest() override { fs::remove_all(m_folder); }

    std::string Write(const std::string& name, const std::string& bytes) const {
        std::string path = (m_folder / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    fs::path m_folder;
};

}  // namespace

TEST_F(FileTest, ReadsToTheEnd) {
    InputFile file;
    ASSERT_EQ(file.Open(Write("中文 a  b", "abcde")), 0u);
    EXPECT_EQ(file.Size(), 5u);
    char buffer[3];
    std::size_t got = 0;
    EXPECT_EQ(file.Read(buffer, 3, got), 0u);
    EXPECT_EQ(std::string(buffer, got), "abc");
    EXPECT_EQ(file.Read(buffer, 3, got), 0u);
    EXPECT_EQ(std::string(buffer, got), "de");
    EXPECT_EQ(file.Read(buffer, 3, got), 0u);
    EXPECT_EQ(got, 0u);
    EXPECT_FALSE(file.Changed());
}

TEST_F(FileTest, ReadsFromAnyPlace) {
    InputFile file;
    ASSERT_EQ(file.Open(Write("f", "abcde")), 0u);
    char buffer[3];
    std::size_t got = 0;
    EXPECT_EQ(file.ReadAt(3, buffer, 3, got), 0u);
    EXPECT_EQ(std::string(buffer, got), "de");
    EXPECT_EQ(file.ReadAt(1, buffer, 3, got), 0u);
    EXPECT_EQ(std::string(buffer, got), "bcd");
    EXPECT_EQ(file.ReadAt(9, buffer, 3, got), 0u);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(file.Read(buffer, 3, got), 0u);  // not moved by the others
    EXPECT_EQ(std::string(buffer, got), "abc");
}

TEST_F(FileTest, SaysWhenTheFileChanged) {
    const std::string path = Write("f", "abc");
    InputFile file;
    ASSERT_EQ(file.Open(path), 0u);
    std::ofstream(path, std::ios::app) << "d";
    EXPECT_TRUE(file.Changed());

    ASSERT_EQ(file.Open(path), 0u);
    fs::last_write_time(path, fs::last_write_time(path) + std::chrono::seconds(1));
    EXPECT_TRUE(file.Changed());

    ASSERT_EQ(file.Open(path), 0u);
    fs::create_hard_link(path, m_folder / "second name");
    EXPECT_FALSE(file.Changed());
}

TEST_F(FileTest, RefusesWhatIsNoPlainFile) {
    InputFile file;
    EXPECT_EQ(file.Open((m_folder / "missing").string()), static_cast<std::uint32_t>(ENOENT));
    EXPECT_EQ(file.Open(m_folder.string()), static_cast<std::uint32_t>(EISDIR));
    const std::string pipe = (m_folder / "pipe").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(file.Open(pipe), static_cast<std::uint32_t>(EINVAL));  // at once, though nobody writes
    EXPECT_EQ(file.Open("/dev/zero"), static_cast<std::uint32_t>(EINVAL));
}

TEST_F(FileTest, MeasuresPlainFilesOnly) {
    EXPECT_EQ(rq::task::PlainFileSize(Write("f", "abc")), 3u);
    EXPECT_EQ(rq::task::PlainFileSize(m_folder.string()), 0u);
    EXPECT_EQ(rq::task::PlainFileSize((m_folder / "missing").string()), 0u);
}

TEST(FilePaths, AbsoluteOnesBeginWithASlash) {
    EXPECT_TRUE(rq::task::IsAbsolutePath("/a"));
    EXPECT_FALSE(rq::task::IsAbsolutePath("a/b"));
    EXPECT_FALSE(rq::task::IsAbsolutePath(" /a"));
    EXPECT_FALSE(rq::task::IsAbsolutePath(""));
}

TEST(SystemWords, AreTheSystems) {
    EXPECT_EQ(rq::task::SystemWords(ENOENT), "No such file or directory");
    EXPECT_EQ(rq::task::SystemWords(123456), "error 123456");
}

TEST(Digest, KnowsTheTestValues) {
    rq::task::Md5 md5;
    rq::task::Md5Digest digest{};
    ASSERT_TRUE(md5.Start());
    ASSERT_TRUE(md5.Finish(digest));
    EXPECT_EQ(digest, rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427e"));
    ASSERT_TRUE(md5.Start());
    ASSERT_TRUE(md5.Add("ab", 2));
    ASSERT_TRUE(md5.Add("c", 1));
    ASSERT_TRUE(md5.Finish(digest));
    EXPECT_EQ(digest, rq::task::ParseMd5("900150983CD24FB0D6963F7D28E17F72"));
}

TEST(Digest, ParsesOnly32HexadecimalDigits) {
    EXPECT_FALSE(rq::task::ParseMd5(""));
    EXPECT_FALSE(rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427"));
    EXPECT_FALSE(rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427e0"));
    EXPECT_FALSE(rq::task::ParseMd5("g41d8cd98f00b204e9800998ecf8427e"));
}

#include "plugin_common/file.h"

#include <gtest/gtest.h>

#include <fstream>

#include "base/paths.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::task {
namespace {

namespace fs = std::filesystem;

class FileTest : public testing::Test {
  protected:
    std::string Write(const std::string& name, const std::string& bytes) const {
        return Utf8FromPath(m_dir.Write(name, bytes));
    }

    kit::TempDir m_dir;
};

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
    std::ofstream(PathFromUtf8(path), std::ios::app) << "d";
    EXPECT_TRUE(file.Changed());

    ASSERT_EQ(file.Open(path), 0u);
    const fs::path name = PathFromUtf8(path);
    fs::last_write_time(name, fs::last_write_time(name) + std::chrono::seconds(1));
    EXPECT_TRUE(file.Changed());

    ASSERT_EQ(file.Open(path), 0u);
    fs::create_hard_link(name, m_dir.Path() / "second name");
    EXPECT_FALSE(file.Changed());
}

TEST_F(FileTest, RefusesWhatIsNoPlainFile) {
    InputFile file;
    EXPECT_EQ(file.Open(m_dir.Utf8("missing")), static_cast<std::uint32_t>(kit::Codes().notFound));
    const std::uint32_t code = file.Open(m_dir.Utf8());
    EXPECT_NE(code, 0u);
    EXPECT_NE(SystemWords(code).find("irectory"), std::string::npos) << SystemWords(code);
}

TEST_F(FileTest, MeasuresPlainFilesOnly) {
    EXPECT_EQ(PlainFileSize(Write("f", "abc")), 3u);
    EXPECT_EQ(PlainFileSize(m_dir.Utf8()), 0u);
    EXPECT_EQ(PlainFileSize(m_dir.Utf8("missing")), 0u);
}

TEST(SystemWords, AreTheSystems) {
    const int code = kit::Codes().notFound;
    EXPECT_EQ(SystemWords(static_cast<std::uint32_t>(code)), kit::Words(code));
    EXPECT_EQ(SystemWords(123456), "error 123456");
}

}  // namespace
}  // namespace rq::task

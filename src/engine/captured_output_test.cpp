#include "engine/captured_output.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

class CapturedOutput : public testing::Test {
  protected:
    std::string Concluded(const std::string& bytes, std::uint64_t limit_bytes = 1000) {
        m_folder.Write("a.out", bytes);
        ConcludeOutput(m_folder.Utf8("a.out"), limit_bytes);
        return kit::ReadBytes(m_folder.Path() / "a.out");
    }

    kit::TempDir m_folder;
};

TEST_F(CapturedOutput, LinesInGbkBecomeUtf8AndOthersStay) {
    EXPECT_EQ(Concluded("plain\r\n你好\n\xC4\xE3\xBA\xC3\nend"), "plain\r\n你好\n你好\nend");
    EXPECT_EQ(Concluded("\xFF\n"), "\xEF\xBF\xBD\n");
    EXPECT_EQ(Concluded(""), "");
    EXPECT_EQ(Concluded("你好"), "你好");
}

TEST_F(CapturedOutput, OfALongOneBeginningAndEndStay) {
    EXPECT_EQ(Concluded("aaaa" + std::string(100, '-') + "zzzz", 8),
              "aaaa\n[100 bytes are left out here]\nzzzz");
    EXPECT_TRUE(kit::IsOwnersAlone(m_folder.Path() / "a.out"));
}

TEST_F(CapturedOutput, WhileItIsWrittenItStaysWithinBounds) {
    const auto path = m_folder.Write("a.out", "");
    std::ofstream writer(path, std::ios::app | std::ios::binary);
    for (int i = 0; i < 100; ++i) {
        writer << std::string(15, static_cast<char>('a' + i % 26)) << "\n" << std::flush;
        BoundOutput(m_folder.Utf8("a.out"), 100);
        EXPECT_LE(std::filesystem::file_size(path), 216u);
    }
    const std::string text = kit::ReadBytes(path);
    EXPECT_EQ(text.substr(0, 16), "aaaaaaaaaaaaaaa\n");
    EXPECT_NE(text.find("bytes are left out here"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 16), std::string(15, 'a' + 99 % 26) + "\n");
}

TEST_F(CapturedOutput, AFileThatIsGoneIsNoHarm) {
    BoundOutput(m_folder.Utf8("none"), 1);
    ConcludeOutput(m_folder.Utf8("none"), 1);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path() / "none"));
}

}  // namespace
}  // namespace rq::engine

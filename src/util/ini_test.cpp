#include <gtest/gtest.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "kit/temp_dir.h"
#include "util/ini_cache.h"
#include "util/utility.h"

namespace rq {
namespace {

using namespace KWOVL_UTILITY;

class IniTest : public testing::Test {
  protected:
    // Writes the file with a time of its own, later than the one before: file systems tick coarsely.
    std::string Write(std::string_view bytes) {
        const std::filesystem::path path = m_folder.Write("texts.ini", bytes);
        m_time += std::chrono::seconds(10);
        std::filesystem::last_write_time(path, m_time);
        return m_folder.Utf8("texts.ini");
    }
    static std::wstring Get(OVLIniHandle handle, const char* key) {
        std::wstring text = L"untouched";
        m_status = OVLIniGetString(handle, key, "fallback", text);
        return text;
    }
    static std::wstring Once(const std::string& path, const char* key) {
        OVLIniHandle handle = OVLIniLoad(path);
        EXPECT_NE(handle, nullptr);
        const std::wstring text = Get(handle, key);
        OVLIniFree(handle);
        return text;
    }

    static inline std::int32_t m_status = -1;
    kit::TempDir m_folder;
    std::filesystem::file_time_type m_time = std::filesystem::file_time_type::clock::now();
};

TEST_F(IniTest, TheKeyIsSectionAndName) {
    const std::string path =
        Write("; a comment\n[dwKWRSOFTCODEC_NoErr]\n1 = 没有错误 \n[Task Not Response !]\n1=a=b\n2=\n");
    EXPECT_EQ(Once(path, "dwKWRSOFTCODEC_NoErr:1"), L"\u6ca1\u6709\u9519\u8bef");
    EXPECT_EQ(m_status, kIniFound);
    EXPECT_EQ(Once(path, "Task Not Response !:1"), L"a=b");
    EXPECT_EQ(Once(path, "Task Not Response !:2"), L"");
    EXPECT_EQ(m_status, kIniFound);
}

TEST_F(IniTest, TheFallbackStandsInForWhatIsNotThere) {
    const std::string path = Write("[A]\n1=x\n");
    for (const char* key : {"A:2", "B:1", "a:1", "A", "A:", ":1", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(Once(path, key), L"fallback") << (key == nullptr ? "null" : key);
        EXPECT_EQ(m_status, kIniFallback);
    }
}

TEST_F(IniTest, TheKeyIsDividedAtItsLastColon) {
    EXPECT_EQ(Once(Write("[A:B]\n1=x\n[A]\nB:1=y\n"), "A:B:1"), L"x");
}

TEST_F(IniTest, OfTwoEntriesTheLastCounts) {
    EXPECT_EQ(Once(Write("[A]\n1=x\n[B]\n1=y\n[A]\n1=z\n"), "A:1"), L"z");
}

TEST_F(IniTest, FilesMayBeUtf8WithAMarkOrGbkOrUtf16) {
    EXPECT_EQ(Once(Write("\xEF\xBB\xBF[A]\n1=任务\n"), "A:1"), L"\u4efb\u52a1");
    EXPECT_EQ(Once(Write("[A]\r\n1=\xC8\xCE\xCE\xF1\r\n"), "A:1"), L"\u4efb\u52a1");
    const std::string utf16(
        "\xFF\xFE[\0A\0]\0\n\0"
        "1\0=\0\xFB\x4E\xA1\x52",
        18);
    EXPECT_EQ(Once(Write(utf16), "A:1"), L"\u4efb\u52a1");
}

TEST_F(IniTest, NoFileGivesNoHandleAndNullIsHarmless) {
    EXPECT_EQ(OVLIniLoad(m_folder.Utf8("absent.ini")), nullptr);
    EXPECT_EQ(OVLIniLoad(m_folder.Utf8()), nullptr);  // a folder
    EXPECT_EQ(OVLIniLoad(""), nullptr);
    EXPECT_EQ(Get(nullptr, "A:1"), L"fallback");
    EXPECT_EQ(m_status, kIniFallback);
    OVLIniFree(nullptr);
}

TEST_F(IniTest, AnEmptyFileHasNoEntries) {
    EXPECT_EQ(Once(Write(""), "A:1"), L"fallback");
}

TEST_F(IniTest, AFileIsParsedOnceForEachOfItsStates) {
    const std::string path = Write("[A]\n1=one\n");
    const std::uint64_t before = IniParses();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(Once(path, "A:1"), L"one");
    EXPECT_EQ(IniParses(), before + 1);
    Write("[A]\n1=two\n");  // the same size: the time tells
    EXPECT_EQ(Once(path, "A:1"), L"two");
    EXPECT_EQ(IniParses(), before + 2);
    std::filesystem::remove(m_folder.Path() / "texts.ini");
    EXPECT_EQ(OVLIniLoad(path), nullptr);
    Write("[A]\n1=three\n");
    EXPECT_EQ(Once(path, "A:1"), L"three");
}

TEST_F(IniTest, AHandleKeepsWhatItWasLoadedWith) {
    const std::string path = Write("[A]\n1=one\n");
    OVLIniHandle first = OVLIniLoad(path);
    OVLIniHandle again = OVLIniLoad(path);
    Write("[A]\n1=two\n");
    OVLIniHandle second = OVLIniLoad(path);
    OVLIniFree(first);
    EXPECT_EQ(Get(again, "A:1"), L"one");
    EXPECT_EQ(Get(second, "A:1"), L"two");
    OVLIniFree(again);
    OVLIniFree(second);
    EXPECT_EQ(Once(path, "A:1"), L"two");
}

TEST_F(IniTest, ThreadsMayLoadAndReadAtOnceWhileTheFileChanges) {
    const std::string path = Write("[A]\n1=x\n");
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&path] {
            for (int i = 0; i < 200; ++i) {
                OVLIniHandle handle = OVLIniLoad(path);
                std::wstring text;
                EXPECT_EQ(OVLIniGetString(handle, "A:1", "fallback", text), kIniFound);
                EXPECT_EQ(text, L"x");
                OVLIniFree(handle);
            }
        });
    }
    const std::filesystem::path file = m_folder.Path() / "texts.ini";
    for (int i = 0; i < 50; ++i) std::filesystem::last_write_time(file, m_time += std::chrono::seconds(1));
    for (std::thread& reader : readers) reader.join();
}

}  // namespace
}  // namespace rq

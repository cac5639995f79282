#include <gtest/gtest.h>

#include "kit/files.h"
#include "kit/temp_dir.h"
#include "platform/files.h"

namespace rq::platform {
namespace {

using kit::TempDir;

TEST(FilesOnWindows, BothSeparators) {
    const TempDir dir;
    EXPECT_TRUE(CreatePrivateFolder(dir.Utf8() + "/a\\b/c"));
    EXPECT_TRUE(CreatePrivateFile(dir.Utf8() + "\\a/b\\c/file", "x"));
    EXPECT_EQ(ReadWholeFile(dir.Utf8() + "/a/b/c/file"), "x");
}

TEST(FilesOnWindows, TextStreamsWriteTheSystemsLineEnds) {
    const TempDir dir;
    std::FILE* file = OpenFile(dir.Utf8("text"), "w");
    ASSERT_NE(file, nullptr);
    std::fputs("one\n", file);
    std::fclose(file);
    EXPECT_EQ(ReadWholeFile(dir.Utf8("text")), "one\r\n");
}

TEST(FilesOnWindows, AFileThatSomebodyReadsCanBeReplaced) {
    const TempDir dir;
    const std::string path = dir.Utf8("actor.xml");
    ASSERT_TRUE(ReplaceWholeFile(path, "one", false));
    std::FILE* reader = OpenFile(path, "rb");
    ASSERT_NE(reader, nullptr);
    std::fgetc(reader);
    std::fclose(reader);
    EXPECT_TRUE(ReplaceWholeFile(path, "two", false));
    EXPECT_EQ(ReadWholeFile(path), "two");
}

}  // namespace
}  // namespace rq::platform

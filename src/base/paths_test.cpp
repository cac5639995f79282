#include "base/paths.h"

#include <gtest/gtest.h>

namespace rq {
namespace {

TEST(Paths, Utf8AndWideNameTheSameFile) {
    const std::string utf8 = "目录 a/文件.bin";
    EXPECT_EQ(Utf8FromPath(PathFromUtf8(utf8)), utf8);
    EXPECT_EQ(PathFromWide(WidenUtf8(utf8)), PathFromUtf8(utf8));
    EXPECT_EQ(WideFromPath(PathFromUtf8(utf8)), WidenUtf8(utf8));
}

TEST(Paths, LastSeparator) {
    EXPECT_EQ(FindLastSeparator(L"name"), std::wstring_view::npos);
    EXPECT_EQ(FindLastSeparator(L""), std::wstring_view::npos);
    EXPECT_EQ(FindLastSeparator(L"/a/b"), 2u);
    EXPECT_EQ(FindLastSeparator(L"D:\\jobs\\task"), 7u);
    // A slash after a backslash: on Windows the backslash decides, elsewhere the later one.
    EXPECT_EQ(FindLastSeparator(L"a\\b/c"), PathSeparator() == L'\\' ? 1u : 3u);
    EXPECT_EQ(FindLastSeparator(L"a/b\\c"), 3u);
}

}  // namespace
}  // namespace rq

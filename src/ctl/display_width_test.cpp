#include "ctl/display_width.h"

#include <gtest/gtest.h>

namespace rq::ctl {
namespace {

TEST(DisplayWidth, EastAsianCharactersTakeTwoColumns) {
    EXPECT_EQ(DisplayWidth(""), 0u);
    EXPECT_EQ(DisplayWidth("film.mxf"), 8u);
    EXPECT_EQ(DisplayWidth("片 名"), 5u);
    EXPECT_EQ(DisplayWidth("ｆｗ"), 4u);
    EXPECT_EQ(DisplayWidth("한글カナ"), 8u);
    EXPECT_EQ(DisplayWidth("ﾊﾝ"), 2u) << "half-width";
    EXPECT_EQ(DisplayWidth("é"), 1u);
    EXPECT_EQ(DisplayWidth("e\xCC\x81"), 1u) << "with a mark of its own";
    EXPECT_EQ(DisplayWidth("🎬"), 2u);
    EXPECT_EQ(DisplayWidth("𠀀"), 2u);
    EXPECT_EQ(DisplayWidth("\xFF\xE7\x89"), 3u) << "bytes that are no character";
}

TEST(FitColumns, CutsBetweenCharactersAndFillsUp) {
    EXPECT_EQ(FitColumns("abc", 5), "abc  ");
    EXPECT_EQ(FitColumns("abc", 2), "ab");
    EXPECT_EQ(FitColumns("片名", 4), "片名");
    EXPECT_EQ(FitColumns("片名", 3), "片 ");
    EXPECT_EQ(FitColumns("片名", 1), " ");
    EXPECT_EQ(FitColumns("e\xCC\x81x", 1), "e\xCC\x81");
}

}  // namespace
}  // namespace rq::ctl

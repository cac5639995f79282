#include <gtest/gtest.h>

#include <string>

#include "worker/worker_base.h"

namespace rq {
namespace {

TEST(TrimAfterLastClosingTag, OrdinaryTextStays) {
    EXPECT_EQ(TrimAfterLastClosingTag("<a><b>x</b></a>"), "<a><b>x</b></a>");
}

TEST(TrimAfterLastClosingTag, WhatFollowsTheLastClosingTagGoes) {
    EXPECT_EQ(TrimAfterLastClosingTag("<a>x</a>\r\n\x01 stray > bytes"), "<a>x</a>");
}

TEST(TrimAfterLastClosingTag, OpeningTagAfterTheLastClosingOneGoes) {
    EXPECT_EQ(TrimAfterLastClosingTag("<a>x</a><b>"), "<a>x</a>");
}

TEST(TrimAfterLastClosingTag, BlanksInsideTheTagStay) {
    EXPECT_EQ(TrimAfterLastClosingTag("<a>x</a \n>y"), "<a>x</a \n>");
}

TEST(TrimAfterLastClosingTag, TruncatedTagStays) {
    EXPECT_EQ(TrimAfterLastClosingTag("<a><b>x</b></a"), "<a><b>x</b></a");
    EXPECT_EQ(TrimAfterLastClosingTag("<a>x</"), "<a>x</");
}

TEST(TrimAfterLastClosingTag, TextWithoutAClosingTagStays) {
    for (const char* text : {"", "<a/>", "<a> x", "plain", ">", "<a/>\r\n"})
        EXPECT_EQ(TrimAfterLastClosingTag(text), text);
}

TEST(TrimAfterLastClosingTag, TenMegabytes) {
    const std::string body(10u << 20, 'x');
    EXPECT_EQ(TrimAfterLastClosingTag("<a>" + body + "</a>" + body), "<a>" + body + "</a>");
    EXPECT_EQ(TrimAfterLastClosingTag(body).size(), body.size());
}

}  // namespace
}  // namespace rq

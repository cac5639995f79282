#include "util/xml_bounds.h"

#include <gtest/gtest.h>

namespace rq {
namespace {

std::string Nested(int levels) {
    std::string xml;
    for (int i = 0; i < levels; ++i) xml += "<a>";
    for (int i = 0; i < levels; ++i) xml += "</a>";
    return xml;
}

bool IsFine(std::string_view xml) {
    return !FindXmlBoundsProblem(xml).has_value();
}

TEST(XmlBounds, Depth) {
    EXPECT_TRUE(IsFine(Nested(32)));
    EXPECT_FALSE(IsFine(Nested(33)));
    EXPECT_TRUE(IsFine("<a>" + std::string("<b/><c></c>") + "</a>"));
    std::string siblings = "<a>";
    for (int i = 0; i < 1000; ++i) siblings += "<b x='>/'/><c y=\"/>\">t</c>";
    EXPECT_TRUE(IsFine(siblings + "</a>"));
    EXPECT_EQ(FindXmlBoundsProblem("<a>\n<b>\n<c>", {1000, 2}), "line 3: elements nest deeper than 2 levels");
}

TEST(XmlBounds, WhatOnlyLooksLikeATagDoesNotCount) {
    EXPECT_TRUE(IsFine(
        "<?xml version=\"1.0\"?><!DOCTYPE a><a><!-- <b><b><b> --><![CDATA[</a></a><b>]]>x &lt; y</a>"));
    const std::string hidden = "<a><![CDATA[</a>]]>";  // the closing tag is character data
    std::string xml;
    for (int i = 0; i < 40; ++i) xml += hidden;
    EXPECT_FALSE(IsFine(xml));
}

TEST(XmlBounds, TagsThatDoNotEndAreRefused) {
    for (const char* xml :
         {"<a", "<a><b x='<c>'/></a>", "<a <b>", "<!-- x", "<![CDATA[x", "<?xml", "</a", "<a x='>"}) {
        EXPECT_FALSE(IsFine(xml)) << xml;
    }
}

TEST(XmlBounds, SizeAndZeroBytes) {
    EXPECT_TRUE(IsFine(std::string(1024 * 1024, ' ')));
    EXPECT_FALSE(IsFine(std::string(1024 * 1024 + 1, ' ')));
    EXPECT_FALSE(IsFine(std::string_view("<a>\0</a>", 8)));
    EXPECT_TRUE(IsFine(""));
}

}  // namespace
}  // namespace rq

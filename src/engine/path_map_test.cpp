#include "engine/path_map.h"

#include <gtest/gtest.h>

namespace rq::engine {
namespace {

PathMap Map(std::vector<PathRule> rules) {
    auto map = PathMap::Make(std::move(rules));
    EXPECT_TRUE(map) << map.error().message;
    return map ? *map : PathMap();
}

std::string Local(const PathMap& map, std::string_view path) {
    return map.Local(path).value_or("-");
}

TEST(PathMap, ReplacesAPrefixAtAWholeComponent) {
    const PathMap map = Map({{"/mnt/media", "/srv/a"}});
    EXPECT_EQ(Local(map, "/mnt/media/x/y.mxf"), "/srv/a/x/y.mxf");
    EXPECT_EQ(Local(map, "/mnt/media"), "/srv/a");
    EXPECT_EQ(Local(map, "/mnt/media/"), "/srv/a/");
    EXPECT_EQ(Local(map, "/mnt/media2/x"), "-");
    EXPECT_EQ(Local(map, "/mnt/Media/x"), "-");
    EXPECT_EQ(Local(map, "x/mnt/media/y"), "-");
    EXPECT_EQ(Local(map, "/mnt/media\\x"), "-") << "there a backslash is part of a name";
    EXPECT_EQ(Local(map, "/mnt/media/a\\b"), "/srv/a/a\\b");
    EXPECT_EQ(Local(map, ""), "-");
}

TEST(PathMap, TakesWindowsPathsInEitherFormAndCase) {
    const PathMap map = Map({{"Z:\\media", "/mnt/media"}, {"\\\\Server\\Archiv", "/mnt/archive/"}});
    EXPECT_EQ(Local(map, "Z:\\media\\a\\b.mxf"), "/mnt/media/a/b.mxf");
    EXPECT_EQ(Local(map, "z:/MEDIA/a/b.mxf"), "/mnt/media/a/b.mxf");
    EXPECT_EQ(Local(map, "Z:\\mediabox\\a"), "-");
    EXPECT_EQ(Local(map, "Z:media\\a"), "-");
    EXPECT_EQ(Local(map, "\\\\server\\archiv\\样片.mxf"), "/mnt/archive/样片.mxf");
    EXPECT_EQ(Local(map, "//server/archiv/x"), "/mnt/archive/x");
    EXPECT_EQ(Local(map, "\\\\server\\archiv"), "/mnt/archive");
}

TEST(PathMap, GivesTheRestTheSeparatorsOfTheTarget) {
    const PathMap map = Map({{"/mnt/media", "Z:\\media"}, {"/", "\\\\server\\root"}, {"C:\\", "D:\\"}});
    EXPECT_EQ(Local(map, "/mnt/media/a/b.mxf"), "Z:\\media\\a\\b.mxf");
    EXPECT_EQ(Local(map, "/etc/x"), "\\\\server\\root\\etc\\x");
    EXPECT_EQ(Local(map, "C:\\a/b"), "D:\\a\\b");
    EXPECT_EQ(Local(map, "c:"), "D:\\");
}

TEST(PathMap, ARootStaysOne) {
    EXPECT_EQ(Local(Map({{"Z:\\", "/"}}), "Z:\\"), "/");
    EXPECT_EQ(Local(Map({{"Z:\\", "/"}}), "Z:"), "/");
    EXPECT_EQ(Local(Map({{"Z:\\", "/"}}), "Z:\\a"), "/a");
    EXPECT_EQ(Local(Map({{"/m", "Z:\\"}}), "/m"), "Z:\\");
}

TEST(PathMap, TheLongestPrefixDecidesOnce) {
    const PathMap map = Map({{"/a", "/b"}, {"/a/b/c", "/long"}, {"/b", "/never"}, {"/a/b/", "/middle"}});
    EXPECT_EQ(Local(map, "/a/x"), "/b/x");
    EXPECT_EQ(Local(map, "/a/b/x"), "/middle/x");
    EXPECT_EQ(Local(map, "/a/b/c/x"), "/long/x");
    EXPECT_EQ(map.RuleFor("/a/b/c")->given, "/a/b/c");
    EXPECT_EQ(map.RuleFor("/c"), nullptr);
}

TEST(PathMap, RefusesWhatIsNoPrefix) {
    EXPECT_EQ(PathMap::Make({{"media", "/x"}}).error().message,
              "\"media\" is no absolute path: Z:\\folder, \\\\server\\share or /folder");
    EXPECT_EQ(PathMap::Make({{"/x", ""}}).error().message,
              "\"\" is no absolute path: Z:\\folder, \\\\server\\share or /folder");
    EXPECT_FALSE(PathMap::Make({{"Zz:\\a", "/x"}}));
    EXPECT_FALSE(PathMap::Make({{"/x", "/a\nb"}}));
    EXPECT_EQ(PathMap::Make({{"Z:\\media", "/x"}, {"/y", "/x"}, {"z:/Media/", "/z"}}).error().message,
              "\"z:/Media/\" is the same prefix as \"Z:\\media\"");
    EXPECT_TRUE(PathMap::Make({{"/media", "/x"}, {"/Media", "/y"}}));
}

TEST(PathMap, ReplacesPathsInATaskText) {
    const PathMap map = Map({{"Z:\\media", "/mnt/a&b's"}});
    std::vector<MappedPath> mapped;
    EXPECT_EQ(map.Apply("<?xml version=\"1.0\"?>\n"
                        "<Task id='Z:\\media is none' to=\"Z:\\media\\&#x6837;&amp;.mxf\">\n"
                        "  <!-- <File>Z:\\media\\c</File> -->\n"
                        "  <File a='1'>\n Z:\\media\\in.mxf \n</File><B/>\n"
                        "  <Note>see Z:\\media\\x</Note><Mix>Z:\\media\\x<C/></Mix>\n"
                        "  <D> <![CDATA[Z:\\media\\a&b]]> </D><E>1<![CDATA[Z:\\media\\e]]></E>"
                        "<F><![CDATA[Z:\\media\\f]]><!-- --></F>"
                        "</Task>",
                        &mapped),
              "<?xml version=\"1.0\"?>\n"
              "<Task id='Z:\\media is none' to=\"/mnt/a&amp;b&apos;s/样&amp;.mxf\">\n"
              "  <!-- <File>Z:\\media\\c</File> -->\n"
              "  <File a='1'>\n /mnt/a&amp;b&apos;s/in.mxf \n</File><B/>\n"
              "  <Note>see Z:\\media\\x</Note><Mix>Z:\\media\\x<C/></Mix>\n"
              "  <D> <![CDATA[/mnt/a&b's/a&b]]> </D><E>1<![CDATA[Z:\\media\\e]]></E>"
              "<F><![CDATA[Z:\\media\\f]]><!-- --></F>"
              "</Task>");
    EXPECT_EQ(mapped, (std::vector<MappedPath>{{"Z:\\media\\样&.mxf", "/mnt/a&b's/样&.mxf"},
                                               {"Z:\\media\\in.mxf", "/mnt/a&b's/in.mxf"},
                                               {"Z:\\media\\a&b", "/mnt/a&b's/a&b"}}));
}

TEST(PathMap, LeavesOtherTextsAsTheyAre) {
    const PathMap map = Map({{"/m", "/n"}});
    for (const std::string_view text :
         {"", "/m/x", "<a>/x</a>", "<a b=\"/m", "<a>/m/x", "<a>/m&unknown;/x</a>", "<a>/m&#0;</a>",
          "<a>/m&#xD800;</a>", "<a>/m&amp</a>", "<!DOCTYPE a [<!ENTITY e \"/m/x\">]>"})
        EXPECT_EQ(map.Apply(text), text);
    EXPECT_EQ(Map({}).Apply("<a>/m/x</a>"), "<a>/m/x</a>");
    EXPECT_EQ(map.Apply("<a b='>' c = '/m/&#128512;'>/m</a>"), "<a b='>' c = '/n/\xF0\x9F\x98\x80'>/n</a>");
}

}  // namespace
}  // namespace rq::engine

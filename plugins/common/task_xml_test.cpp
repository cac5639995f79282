#include "plugin_common/task_xml.h"

#include <gtest/gtest.h>

#include <string>

using rq::task::XmlElement;
using rq::task::XmlError;
using rq::task::XmlFields;

namespace {

// The error text of a refused text; empty when it was taken.
std::string ErrorOf(const std::string& text) {
    XmlElement root;
    XmlError error;
    const bool taken = rq::task::ParseTaskXml(text, root, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

XmlElement Parsed(const std::string& text) {
    XmlElement root;
    XmlError error;
    EXPECT_TRUE(rq::task::ParseTaskXml(text, root, error)) << error.Text();
    return root;
}

std::string Repeat(const std::string& text, std::size_t times) {
    std::string all;
    for (std::size_t i = 0; i < times; ++i) all += text;
    return all;
}

}  // namespace

TEST(TaskXml, KeepsTextsNamesAndLines) {
    const XmlElement root = Parsed("<A>\n <B>x  y </B>\n\n <C>\n<![CDATA[ <&> ]]>&lt;&#x4e2d;</C></A>");
    EXPECT_EQ(root.name, "A");
    EXPECT_EQ(root.line, 1u);
    EXPECT_EQ(root.textLine, 0u);
    ASSERT_EQ(root.children.size(), 2u);
    EXPECT_EQ(root.children[0].text, "x  y ");
    EXPECT_EQ(root.children[0].line, 2u);
    EXPECT_EQ(root.children[1].text, "\n <&> <中");
    EXPECT_EQ(root.children[1].line, 4u);
    EXPECT_EQ(root.children[1].textLine, 5u);
}

TEST(TaskXml, TakesDeclarationCommentsAndByteOrderMark) {
    const std::string text =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?><!-- c --><A><?p i?>v</A>\n<!-- d -->";
    EXPECT_EQ(Parsed(text).text, "v");
    EXPECT_EQ(Parsed("\xEF\xBB\xBF" + text).text, "v");
}

TEST(TaskXml, RefusesNothingAtAll) {
    EXPECT_EQ(ErrorOf(""), "line 1: the task text is empty");
    EXPECT_EQ(ErrorOf(" \n\t"), "line 1: the task text is empty");
    EXPECT_EQ(ErrorOf("\xEF\xBB\xBF"), "line 1: the task text is empty");
}

TEST(TaskXml, RefusesWhatIsNoXml) {
    EXPECT_EQ(ErrorOf("hello"), "line 1: not well-formed XML: syntax error");
    EXPECT_EQ(ErrorOf("<A/>\n<B/>"), "line 2: not well-formed XML: junk after document element");
    EXPECT_EQ(ErrorOf("<A/>\ntext"), "line 2: not well-formed XML: junk after document element");
    EXPECT_EQ(ErrorOf(std::string("<A>\0</A>", 8)),
              "line 1: not well-formed XML: not well-formed (invalid token); <A> of line 1 is still open");
}

TEST(TaskXml, NamesTheElementThatIsStillOpen) {
    EXPECT_EQ(ErrorOf("<A>\n<B>\n<C>"),
              "line 3: not well-formed XML: no element found; <C> of line 3 is still open");
    EXPECT_EQ(ErrorOf("<A>\n<B>\n</A>"),
              "line 3: not well-formed XML: mismatched tag; <B> of line 2 is still open");
}

TEST(TaskXml, RefusesEveryTruncation) {
    const std::string whole = "<?xml version=\"1.0\"?><A><B a=\"1\">&amp;<![CDATA[x]]></B><!-- c --></A>";
    EXPECT_EQ(ErrorOf(whole), "");
    for (std::size_t n = 0; n < whole.size(); ++n) EXPECT_NE(ErrorOf(whole.substr(0, n)), "") << n;
}

TEST(TaskXml, NamesTheLineOfBytesThatAreNotUtf8) {
    // "中文" in GBK
    EXPECT_EQ(
        ErrorOf("<A>\n\xD6\xD0\xCE\xC4</A>"),
        "line 2: the byte 0xD6 is not UTF-8; write the task text in UTF-8, not in GBK or another encoding");
    for (const char* bad : {"\x80", "\xC0\xAF", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xF8\x88\x80\x80", "\xE4\xB8"})
        EXPECT_NE(ErrorOf(std::string("<A>") + bad + "</A>").find("is not UTF-8"), std::string::npos) << bad;
    EXPECT_EQ(ErrorOf("<A>\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF</A>"), "");
}

TEST(TaskXml, RefusesOtherEncodings) {
    EXPECT_EQ(
        ErrorOf("<?xml version=\"1.0\" encoding=\"GBK\"?><A/>"),
        "line 1: the encoding is given as \"GBK\"; write the task text in UTF-8 and say so, or say nothing");
    EXPECT_NE(ErrorOf("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><A/>").find("given as \"ISO-8859-1\""),
              std::string::npos);
    EXPECT_NE(ErrorOf(std::string("\xFF\xFE<\0A\0/\0>\0", 10)), "");  // UTF-16
}

TEST(TaskXml, RefusesDoctypeAndEntities) {
    EXPECT_EQ(ErrorOf("<!DOCTYPE A [<!ENTITY e \"x\">]>\n<A>&e;</A>"),
              "line 1: a DOCTYPE is not read; leave it out");
    EXPECT_EQ(ErrorOf("<!DOCTYPE A SYSTEM \"file:///etc/passwd\"><A/>"),
              "line 1: a DOCTYPE is not read; leave it out");
    EXPECT_EQ(ErrorOf("<A>\n&nbsp;</A>"),
              "line 2: not well-formed XML: undefined entity; <A> of line 1 is still open");
    EXPECT_EQ(Parsed("<A>&lt;&gt;&amp;&quot;&apos;</A>").text, "<>&\"'");
}

TEST(TaskXml, BoundsTheNesting) {
    EXPECT_EQ(ErrorOf(Repeat("<a>", 64) + Repeat("</a>", 64)), "");
    EXPECT_EQ(ErrorOf(Repeat("<a>", 64) + "\n<b/>" + Repeat("</a>", 64)),
              "line 2: elements are nested more than 64 deep");
    EXPECT_EQ(ErrorOf(Repeat("<a>", 100'000)), "line 1: elements are nested more than 64 deep");
    EXPECT_EQ(ErrorOf(Repeat("<a>", 100'000) + Repeat("</a>", 100'000)),
              "line 1: elements are nested more than 64 deep");
}

TEST(TaskXml, BoundsTheSize) {
    std::string text = "<A></A>";
    text.insert(3, rq::task::kMaxTaskText_bytes - text.size(), 'x');
    EXPECT_EQ(Parsed(text).text.size(), rq::task::kMaxTaskText_bytes - 7);
    text.insert(3, 1, 'x');
    EXPECT_EQ(ErrorOf(text), "line 1: the task text has 16777217 bytes; at most 16777216 are read");
}

TEST(TaskXml, BoundsATag) {
    const std::string filler(rq::task::kMaxTag_bytes - 9, 'x');
    EXPECT_EQ(Parsed("<A b='>" + filler + "'/>").attributes.size(), 1u);
    const std::string refused = "a tag is longer than 65536 bytes, or has no end";
    EXPECT_EQ(ErrorOf("<A>\n<B c='>" + filler + "12'/></A>"), "line 2: " + refused);
    EXPECT_EQ(ErrorOf("<A>\n\n<B c=\"" + filler + filler), "line 3: " + refused);
    // What is no tag may be longer.
    const std::string more = filler + "<" + filler;
    EXPECT_EQ(Parsed("<A><!--" + more + "--><![CDATA[" + more + "]]><?p " + more + "?></A>").text, more);
}

TEST(TaskXml, ARefusalIsOneLineOfBoundedLength) {
    XmlError error;
    std::string quoted = "begin\n";
    for (int i = 0; i < 2000; ++i) quoted += "中";
    error.Set(7, quoted + "\tend");
    EXPECT_EQ(error.Text().rfind("line 7: begin 中中", 0), 0u);
    EXPECT_EQ(error.Text().substr(error.Text().size() - 7), "中 end");
    EXPECT_NE(error.Text().find("中 ... 中"), std::string::npos);
    EXPECT_LT(error.Text().size(), 2100u);
}

TEST(TaskXml, BoundsTheNumberOfElements) {
    EXPECT_EQ(ErrorOf("<A>" + Repeat("<b/>", rq::task::kMaxElements - 1) + "</A>"), "");
    EXPECT_EQ(ErrorOf("<A>" + Repeat("<b/>", rq::task::kMaxElements) + "</A>"),
              "line 1: more than 500000 elements");
}

namespace {

// Reads <T><S>..</S><L><I>..</I>..</L></T> with all getters; the first error.
std::string ReadSample(const std::string& text) {
    XmlElement root;
    XmlError error;
    if (!rq::task::ParseTaskXml(text, root, error) || !rq::task::CheckRoot(root, "T", error))
        return error.Text();
    XmlFields fields(root, {"S", "O", "L"}, error);
    fields.Required("S", "say something");
    fields.Optional("O", "or leave it out");
    if (const XmlElement* list = fields.Only("L", "list"))
        XmlFields(*list, {"I"}, error).Repeated("I", "give one");
    return error.Text();
}

}  // namespace

TEST(TaskXmlFields, TakesWhatFits) {
    EXPECT_EQ(ReadSample("<T><S>x</S><L><I/></L></T>"), "");
    EXPECT_EQ(ReadSample("<T><L><I>1</I><I>2</I></L><O>o</O><S> x </S></T>"), "");
    EXPECT_EQ(ReadSample("<T xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                         "xsi:noNamespaceSchemaLocation=\"t.xsd\"><S>x</S><L><I/></L></T>"),
              "");
}

TEST(TaskXmlFields, NamesElementAndLine) {
    EXPECT_EQ(ReadSample("<X/>"), "line 1: the root element is <X>; it must be <T>");
    EXPECT_EQ(ReadSample("<T>\n<L><I/></L></T>"), "line 1: <T> has no <S>; say something");
    EXPECT_EQ(ReadSample("<T>\n<S> </S><L><I/></L></T>"), "line 2: <S> is empty; say something");
    EXPECT_EQ(ReadSample("<T><S>x</S>\n<O/><L><I/></L></T>"), "line 2: <O> is empty; or leave it out");
    EXPECT_EQ(ReadSample("<T><S>x</S>\n<S>y</S><L><I/></L></T>"),
              "line 2: <S> stands twice in <T>, first in line 1");
    EXPECT_EQ(ReadSample("<T><S>x</S>\n<Q/><L><I/></L></T>"),
              "line 2: <Q> is not known in <T>; allowed are: <S>, <O>, <L>");
    EXPECT_EQ(ReadSample("<T><S>x\n<b/></S><L><I/></L></T>"), "line 2: <b> in <S>, which holds text only");
    EXPECT_EQ(ReadSample("<T><S>x</S>\n<L>\nstray<I/></L></T>"),
              "line 3: text in <L>, which holds elements only: <I>");
    EXPECT_EQ(ReadSample("<T><S>x</S>\n<L></L></T>"), "line 2: <L> has no <I>; give one");
    EXPECT_EQ(ReadSample("<T><S>x</S></T>"), "line 1: <T> has no <L>; list");
    EXPECT_EQ(ReadSample("<T><S a=\"1\">x</S><L><I/></L></T>"),
              "line 1: <S> has the attribute \"a\"; attributes are not used here");
    EXPECT_EQ(ReadSample("<T b=\"\"><S>x</S><L><I/></L></T>"),
              "line 1: <T> has the attribute \"b\"; attributes are not used here");
}

TEST(TaskXmlFields, GivesTextsAsTheyStand) {
    const XmlElement root = Parsed("<T><S> a  b\n</S></T>");
    XmlError error;
    XmlFields fields(root, {"S", "O"}, error);
    EXPECT_EQ(fields.Required("S", ""), " a  b\n");
    EXPECT_FALSE(fields.Optional("O", "").has_value());
    EXPECT_FALSE(error.Failed());
}

TEST(TaskXmlFields, AnElementMayBeMissing) {
    const XmlElement root = Parsed("<T><S><I/></S><R/>\n<R/></T>");
    XmlError error;
    XmlFields fields(root, {"S", "O", "R"}, error);
    ASSERT_NE(fields.OptionalOnly("S"), nullptr);
    EXPECT_EQ(fields.OptionalOnly("S")->children.size(), 1u);
    EXPECT_EQ(fields.OptionalOnly("O"), nullptr);
    EXPECT_FALSE(error.Failed());
    EXPECT_EQ(fields.OptionalOnly("R"), nullptr);
    EXPECT_EQ(error.Text(), "line 2: <R> stands twice in <T>, first in line 1");
}

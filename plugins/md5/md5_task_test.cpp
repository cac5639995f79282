// Task texts, and the documentation's examples: each is checked with xmllint against the schema and with the
// plug-in's own reader.
#include "md5_task.h"

#include <gtest/gtest.h>

#include "kit/os.h"
#include "plugin_common/task_documentation.h"

namespace rq::md5 {
namespace {

// The text with absolute paths as this system has them.
std::string ForThisSystem(std::string text) {
    const std::string root = kit::RootName();
    for (std::size_t at = text.find("<Path>/"); at != std::string::npos; at = text.find("<Path>/", at + 1))
        text.insert(at + 6, root);
    return text;
}

std::string ErrorOf(const std::string& text) {
    Md5Task task;
    task::XmlError error;
    const bool taken = ReadMd5Task(ForThisSystem(text), task, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

TEST(Md5TaskText, ReadsFilesInOrder) {
    Md5Task task;
    task::XmlError error;
    ASSERT_TRUE(ReadMd5Task(
        ForThisSystem("<MD5Task><Files><File><Path>/b</Path></File><File><Path>/a  b </Path></File></Files>"
                      "<ID>x</ID></MD5Task>"),
        task, error))
        << error.Text();
    EXPECT_EQ(task.id, "x");
    EXPECT_FALSE(task.verify);
    ASSERT_EQ(task.files.size(), 2u);
    EXPECT_EQ(task.files[0].path, kit::RootName() + "/b");
    EXPECT_EQ(task.files[1].path, kit::RootName() + "/a  b ");
    EXPECT_FALSE(task.files[0].expected);
}

TEST(Md5TaskText, ReadsExpectedDigests) {
    Md5Task task;
    task::XmlError error;
    ASSERT_TRUE(ReadMd5Task(
        ForThisSystem("<MD5Task><ID>x</ID><Files><File><MD5> 900150983cd24fb0d6963f7d28e17f72\n</MD5>"
                      "<Path>/b</Path></File></Files></MD5Task>"),
        task, error))
        << error.Text();
    EXPECT_TRUE(task.verify);
    ASSERT_TRUE(task.files[0].expected);
    EXPECT_EQ((*task.files[0].expected)[0], 0x90);
    EXPECT_EQ((*task.files[0].expected)[15], 0x72);
}

TEST(Md5TaskText, RefusesMixturesBothWays) {
    const std::string with = "<File><Path>/a</Path><MD5>900150983cd24fb0d6963f7d28e17f72</MD5></File>\n";
    const std::string without = "<File><Path>/b</Path></File>\n";
    const std::string head = "<MD5Task><ID>x</ID><Files>\n";
    const std::string tail = "</Files></MD5Task>";
    EXPECT_EQ(
        ErrorOf(head + with + without + tail),
        "line 3: <File> has no <MD5>, but the one in line 2 has one; give all of them (verification) or none "
        "(computation)");
    EXPECT_EQ(ErrorOf(head + without + without + with + tail),
              "line 4: <File> has an <MD5>, but the one in line 2 has none; give all of them (verification) "
              "or none "
              "(computation)");
}

TEST(Md5TaskText, KeepsTheIdOfARefusedText) {
    Md5Task task;
    task::XmlError error;
    EXPECT_FALSE(ReadMd5Task("<MD5Task><ID>x</ID></MD5Task>", task, error));
    EXPECT_EQ(task.id, "x");
    EXPECT_EQ(error.Text(), "line 1: <MD5Task> has no <Files>; list the files in it");
}

// ---- the documentation ----

TEST(Md5Documentation, EveryExampleIsWhatThePageSays) {
    const auto examples = task::ReadExamples(RQ_TASK_DOCS "/md5.md");
    ASSERT_GE(examples.size(), 9u);
    for (const task::Example& example : examples) {
        EXPECT_EQ(ErrorOf(example.text), example.error) << "block in line " << example.line;
        EXPECT_NE(example.isRefused, example.error.empty()) << "block in line " << example.line;
    }
}

TEST(Md5Documentation, TheSchemaTakesEveryExampleButTheRefusedOnes) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    for (const task::Example& example : task::ReadExamples(RQ_TASK_DOCS "/md5.md"))
        EXPECT_EQ(task::SchemaTakes("md5.xsd", example.text), example.schemaTakes)
            << "block in line " << example.line;
}

TEST(Md5Documentation, SchemaAndReaderAgree) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    const std::string file = "<File><Path>/a</Path></File>";
    const auto task = [](const std::string& inner) { return "<MD5Task>" + inner + "</MD5Task>"; };
    const std::string texts[] = {
        task("<ID>x</ID><Files>" + file + "</Files>"),
        task("<Files>" + file + "</Files><ID>x</ID>"),
        task("<ID> \n</ID><Files>" + file + "</Files>"),
        task("<ID>x</ID><ID>y</ID><Files>" + file + "</Files>"),
        task("<ID>x</ID><Files>" + file + "</Files><Files>" + file + "</Files>"),
        task("<ID>x</ID><Files>text" + file + "</Files>"),
        task("<ID a='1'>x</ID><Files>" + file + "</Files>"),
        task("<ID>x<b/></ID><Files>" + file + "</Files>"),
        task("<ID>x</ID><Files><File><Path> /a</Path></File></Files>"),
        task("<ID>x</ID><Files><File><Path>/a\n&#10; b </Path></File></Files>"),
        task("<ID>x</ID><Files><File><Path>/a</Path><MD5> " + std::string(32, 'A') +
             " </MD5></File></Files>"),
        task("<ID>x</ID><Files><File><Path>/a</Path><MD5></MD5></File></Files>"),
        task("<ID>x</ID><Files><File><MD5>" + std::string(32, 'A') + "</MD5></File></Files>"),
        "<MD5Task xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' "
        "xsi:noNamespaceSchemaLocation='md5.xsd'>"
        "<ID>x</ID><Files>" +
            file + "</Files></MD5Task>",
        "<Md5Task/>",
        task("<ID>x</ID><Files><Folder><Path>/a</Path></Folder>" + file + "</Files>"),
        task("<ID>x</ID><Files><Folder><Path>a</Path></Folder></Files>"),
        task("<ID>x</ID><Files><Folder>/a</Folder></Files>"),
        task("<ID>x</ID><Files><Folder><Path>/a</Path><MD5>" + std::string(32, 'A') +
             "</MD5></Folder></Files>"),
        task("<ID>x</ID><Files><ChecksumFile><Path>/a</Path></ChecksumFile></Files><Threads> 64 </Threads>"),
        task("<ID>x</ID><Files>" + file + "</Files><Threads>0</Threads>"),
        task("<ID>x</ID><Files>" + file + "</Files><Threads>07</Threads>"),
        task("<ID>x</ID><Files>" + file + "</Files><Threads></Threads>"),
        task("<ID>x</ID><Files>" + file + "</Files><WriteChecksums/>"),
        task("<ID>x</ID><Files>" + file +
             "</Files><WriteChecksums><Overwrite>false</Overwrite><Path>/a</Path></WriteChecksums>"),
        task("<ID>x</ID><Files>" + file +
             "</Files><WriteChecksums><Overwrite>yes</Overwrite><Path>/a</Path></WriteChecksums>"),
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("md5.xsd", text), ErrorOf(text).empty()) << text;
}

}  // namespace
}  // namespace rq::md5

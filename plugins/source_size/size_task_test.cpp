// Task texts, and the documentation's examples.
#include "size_task.h"

#include "plugin_common/task_documentation.h"

namespace rq::source_size {
namespace {

using task::Example;
using namespace std::chrono_literals;

std::string ErrorOf(const std::string& text) {
    SizeTask task;
    task::XmlError error;
    const bool taken = ReadSizeTask(task::ForThisSystem(text), task, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

TEST(SizeTaskText, ReadsFilesAndTimes) {
    SizeTask task;
    task::XmlError error;
    ASSERT_TRUE(
        ReadSizeTask(task::ForThisSystem(
                         "<SourceSizeTask><ID>x</ID><StableFor_s>0.25</StableFor_s><Timeout_s>7</Timeout_s>"
                         "<Files><File><Path>/b </Path></File><File><Path>/a</Path><Size_bytes> 12 "
                         "</Size_bytes></File><File><Path>/c</Path><MinSize_bytes>999999999999999999"
                         "</MinSize_bytes></File></Files></SourceSizeTask>"),
                     task, error))
        << error.Text();
    EXPECT_EQ(task.id, "x");
    EXPECT_EQ(task.stableFor, 250ms);
    EXPECT_EQ(task.timeout, 7s);
    ASSERT_EQ(task.files.size(), 3u);
    EXPECT_EQ(task.files[0].path, kit::RootName() + "/b ");
    EXPECT_FALSE(task.files[0].exact_bytes || task.files[0].least_bytes);
    EXPECT_EQ(task.files[1].exact_bytes, 12u);
    EXPECT_EQ(task.files[2].least_bytes, 999999999999999999u);
}

TEST(SizeTaskText, HasTimesOfItsOwn) {
    SizeTask task;
    task::XmlError error;
    ASSERT_TRUE(ReadSizeTask(
        task::ForThisSystem(
            "<SourceSizeTask><ID>x</ID><Files><File><Path>/b</Path></File></Files></SourceSizeTask>"),
        task, error));
    EXPECT_EQ(task.stableFor, 5s);
    EXPECT_EQ(task.timeout, 600s);
}

// A short time-out needs no other element beside it.
TEST(SizeTaskText, ATimeOutShortensTheStandardTime) {
    SizeTask task;
    task::XmlError error;
    ASSERT_TRUE(
        ReadSizeTask(task::ForThisSystem("<SourceSizeTask><ID>x</ID><Timeout_s>2</Timeout_s>"
                                         "<Files><File><Path>/a</Path></File></Files></SourceSizeTask>"),
                     task, error))
        << error.Text();
    EXPECT_EQ(task.stableFor, 2s);
}

TEST(SizeTaskText, KeepsTheIdOfARefusedText) {
    SizeTask task;
    task::XmlError error;
    EXPECT_FALSE(ReadSizeTask("<SourceSizeTask><ID>x</ID></SourceSizeTask>", task, error));
    EXPECT_EQ(task.id, "x");
}

TEST(SizeDocumentation, EveryExampleIsWhatThePageSays) {
    const std::vector<Example> examples = task::ReadExamples(RQ_TASK_DOCS "/source_size.md");
    ASSERT_GE(examples.size(), 7u);
    for (const Example& example : examples) {
        std::string error = ErrorOf(example.text);
        const std::string drive = "\"" + kit::RootName() + "/";
        if (const std::size_t at = error.find(drive); at != std::string::npos)
            error.erase(at + 1, drive.size() - 2);
        EXPECT_EQ(error, example.error) << "block in line " << example.line;
        EXPECT_EQ(example.isRefused, !example.error.empty()) << "block in line " << example.line;
    }
}

TEST(SizeDocumentation, SchemaAndReaderAgree) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    for (const Example& example : task::ReadExamples(RQ_TASK_DOCS "/source_size.md"))
        EXPECT_EQ(task::SchemaTakes("source_size.xsd", example.text), example.schemaTakes)
            << "block in line " << example.line;
    const auto task = [](const std::string& inner) {
        return "<SourceSizeTask>" + inner + "</SourceSizeTask>";
    };
    const std::string files = "<Files><File><Path>/a</Path></File></Files>";
    const std::string texts[] = {
        task("<ID>x</ID>" + files),
        task(files + "<Timeout_s> 10 </Timeout_s><ID>x</ID>"),
        task("<ID> </ID>" + files),
        task("<ID>x</ID>" + files + files),
        task("<ID>x</ID><Timeout_s>-1</Timeout_s>" + files),
        task("<ID>x</ID><Timeout_s>10.</Timeout_s>" + files),
        task("<ID>x</ID><StableFor_s>.5</StableFor_s>" + files),
        task("<ID>x</ID><Files><File><Path>/a</Path><Size_bytes>1234567890123456789</Size_bytes></File></"
             "Files>"),
        task("<ID>x</ID><Files></Files>"),
        "<SourceSize/>",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("source_size.xsd", text), ErrorOf(text).empty()) << text;
}

}  // namespace
}  // namespace rq::source_size

// Task texts, and the documentation's examples.
#include "delete_task.h"

#include "kit/temp_dir.h"
#include "plugin_common/task_documentation.h"

namespace rq::del {
namespace {

using task::Example;

std::string ErrorOf(const std::string& text) {
    DeleteTask task;
    task::XmlError error;
    const bool taken = ReadDeleteTask(task::ForThisSystem(text), task, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

TEST(DeleteTaskText, ReadsItemsInOrder) {
    DeleteTask task;
    task::XmlError error;
    ASSERT_TRUE(ReadDeleteTask(
        task::ForThisSystem(
            "<DeleteTask><Items><Item><Path>/b c</Path></Item><Item><Recursive> true </Recursive>"
            "<Path>/a</Path></Item></Items><ID>x</ID></DeleteTask>"),
        task, error))
        << error.Text();
    EXPECT_EQ(task.id, "x");
    EXPECT_FALSE(task.dryRun);
    ASSERT_EQ(task.items.size(), 2u);
    EXPECT_EQ(task.items[0].recursive, false);
    EXPECT_EQ(task.items[1].path, kit::RootName() + "/a");
    EXPECT_TRUE(task.items[1].recursive);
}

TEST(DeleteTaskText, KeepsTheIdOfARefusedText) {
    DeleteTask task;
    task::XmlError error;
    EXPECT_FALSE(ReadDeleteTask("<DeleteTask><ID>x</ID></DeleteTask>", task, error));
    EXPECT_EQ(task.id, "x");
    EXPECT_EQ(error.Text(), "line 1: <DeleteTask> has no <Items>; list what is to be deleted in it");
}

TEST(DeleteDocumentation, EveryExampleIsWhatThePageSays) {
    const std::vector<Example> examples = task::ReadExamples(RQ_TASK_DOCS "/delete.md");
    ASSERT_GE(examples.size(), 7u);
    for (const Example& example : examples) {
        std::string error = ErrorOf(example.text);
        if (const std::size_t drive =
                kit::RootName().empty() ? std::string::npos : error.find("\"" + kit::RootName() + "/");
            drive != std::string::npos)
            error.erase(drive + 1, kit::RootName().size());
        EXPECT_EQ(error, example.error) << "block in line " << example.line;
        EXPECT_EQ(example.isRefused, !example.error.empty()) << "block in line " << example.line;
    }
}

TEST(DeleteDocumentation, TheConfigurationOnThePageIsRead) {
    const std::string page = kit::ReadText(RQ_TASK_DOCS "/delete.md");
    const std::size_t begin = page.find("```xml config\n") + 14;
    const kit::TempDir dir;
    dir.Write("RQWorkerDelete.xml",
              task::ForThisSystem(page.substr(begin, page.find("```", begin) - begin), {"Folder"}));
    const kit::ScopedEnvironment config("RQ_CONFIG_DIR", dir.Utf8());
    const AllowedFolders allowed = ReadAllowedFolders();
    EXPECT_EQ(allowed.words, "");
    EXPECT_EQ(allowed.folders, (std::vector<std::string>{kit::RootName() + "/mnt/scratch",
                                                         kit::RootName() + "/mnt/media/trash"}));
}

TEST(DeleteDocumentation, SchemaAndReaderAgree) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    for (const Example& example : task::ReadExamples(RQ_TASK_DOCS "/delete.md"))
        EXPECT_EQ(task::SchemaTakes("delete.xsd", example.text), example.schemaTakes)
            << "block in line " << example.line;
    const auto task = [](const std::string& inner) { return "<DeleteTask>" + inner + "</DeleteTask>"; };
    const std::string item = "<Item><Path>/a</Path></Item>";
    const std::string texts[] = {
        task("<ID>x</ID><Items>" + item + "</Items>"),
        task("<Items>" + item + item + "</Items><DryRun>false</DryRun><ID>x</ID>"),
        task("<ID> </ID><Items>" + item + "</Items>"),
        task("<ID>x</ID><Items>" + item + "</Items><Items>" + item + "</Items>"),
        task("<ID>x</ID><DryRun/><Items>" + item + "</Items>"),
        task("<ID>x</ID><Items><Item><Path>/a</Path><Recursive>1</Recursive></Item></Items>"),
        task("<ID>x</ID><Items><Item><Recursive>true</Recursive></Item></Items>"),
        task("<ID>x</ID><Items>text" + item + "</Items>"),
        "<Delete/>",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("delete.xsd", text), ErrorOf(text).empty()) << text;
}

}  // namespace
}  // namespace rq::del

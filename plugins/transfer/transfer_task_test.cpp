// Task texts, and the documentation's examples.
#include "transfer_task.h"

#include "plugin_common/task_documentation.h"

namespace rq::transfer {
namespace {

using task::Example;

std::string ErrorOf(const std::string& text) {
    TransferTask task;
    task::XmlError error;
    const bool taken = ReadTransferTask(task::ForThisSystem(text, {"Source", "Target"}), task, error);
    EXPECT_EQ(taken, error.Text().empty());
    return error.Text();
}

TransferTask Taken(const std::string& inner) {
    TransferTask task;
    task::XmlError error;
    EXPECT_TRUE(ReadTransferTask(
        task::ForThisSystem("<TransferTask><ID>x</ID>" + inner +
                                "<Items><Item><Source>/a b/</Source><Target>/c</Target><MD5> "
                                "900150983cd24fb0d6963f7d28e17f72 </MD5></Item></Items></TransferTask>",
                            {"Source", "Target"}),
        task, error))
        << error.Text();
    return task;
}

TEST(TransferTaskText, ReadsItemsAndSettings) {
    const TransferTask plain = Taken("");
    EXPECT_EQ(plain.id, "x");
    EXPECT_FALSE(plain.move || plain.overwrite || plain.md5 || plain.sha256 || plain.verify ||
                 plain.manifest);
    EXPECT_EQ(plain.limit_Bps, 0u);
    ASSERT_EQ(plain.items.size(), 1u);
    EXPECT_EQ(plain.items[0].source, kit::RootName() + "/a b");
    EXPECT_EQ(plain.items[0].target, kit::RootName() + "/c");
    ASSERT_TRUE(plain.items[0].expected);
    EXPECT_EQ((*plain.items[0].expected)[0], 0x90);
    const TransferTask full = Taken(
        "<Mode>move</Mode><Overwrite>true</Overwrite><SHA256>true</SHA256><RateLimit_kBps>12</"
        "RateLimit_kBps>");
    EXPECT_TRUE(full.move && full.overwrite && full.sha256);
    EXPECT_FALSE(full.md5);
    EXPECT_EQ(full.limit_Bps, 12'000u);
}

TEST(TransferTaskText, VerificationAndManifestsNeedADigest) {
    EXPECT_TRUE(Taken("<Verify>true</Verify>").md5);
    EXPECT_TRUE(Taken("<Manifest>true</Manifest>").md5);
    EXPECT_FALSE(Taken("<Manifest>true</Manifest><SHA256>true</SHA256>").md5);
}

TEST(TransferTaskText, NeverRepeatsAUrl) {
    for (const char* url :
         {"ftp://u:secret@h/x", "SFTP://u:secret@h/x", " https://u:secret@h/x", "http://h/x?secret"}) {
        const std::string error = ErrorOf("<TransferTask><ID>x</ID><Items><Item><Source>" + std::string(url) +
                                          "</Source><Target>/b</Target></Item></Items></TransferTask>");
        EXPECT_EQ(error,
                  "line 1: <Source> is a URL; only paths are transferred, give one that the system can open");
    }
}

TEST(TransferDocumentation, EveryExampleIsWhatThePageSays) {
    const std::vector<Example> examples = task::ReadExamples(RQ_TASK_DOCS "/transfer.md");
    ASSERT_GE(examples.size(), 9u);
    for (const Example& example : examples) {
        EXPECT_EQ(ErrorOf(example.text), example.error) << "block in line " << example.line;
        EXPECT_EQ(example.isRefused, !example.error.empty()) << "block in line " << example.line;
    }
}

TEST(TransferDocumentation, SchemaAndReaderAgree) {
    if (kit::IsWine()) GTEST_SKIP() << "xmllint is a program of the system below Wine";
    for (const Example& example : task::ReadExamples(RQ_TASK_DOCS "/transfer.md"))
        EXPECT_EQ(task::SchemaTakes("transfer.xsd", example.text), example.schemaTakes)
            << "block in line " << example.line;
    const auto task = [](const std::string& inner) { return "<TransferTask>" + inner + "</TransferTask>"; };
    const std::string items = "<Items><Item><Source>/a</Source><Target>/b</Target></Item></Items>";
    const std::string texts[] = {
        task("<ID>x</ID>" + items),
        task(items + "<Verify>true</Verify><ID>x</ID><RateLimit_kBps>1000000000</RateLimit_kBps>"),
        task("<ID>x</ID><RateLimit_kBps>1000000001</RateLimit_kBps>" + items),
        task("<ID>x</ID><RateLimit_kBps>007</RateLimit_kBps>" + items),
        task("<ID> </ID>" + items),
        task("<ID>x</ID>" + items + items),
        task("<ID>x</ID><Mode>Copy</Mode>" + items),
        task("<ID>x</ID><MD5>900150983cd24fb0d6963f7d28e17f72</MD5>" + items),
        task("<ID>x</ID><Items></Items>"),
        task("<ID>x</ID><Items><Item><Source>/a</Source><Source>/a</Source><Target>/b</Target></Item></"
             "Items>"),
        "<Transfer/>",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("transfer.xsd", text), ErrorOf(text).empty()) << text;
}

}  // namespace
}  // namespace rq::transfer

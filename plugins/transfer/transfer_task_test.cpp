// Task texts, and the documentation's examples.
#include "transfer_task.h"

#include "plugin_common/task_documentation.h"
#include "url.h"

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

std::string ErrorOfUrl(const std::string& url, const std::string& more = {}, const std::string& task = {}) {
    return ErrorOf("<TransferTask><ID>x</ID>" + task + "<Items><Item><Source>" + url +
                   "</Source><Target>/b</Target>" + more + "</Item></Items></TransferTask>");
}

TEST(TransferTaskText, TakesUrlsWithoutSecrets) {
    for (const char* url : {"http://h/x", " HTTPS://h.example.org:8443/a/b%20c ", "ftp://127.0.0.1/x",
                            "ftps://[::1]:990/x", "http://h/a/../b"})
        EXPECT_EQ(ErrorOfUrl(url), "") << url;
    EXPECT_EQ(ErrorOfUrl("ftp://h/x", "<Credentials> own </Credentials>"), "");
    EXPECT_EQ(ErrorOfUrl("ftp://h/x", "<Credentials> </Credentials>"),
              "line 1: <Credentials> is empty; give the name of an entry in RQWorkerCredentials.xml");
    EXPECT_EQ(ErrorOfUrl("/a", "<Credentials>own</Credentials>"),
              "line 1: <Credentials> are for URLs, and there is none");
    EXPECT_EQ(ErrorOfUrl("ftp://h/x", "", "<Mode>move</Mode>"),
              "line 1: <Mode> is \"move\"; files are copied from and to URLs, not moved");
    EXPECT_EQ(ErrorOfUrl("ftp://h/x", "", "<Manifest>true</Manifest>"), "");
}

TEST(TransferTaskText, NeverRepeatsAUrlThatIsRefused) {
    const std::pair<const char*, const char*> cases[] = {
        {"ftp://u:secret@h/x",
         "a URL with a user in it; put user and password into RQWorkerCredentials.xml on the node, "
         "and the name of their entry into <Credentials>"},
        {"smb://h/secret", "a URL of another kind than http, https, ftp, ftps and sftp"},
        {"http://h/x?secret", "a URL with a query or a fragment, which may be a secret; give one without"},
        {"http://h/x#secret", "a URL with a query or a fragment, which may be a secret; give one without"},
        {"http://h/secret x", "a URL with characters that must be written as %XX"},
        {"http://h/secret/", "a URL that names no file"},
        {"http://h", "a URL that names no file"},
        {"http:///secret", "a URL without a host that can be read"},
        {"http://h:port/secret", "a URL without a host that can be read"},
        {"http://-h/secret", "a URL without a host that can be read"},
        {"http://h/secret%0d", "a URL in which a %XX is broken or stands for a control character"},
        {"http://h/secret%4", "a URL in which a %XX is broken or stands for a control character"},
    };
    for (const auto& [url, why] : cases)
        EXPECT_EQ(ErrorOfUrl(url), "line 1: <Source> is " + std::string(why)) << url;
}

TEST(TransferUrls, HaveParts) {
    const std::string url = "FTP://H.example.org:21/a/b%20%E6%96%B0";
    EXPECT_EQ(SchemeOf(url), "ftp");
    EXPECT_EQ(HostOf(url), "h.example.org");
    EXPECT_EQ(HostOf("http://[::1]:80/x"), "[::1]");
    EXPECT_EQ(FolderOf(url), "FTP://H.example.org:21/a/");
    EXPECT_EQ(FileNameOf(url), "b 新");
    EXPECT_EQ(PathOnServer(url), "/a/b 新");
    EXPECT_EQ(PathOnServer("sftp://h/~/a%22"), "a\"");
    EXPECT_EQ(Encoded("b 新"), "b%20%E6%96%B0");
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
        task("<ID>x</ID><Items><Item><Source>https://h:1/a/b</Source><Target>/b</Target>"
             "<Credentials>own</Credentials></Item></Items>"),
        task("<ID>x</ID><Items><Item><Source>/a</Source><Target>FTP://h/b</Target></Item></Items>"),
        task("<ID>x</ID><Items><Item><Source>/a</Source><Target>ftp://u:p@h/b</Target></Item></Items>"),
        task("<ID>x</ID><Items><Item><Source>scp://h/b</Source><Target>/b</Target></Item></Items>"),
        task("<ID>x</ID><Items><Item><Source>http://h/b?c</Source><Target>/b</Target></Item></Items>"),
        task("<ID>x</ID><Items><Item><Source>http://h/</Source><Target>/b</Target></Item></Items>"),
        "<Transfer/>",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(task::SchemaTakes("transfer.xsd", text), ErrorOf(text).empty()) << text;
}

}  // namespace
}  // namespace rq::transfer

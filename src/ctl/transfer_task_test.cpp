#include "ctl/transfer_task.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <vector>

#include "base/paths.h"
#include "kit/temp_dir.h"

namespace rq::ctl {
namespace {

TEST(TransferTaskXml, SaysWhatWasSaid) {
    TransferOptions options;
    options.source = "/a & b";
    options.target = "/c";
    EXPECT_EQ(
        BuildTransferTaskXml("job-1", options),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TransferTask>\n  <ID>job-1</ID>\n"
        "  <Items><Item><Source>/a &amp; b</Source><Target>/c</Target></Item></Items>\n</TransferTask>\n");
    options.move = options.overwrite = options.md5 = options.sha256 = options.verify = options.manifest =
        true;
    options.rate_kBps = "12";
    options.expected = "ab";
    options.credentials = "own";
    EXPECT_EQ(
        BuildTransferTaskXml("job-1", options),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TransferTask>\n  <ID>job-1</ID>\n  <Mode>move</Mode>\n"
        "  <Overwrite>true</Overwrite>\n  <MD5>true</MD5>\n  <SHA256>true</SHA256>\n  <Verify>true</Verify>\n"
        "  <Manifest>true</Manifest>\n  <RateLimit_kBps>12</RateLimit_kBps>\n"
        "  <Items><Item><Source>/a &amp; b</Source><Target>/c</Target><MD5>ab</MD5>"
        "<Credentials>own</Credentials></Item></Items>\n</TransferTask>\n");
}

TEST(PrepareTransfer, LeavesPathsOfAnotherSystem) {
    const bool isWindows = std::filesystem::path::preferred_separator != '/';
    TransferOptions options;
    for (const char* name : isWindows ? std::vector{"/mnt/none/a", "/a"}
                                      : std::vector{"Z:\\media\\a", "z:/a", "\\\\server\\share\\a"}) {
        options.source = options.target = name;
        const auto prepared = PrepareTransfer(options);
        ASSERT_TRUE(prepared) << name;
        EXPECT_EQ(prepared->source, name);
        EXPECT_EQ(prepared->target, name);
    }
    for (const char* name :
         isWindows ? std::vector{"Z:\\none\\a", "//none/a"} : std::vector{"/none/a", "Z:", "Z:a", "\\a"}) {
        options.source = name;
        EXPECT_FALSE(PrepareTransfer(options)) << name;
    }
}

TEST(PrepareTransfer, MakesPathsAbsoluteAndLeavesUrls) {
    const kit::TempDir folder;
    folder.Write("a", "1");
    std::filesystem::create_directory(folder.Path() / "tree");
    std::filesystem::create_directory(folder.Path() / "there");
    const kit::ScopedDirectory here(folder.Path());
    const auto prepared = [](const std::string& source, const std::string& target, bool overwrite = false) {
        TransferOptions options;
        options.source = source;
        options.target = target;
        options.overwrite = overwrite;
        return PrepareTransfer(options);
    };
    const auto in = [&](const std::string& name) {
        return Utf8FromPath(PathFromUtf8(folder.Utf8(name)).make_preferred());
    };
    const auto copied = prepared("a", "b");
    ASSERT_TRUE(copied) << copied.error().message;
    EXPECT_EQ(copied->source, in("a"));
    EXPECT_EQ(copied->target, in("b"));
    EXPECT_EQ(prepared("tree", "new")->target, in("new"));
    EXPECT_EQ(prepared("tree", "there")->target, in("there"));
    EXPECT_EQ(prepared("http://h/x", "b")->source, "http://h/x");
    EXPECT_EQ(prepared("a", "ftp://h/x")->target, "ftp://h/x");
    EXPECT_FALSE(prepared("missing", "b"));
    EXPECT_FALSE(prepared("a", "a"));
    EXPECT_FALSE(prepared("a", "there"));
    EXPECT_FALSE(prepared("a", "nowhere/b"));
}

TEST(ReportTransfer, HasALineForEachFile) {
    using nlohmann::json;
    const json result = {
        {"kind", "transfer"},
        {"verifications", json::array()},
        {"outputs",
         {{{"first", "/b"}, {"second", "copied"}, {"size_bytes", 1258291u}, {"further_text", "md5:ab"}},
          {{"first", "/c"}, {"second", "renamed"}, {"size_bytes", 0u}, {"further_text", ""}}}}};
    EXPECT_EQ(ReportTransfer(result), "/b: copied, 1.2 MiB, md5:ab\n/c: renamed, 0.0 MiB\n");
    EXPECT_EQ(ReportTransfer(json()), "");
    EXPECT_EQ(ReportTransfer({{"kind", "transcode"}}), "");
}

}  // namespace
}  // namespace rq::ctl

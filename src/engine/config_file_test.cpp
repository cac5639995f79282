#include "engine/config_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST(ConfigFile, WhatIsPrintedReadsBackAsTheSame) {
    EngineSettings settings;
    settings.linkPort = 1;
    settings.stageFolder = "C:\\stage \"片\"";
    settings.durability = Durability::Process;
    settings.cancelGrace = std::chrono::seconds(77);
    settings.retention.events_max = 12345;
    settings.paths = PathMap::Make({{"/a 'b'", "Z:\\片 \"c\""}, {"Z:\\m", "/m"}}).value();
    const std::string text = ConfigText(settings);
    EngineSettings read;
    const auto done = ApplyConfig(text, "f", read);
    ASSERT_TRUE(done) << done.error().message;
    EXPECT_EQ(read.stageFolder, settings.stageFolder);
    EXPECT_EQ(read.durability, Durability::Process);
    EXPECT_EQ(read.paths.Rules(), settings.paths.Rules());
    EXPECT_EQ(ConfigText(read), text);
    EXPECT_NE(ConfigText(EngineSettings()), text);
}

TEST(ConfigFile, WhatItDoesNotNameStays) {
    EngineSettings settings;
    settings.httpPort = 5;
    ASSERT_TRUE(ApplyConfig("[limits]\ncancel_s = 3\n[store]\n", "f", settings));
    EXPECT_EQ(settings.httpPort, 5);
    EXPECT_EQ(settings.cancelGrace, std::chrono::seconds(3));
    EXPECT_EQ(settings.durability, Durability::Power);
}

TEST(ConfigFile, PathsAreATableOfPrefixes) {
    EngineSettings settings;
    ASSERT_TRUE(ApplyConfig("[paths.map]\n'Z:\\media' = '/mnt/media'\n\"/x\" = '/y'\n", "f", settings));
    EXPECT_EQ(settings.paths.Rules(), (std::vector<PathRule>{{"/x", "/y"}, {"Z:\\media", "/mnt/media"}}));
    const auto fault = [](std::string_view text) {
        EngineSettings unused;
        return ApplyConfig(text, "f", unused).error().message;
    };
    EXPECT_EQ(fault("[paths]\nmap = 1\n"), "f:2: map must be a table: { 'Z:\\media' = '/mnt/media' }");
    EXPECT_EQ(fault("[paths]\n\nmap = { '/a' = 1 }\n"),
              "f:3: map cannot be used: \"/a\" must have a text in quotes");
    EXPECT_EQ(fault("[paths]\nmap = { 'a' = '/b' }\n"),
              "f:2: map cannot be used: \"a\" is no absolute path: Z:\\folder, \\\\server\\share or /folder");
    EXPECT_THAT(fault("[paths]\nmap = { '/a' = '/b', '/a' = '/c' }\n"), StartsWith("f:2: "));
}

TEST(ConfigFile, AddressesToListenOnAreNoNames) {
    EngineSettings settings;
    ASSERT_TRUE(ApplyConfig("[engine]\nlisten = '192.0.2.7'\nhttp_listen = '::1'\n", "f", settings));
    EXPECT_EQ(settings.listen, "192.0.2.7");
    EXPECT_EQ(settings.httpListen, "::1");
    ASSERT_TRUE(ApplyConfig("[engine]\nlisten = ''\n", "f", settings));
    EXPECT_EQ(settings.listen, "");
    EXPECT_THAT(ApplyConfig("[engine]\nhttp_listen = 'node7'\n", "f", settings).error().message,
                HasSubstr("f:2: http_listen must be an IPv4 or IPv6 address, not a name, or empty"));
}

TEST(ConfigFile, RetryPoliciesAreForAllTypesAndForOne) {
    EngineSettings settings;
    const auto done = ApplyConfig(
        "[retry]\nattempts = 4\nerror_codes = [6, -5]\n[retry.tc]\nfirst_delay_s = 1\ndetail_codes = "
        "[0x84100014]\n"
        "[retry.20]\nstop_after = 0\n[retry.df]\nattempts = 1\n",
        "f", settings);
    ASSERT_TRUE(done) << done.error().message;
    const auto& retry = settings.retry;
    EXPECT_EQ(retry.standard.attempts, 4);
    EXPECT_EQ(retry.standard.errorCodes, (std::vector<std::uint32_t>{6, 0xFFFFFFFBu}));
    EXPECT_EQ(retry.For(1).attempts, 4);
    EXPECT_EQ(retry.For(1).firstDelay, std::chrono::seconds(1));
    EXPECT_EQ(retry.For(1).detailCodes, std::vector<std::uint32_t>{0x84100014});
    EXPECT_EQ(retry.For(20).stopAfter, 0);
    EXPECT_EQ(retry.For(3).firstDelay, std::chrono::seconds(10));
    // A deletion stays what it is: another attempt only when nothing can have been done.
    EXPECT_EQ(retry.For(7).attempts, 1);
    EXPECT_TRUE(retry.For(7).onlyUntouched);
    EXPECT_TRUE(retry.For(0).onlyUntouched);
    const std::string text = ConfigText(settings);
    EngineSettings read;
    const auto again = ApplyConfig(text, "f", read);
    ASSERT_TRUE(again) << again.error().message << "\n" << text;
    EXPECT_EQ(ConfigText(read), text);
    EXPECT_EQ(read.retry.For(1).detailCodes, retry.For(1).detailCodes);
    EXPECT_EQ(read.retry.For(7).attempts, 1);
}

TEST(ConfigFile, WhatIsPrintedAllowsRepetitionsWhereTheFileDid) {
    EngineSettings settings, read;
    ASSERT_TRUE(ApplyConfig("[retry.tf]\nonly_untouched = false\n", "f", settings));
    EXPECT_FALSE(settings.retry.For(0).onlyUntouched);
    ASSERT_TRUE(ApplyConfig(ConfigText(settings), "f", read));
    EXPECT_FALSE(read.retry.For(0).onlyUntouched);
    EXPECT_TRUE(read.retry.For(7).onlyUntouched);
}

TEST(ConfigFile, ANodeHasLimitsOfItsOwn) {
    kit::TempDir folder;
    EngineSettings settings;
    settings.node.volumes["media"] = {folder.Utf8("media \"片\""), 10240, ".mounted"};
    settings.node.volumes["scratch-2"] = {folder.Utf8("scratch"), 0, ""};
    settings.node.typeWorkers = {{0, 2}, {20, 1}};
    settings.node.memory_MiB = 4096;
    settings.node.passFor = std::chrono::seconds(5);
    const std::string text = ConfigText(settings);
    EngineSettings read;
    const auto done = ApplyConfig(text, "f", read);
    ASSERT_TRUE(done) << done.error().message << "\n" << text;
    EXPECT_EQ(ConfigText(read), text);
    EXPECT_EQ(read.node.typeWorkers, settings.node.typeWorkers);
    EXPECT_EQ(read.node.volumes.at("media").path, settings.node.volumes.at("media").path);
    EXPECT_EQ(read.node.volumes.at("media").free_MiB, 10240u);
    EXPECT_EQ(read.node.volumes.at("media").marker, ".mounted");
    EXPECT_EQ(read.node.memory_MiB, 4096u);
    EXPECT_EQ(read.node.passFor, std::chrono::seconds(5));
}

TEST(ConfigFile, EveryFaultNamesItsLine) {
    const struct {
        const char *text, *where, *what;
    } cases[] = {
        {"\n[engin]\n", "f:2: ", "[engine], [store]"},
        {"port = 1\n", "f:1: ", "\"port\" is not known"},
        {"engine = 1\n", "f:1: ", "must be a table"},
        {"[engine]\nport = 1\nprot = 2\n", "f:3: ", "\"prot\" is not a key of [engine]"},
        {"[engine]\nport = 65536\n", "f:2: ", "from 0 to 65535"},
        {"[engine]\nport = -1\n", "f:2: ", "from 0 to 65535"},
        {"[engine]\nport = \"8083\"\n", "f:2: ", "whole number"},
        {"[engine]\nport = 1.0\n", "f:2: ", "whole number"},
        {"[engine]\nstage = 1\n", "f:2: ", "in quotes"},
        {"[engine]\nport = 1\n\nport = 2\n", "f:4: ", ""},
        {"[store]\ndurability = \"disk\"\n", "f:2: ", "\"power\" or \"process\""},
        {"[limits]\ncancel_s = 0\n", "f:2: ", "seconds from 1"},
        {"[engine]\nport = \n", "f:2: ", ""},
        {"[retry]\nattempts = 0\n", "f:2: ", "from 1 to 100"},
        {"[retry]\nonly_untouched = false\n", "f:2: ", "is not a key of [retry]"},
        {"[retry]\nerror_codes = [\"x\"]\n", "f:2: ", "list of codes"},
        {"[retry.xx]\n", "f:1: ", "neither a key of [retry] nor a type's code or number"},
        {"[retry.tc]\nattempt = 1\n", "f:2: ", "\"attempt\" is not a key"},
        {"[retry.tc]\nonly_untouched = 1\n", "f:2: ", "true or false"},
        {"[node]\nmemory_mib = -1\n", "f:2: ", "from 0 to"},
        {"[node]\npass_s = 1.5\n", "f:2: ", "seconds from 0"},
        {"types = 1\n", "f:1: ", "must be a table"},
        {"[types]\nmax_workers = 2\n", "f:2: ", "[types.tc]"},
        {"[types.xx]\n", "f:1: ", "neither a type's code nor its number"},
        {"[types.tf]\nmax_workers = 0\n", "f:2: ", "rqctl drain"},
        {"[types.tf]\nworkers = 1\n", "f:2: ", "there is max_workers"},
        {"[volumes.m]\nfree_mib = 1\n", "f:1: ", "has no path"},
        {"[volumes.m]\npath = \"media\"\n", "f:2: ", "absolute path"},
        {"[volumes.m]\npath = \"/media/../x\"\n", "f:2: ", "without"},
        {"[volumes.m]\npath = \"\"\n", "f:2: ", "not empty"},
        {"[volumes.m]\nmarker = \"../x\"\n", "f:2: ", "a path on the volume"},
        {"[volumes.m]\nfree_mib = -5\n", "f:2: ", "from 0 to"},
        {"[volumes.m]\nfree_gib = 5\n", "f:2: ", "path, free_mib, marker"},
        {"[volumes.\"a b\"]\n", "f:1: ", "letters, digits"},
        {"[engine]\nstage = \"\xff\"\n", "f:2: ", ""},
    };
    for (const auto& one : cases) {
        EngineSettings settings;
        const auto done = ApplyConfig(one.text, "f", settings);
        ASSERT_FALSE(done) << one.text;
        EXPECT_THAT(done.error().message, StartsWith(one.where)) << one.text;
        EXPECT_THAT(done.error().message, HasSubstr(one.what)) << one.text;
    }
}

TEST(ConfigFile, AFileThatIsNotThereIsNamed) {
    kit::TempDir folder;
    EngineSettings settings;
    const auto done = ReadConfig(folder.Utf8("none.toml"), settings);
    ASSERT_FALSE(done);
    EXPECT_THAT(done.error().message, HasSubstr("none.toml"));
}

// The documentation shows the file as it is printed.
TEST(ConfigFile, EveryKeyIsDocumented) {
    const std::string page = kit::ReadText(PathFromUtf8(RQ_SOURCE_DIR "/docs/engine.md"));
    EXPECT_GE(ConfigKeys().size(), 20u);
    EXPECT_NE(page.find("```toml\n" + ConfigText(EngineSettings()) + "```\n"), std::string::npos)
        << "docs/engine.md should have:\n"
        << ConfigText(EngineSettings());
}

}  // namespace
}  // namespace rq::engine

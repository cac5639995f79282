#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "engine/spool.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

// An engine without free descriptors reads nothing for a while; what its workers left is not damaged by that.
TEST(SpoolOnLinux, WhatCannotBeReadNowStays) {
    kit::TempDir folder;
    EngineLog log("");
    Spool spool(folder.Utf8(), log);
    folder.Write("spool/a.final", "whatever");
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto read = spool.Read("a");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(read);
    const auto file = folder.Path() / "spool/a.final";
    EXPECT_TRUE(std::filesystem::exists(file));
    spool.GiveUp("a");
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(std::filesystem::exists(folder.Path() / "spool/a.bad"));
}

}  // namespace
}  // namespace rq::engine

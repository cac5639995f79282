#include "platform/private_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "kit/temp_dir.h"
#include "platform/files.h"

namespace rq::platform {
namespace {

using testing::HasSubstr;

// Two texts, for the two systems' remedies.
testing::Matcher<std::string> Says(const std::string& one, const std::string& other) {
    return testing::AnyOf(HasSubstr(one), HasSubstr(other));
}

TEST(PrivateCheck, WhatIsMadePrivateIsPrivate) {
    const kit::TempDir dir;
    ASSERT_TRUE(CreatePrivateFolder(dir.Utf8("folder 夹")));
    ASSERT_TRUE(CreatePrivateFile(dir.Utf8("folder 夹/file"), "secret"));
    EXPECT_EQ(FolderPrivacyTrouble(dir.Utf8("folder 夹")), std::nullopt);
    EXPECT_EQ(FilePrivacyTrouble(dir.Utf8("folder 夹/file")), std::nullopt);
    ASSERT_TRUE(ReplaceWholeFile(dir.Utf8("folder 夹/file"), "new", true));
    EXPECT_EQ(FilePrivacyTrouble(dir.Utf8("folder 夹/file")), std::nullopt);
}

TEST(PrivateCheck, WhatOthersMayUseIsToldWithARemedy) {
    const kit::TempDir dir;
    dir.Write("file", "secret");
    std::filesystem::create_directory(dir.Path() / "folder");
    using std::filesystem::perms;
    std::filesystem::permissions(dir.Path() / "file", perms::owner_all | perms::others_read);
    std::filesystem::permissions(dir.Path() / "folder", perms::owner_all | perms::others_read);
    const auto file = FilePrivacyTrouble(dir.Utf8("file"));
    const auto folder = FolderPrivacyTrouble(dir.Utf8("folder"));
    ASSERT_TRUE(file);
    ASSERT_TRUE(folder);
    EXPECT_THAT(*file, Says("chmod 600 '", "icacls \""));
    EXPECT_THAT(*folder, Says("chmod 700 '", "icacls \""));
}

TEST(PrivateCheck, WhatIsNoFileOrNotThereIsATrouble) {
    const kit::TempDir dir;
    EXPECT_TRUE(FilePrivacyTrouble(dir.Utf8("missing")));
    EXPECT_TRUE(FolderPrivacyTrouble(dir.Utf8("missing")));
    ASSERT_TRUE(CreatePrivateFolder(dir.Utf8("folder")));
    EXPECT_THAT(FilePrivacyTrouble(dir.Utf8("folder")).value_or(""), HasSubstr("no regular file"));
    ASSERT_TRUE(CreatePrivateFile(dir.Utf8("file"), "secret"));
    std::error_code code;
    std::filesystem::create_symlink(dir.Path() / "file", dir.Path() / "link", code);
    if (code) GTEST_SKIP() << "no links here: " << code.message();
    EXPECT_THAT(FilePrivacyTrouble(dir.Utf8("link")).value_or(""), HasSubstr("is a link"));
    std::filesystem::create_directory_symlink(dir.Path() / "folder", dir.Path() / "way", code);
    EXPECT_EQ(FolderPrivacyTrouble(dir.Utf8("way")), std::nullopt);
}

}  // namespace
}  // namespace rq::platform

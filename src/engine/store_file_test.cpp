#include "engine/store_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "engine/store.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class StoreFileTest : public testing::Test {
  protected:
    StoreFileTest() : m_path(m_folder.Utf8("store.db")) {}

    std::unique_ptr<Store> Open() {
        auto store = Store::Open(m_path);
        EXPECT_TRUE(store) << store.error().message;
        return store ? std::move(*store) : nullptr;
    }
    static std::int64_t Tasks(const std::string& path) {
        auto database = Database::Open(path).value();
        Statement query = database->Prepare("SELECT count(*) FROM tasks");
        return query.Row() ? query.Number() : -1;
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_folder.Path()))
            names.push_back(Utf8FromPath(entry.path().filename()));
        return names;
    }

    kit::TempDir m_folder;
    std::string m_path;
};

TEST_F(StoreFileTest, AnEmptyFileIsNoNewStore) {
    m_folder.Write("store.db", "");
    const auto store = Store::Open(m_path);
    ASSERT_FALSE(store);
    EXPECT_THAT(store.error().message, testing::AllOf(HasSubstr(m_path), HasSubstr("empty file")));
    EXPECT_EQ(fs::file_size(PathFromUtf8(m_path)), 0u);
}

TEST_F(StoreFileTest, ANewStoreHasItsNameOnlyWhenItIsWhole) {
    m_folder.Write("store.db.new", "what a process left that was ended meanwhile");
    ASSERT_TRUE(MakeStoreFile(m_path));
    EXPECT_THAT(Files(), testing::ElementsAre("store.db"));
    EXPECT_EQ(Tasks(m_path), 0);
    Open()->Submit({3, "", "<T/>"}).value();
    ASSERT_TRUE(MakeStoreFile(m_path));
    EXPECT_EQ(Tasks(m_path), 1);
}

TEST_F(StoreFileTest, ACopyHasWhatCameBetweenItsSteps) {
    const auto store = Open();
    for (int i = 0; i < 50; ++i) store->Submit({3, "", std::string(4000, 'x')}).value();
    auto database = Database::Open(m_path).value();
    auto copy = StoreCopy::Begin(*database, m_folder.Utf8("copy.db")).value();
    ASSERT_FALSE(copy->Step(3).value());
    EXPECT_FALSE(fs::exists(m_folder.Path() / "copy.db"));
    store->Submit({3, "", "<T/>"}).value();
    while (!copy->Step(3).value()) {
    }
    copy.reset();
    EXPECT_EQ(Tasks(m_folder.Utf8("copy.db")), 51);
    EXPECT_TRUE(kit::IsOwnersAlone(m_folder.Path() / "copy.db"));
    EXPECT_FALSE(fs::exists(m_folder.Path() / "copy.db.part"));
}

TEST_F(StoreFileTest, ACopyReplacesNothingAndLeavesNoHalf) {
    const auto store = Open();
    auto database = Database::Open(m_path).value();
    m_folder.Write("there.db", "precious");
    EXPECT_FALSE(StoreCopy::Begin(*database, m_folder.Utf8("there.db")));
    EXPECT_FALSE(StoreCopy::Begin(*database, m_folder.Utf8("nowhere/copy.db")));
    StoreCopy::Begin(*database, m_folder.Utf8("half.db")).value()->Step(1).value();
    EXPECT_EQ(kit::ReadBytes(m_folder.Path() / "there.db"), "precious");
    for (const auto& name : Files()) EXPECT_THAT(name, testing::Not(HasSubstr("half")));
}

TEST_F(StoreFileTest, AStoreIsCopiedBeforeItsSchemaChanges) {
    Open()->Submit({3, "", "<T/>"}).value();
    ASSERT_TRUE(CopyBeforeMigration(*Database::Open(m_path).value()));
    EXPECT_FALSE(fs::exists(m_folder.Path() / "store.db.schema1")) << "nothing is to be changed";
    {
        auto database = Database::Open(m_path).value();
        ASSERT_TRUE(database->Execute("PRAGMA user_version = 1"));
        ASSERT_TRUE(CopyBeforeMigration(*database));
        ASSERT_TRUE(CopyBeforeMigration(*database)) << "a second try has the first one's copy";
    }
    EXPECT_EQ(Tasks(m_folder.Utf8("store.db.schema1")), 1);
}

TEST_F(StoreFileTest, FailuresNameTheFileAndARemedy) {
    m_folder.Write("store.db", std::string(8192, 'x'));
    const auto store = Store::Open(m_path);
    ASSERT_FALSE(store);
    EXPECT_THAT(store.error().message, testing::AllOf(HasSubstr(m_path), HasSubstr("backup")));
    const auto missing = Database::Open(m_folder.Utf8("nowhere/store.db"));
    ASSERT_FALSE(missing);
    EXPECT_THAT(missing.error().message, testing::AllOf(HasSubstr("nowhere"), HasSubstr("right to write")));
}

}  // namespace
}  // namespace rq::engine

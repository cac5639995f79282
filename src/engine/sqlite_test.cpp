#include "engine/sqlite.h"

#include <gtest/gtest.h>

#include "engine/sync_probe.h"
#include "kit/files.h"
#include "kit/temp_dir.h"

namespace rq::engine {
namespace {

class SqliteTest : public testing::Test {
  protected:
    SqliteTest() : m_database(Database::Open(m_folder.Utf8("a.db")).value()) {
        EXPECT_TRUE(m_database->Execute("CREATE TABLE t (a INTEGER UNIQUE, b TEXT, c REAL)"));
    }
    std::int64_t Count() {
        Statement query = m_database->Prepare("SELECT count(*) FROM t");
        EXPECT_TRUE(query.Row());
        return query.Number();
    }

    kit::TempDir m_folder;
    std::unique_ptr<Database> m_database;
};

TEST_F(SqliteTest, ValuesComeBackAsTheyWent) {
    const std::string text("zero\0byte 片", 13);
    m_database->Prepare("INSERT INTO t VALUES (?1, ?2, ?3)")
        .Bind(std::int64_t{1} << 62)
        .Bind(text)
        .Bind(0.5)
        .Run();
    m_database->Prepare("INSERT INTO t VALUES (?1, ?2, ?3)")
        .Bind(std::optional<std::int64_t>{})
        .Bind(std::string_view{})
        .BindNull()
        .Run();
    Statement rows = m_database->Prepare("SELECT a, b, c, c FROM t ORDER BY rowid");
    ASSERT_TRUE(rows.Row());
    EXPECT_EQ(rows.Number(), std::int64_t{1} << 62);
    EXPECT_EQ(rows.Text(), text);
    EXPECT_EQ(rows.Real(), 0.5);
    ASSERT_TRUE(rows.Row());
    EXPECT_EQ(rows.OptionalNumber(), std::nullopt);
    EXPECT_EQ(rows.OptionalText(), "");
    EXPECT_EQ(rows.OptionalText(), std::nullopt);
    EXPECT_EQ(rows.OptionalNumber(), std::nullopt);
    EXPECT_FALSE(rows.Row());
    EXPECT_FALSE(m_database->Failed());
}

TEST_F(SqliteTest, ATransactionWithoutCommitLeavesNothing) {
    {
        Transaction transaction(*m_database);
        m_database->Execute("INSERT INTO t VALUES (1, '', 0)");
    }
    EXPECT_EQ(Count(), 0);
    Transaction transaction(*m_database);
    m_database->Execute("INSERT INTO t VALUES (1, '', 0)");
    ASSERT_TRUE(transaction.Commit());
    EXPECT_EQ(Count(), 1);
}

TEST_F(SqliteTest, TheFirstFailureIsReportedAndNothingIsCommitted) {
    Transaction transaction(*m_database);
    m_database->Execute("INSERT INTO t VALUES (1, '', 0)");
    m_database->Execute("INSERT INTO t VALUES (1, '', 0)");
    m_database->Execute("INSERT INTO nowhere VALUES (1)");
    const auto done = transaction.Commit();
    ASSERT_FALSE(done);
    EXPECT_NE(done.error().message.find("UNIQUE"), std::string::npos);
    EXPECT_EQ(Count(), 0);
    EXPECT_FALSE(m_database->Failed());
}

TEST_F(SqliteTest, SyncIsRelaxedForATransactionOnly) {
    const auto mode = [&] {
        Statement query = m_database->Prepare("PRAGMA synchronous");
        EXPECT_TRUE(query.Row());
        return query.Number();
    };
    EXPECT_EQ(mode(), 2);  // FULL
    {
        Transaction transaction(*m_database, Transaction::Sync::Relaxed);
        EXPECT_EQ(mode(), 1);  // NORMAL
        ASSERT_TRUE(transaction.Commit());
    }
    EXPECT_EQ(mode(), 2);
    { Transaction transaction(*m_database, Transaction::Sync::Relaxed); }
    EXPECT_EQ(mode(), 2);
}

class SqliteSyncTest : public testing::Test {
  protected:
    SqliteSyncTest() : m_database(Database::Open(m_folder.Utf8("a.db")).value()) {
        EXPECT_TRUE(m_database->Execute("CREATE TABLE t (a TEXT)"));
    }
    void Insert(const char* text, Transaction::Sync sync) {
        Transaction transaction(*m_database, sync);
        m_database->Prepare("INSERT INTO t VALUES (?1)").Bind(std::string_view(text)).Run();
        ASSERT_TRUE(transaction.Commit());
    }

    SyncProbe m_probe;
    kit::TempDir m_folder;
    std::unique_ptr<Database> m_database;
};

TEST_F(SqliteSyncTest, SharedCommitsAreSyncedTogether) {
    int asked = 0;
    m_database->SetOnOwed([&] { ++asked; });
    const int before = m_probe.Syncs();
    for (int i = 0; i < 5; ++i) Insert("some", Transaction::Sync::Shared);
    EXPECT_EQ(m_probe.Syncs(), before);
    EXPECT_TRUE(m_database->Owes());
    EXPECT_EQ(asked, 1);
    ASSERT_TRUE(m_database->Sync());
    EXPECT_EQ(m_probe.Syncs(), before + 1);
    EXPECT_FALSE(m_database->Owes());
    ASSERT_TRUE(m_database->Sync());
    EXPECT_EQ(m_probe.Syncs(), before + 1) << "nothing was owed";
    Insert("one", Transaction::Sync::Durable);
    EXPECT_EQ(m_probe.Syncs(), before + 2);
}

// After a failed sync the system may call the next one a success, and have dropped the pages.
TEST_F(SqliteSyncTest, AfterAFailedSyncTheLogIsCopied) {
    Insert("what was owed", Transaction::Sync::Shared);
    m_probe.SetFailing(true);
    EXPECT_FALSE(m_database->Sync());
    EXPECT_FALSE(m_database->Sync());
    EXPECT_TRUE(m_database->Owes());
    const auto file = m_folder.Path() / "a.db";
    EXPECT_EQ(kit::ReadBytes(file).find("what was owed"), std::string::npos);
    m_probe.SetFailing(false);
    ASSERT_TRUE(m_database->Sync());
    EXPECT_FALSE(m_database->Owes());
    EXPECT_NE(kit::ReadBytes(file).find("what was owed"), std::string::npos);
}

TEST_F(SqliteSyncTest, WhereThePowerIsNotToBeSurvivedNothingIsSynced) {
    const auto database = Database::Open(m_folder.Utf8("b.db"), Durability::Process).value();
    Statement mode = database->Prepare("PRAGMA synchronous");
    ASSERT_TRUE(mode.Row());
    EXPECT_EQ(mode.Number(), 1);  // NORMAL
    ASSERT_TRUE(database->Execute("CREATE TABLE t (a TEXT)"));
    const int before = m_probe.Syncs();
    for (const auto sync : {Transaction::Sync::Durable, Transaction::Sync::Shared}) {
        Transaction transaction(*database, sync);
        database->Execute("INSERT INTO t VALUES ('some')");
        ASSERT_TRUE(transaction.Commit());
    }
    EXPECT_FALSE(database->Owes());
    ASSERT_TRUE(database->Sync());
    EXPECT_EQ(m_probe.Syncs(), before);
}

TEST_F(SqliteTest, WalAndForeignKeysAreOn) {
    Statement journal = m_database->Prepare("PRAGMA journal_mode");
    ASSERT_TRUE(journal.Row());
    EXPECT_EQ(journal.Text(), "wal");
    Statement keys = m_database->Prepare("PRAGMA foreign_keys");
    ASSERT_TRUE(keys.Row());
    EXPECT_EQ(keys.Number(), 1);
}

TEST_F(SqliteTest, AFolderThatIsNotThereIsNamed) {
    const auto database = Database::Open(m_folder.Utf8("no/such/a.db"));
    ASSERT_FALSE(database);
    EXPECT_NE(database.error().message.find("no/such/a.db"), std::string::npos);
}

}  // namespace
}  // namespace rq::engine

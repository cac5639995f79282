// A thin wrapper over the SQLite C interface: a connection, prepared statements that are kept for reuse, and
// transactions. The first failure since the transaction began is remembered by the connection; everything
// after it does nothing, and Commit() reports it. So a caller writes its statements one after the other and
// tests once.
//
// One thread at a time. A Statement and a Transaction must not outlive their Database. Texts are UTF-8.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/result.h"
#include "engine/settings.h"

struct sqlite3;
struct sqlite3_stmt;

namespace rq::engine {

class Statement;

class Database {
  public:
    // Opens or makes the file and sets what every connection of ours has: WAL, foreign keys, 5 s patience
    // with other connections, and syncs at durable commits unless only the process is to be survived.
    static Result<std::unique_ptr<Database>> Open(const std::string& path,
                                                  Durability durability = Durability::Power);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // One or more statements without values.
    bool Execute(const char* sql);
    // The prepared statement for this text, made once. Only one user of a text at a time.
    Statement Prepare(std::string_view sql);
    std::int64_t LastRowId() const;
    // Rows that the last INSERT, UPDATE or DELETE changed.
    std::int64_t Changes() const;

    const std::string& Path() const { return m_path; }
    bool Failed() const { return m_error.has_value(); }
    // The remembered failure, which is then forgotten.
    Error TakeError();

    // Whether a commit of Sync::Shared waits for Sync().
    bool Owes() const { return m_owes; }
    // Called when one begins to.
    void SetOnOwed(std::function<void()> onOwed) { m_onOwed = std::move(onOwed); }
    // Everything that has been committed is on the disk; after a failure it is not, and still owed.
    Result<void> Sync();

  private:
    friend class Statement;
    friend class StoreCopy;
    friend class Transaction;
    Database(sqlite3* handle, std::string path, Durability durability)
        : m_handle(handle), m_path(std::move(path)), m_durability(durability) {}
    void Remember(const char* doing);
    void Owe();
    // What makes up for a sync of the log that failed.
    Result<void> CopyLog();

    sqlite3* m_handle;
    const std::string m_path;
    const Durability m_durability;
    std::unordered_map<std::string, sqlite3_stmt*> m_statements;
    std::optional<Error> m_error;
    std::function<void()> m_onOwed;
    bool m_owes = false;
    bool m_logIsUnsure = false;  // a sync of it has failed
};

// A prepared statement in use. Values are bound in order; Row() steps to the next row. Reset when it goes
// away.
class Statement {
  public:
    Statement(Database& database, sqlite3_stmt* handle) : m_database(&database), m_handle(handle) {}
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&&) = delete;

    Statement& Bind(std::int64_t value);
    Statement& Bind(double value);
    Statement& Bind(std::string_view text);
    Statement& BindNull();
    template <class T>
    Statement& Bind(const std::optional<T>& value) {
        return value ? Bind(*value) : BindNull();
    }

    // True when there is a row to read; false at the end and on a failure.
    bool Row();
    // For statements without rows.
    bool Run();

    // The next column of the current row, from left to right.
    std::int64_t Number();
    double Real();
    std::string Text();
    std::optional<std::int64_t> OptionalNumber();
    std::optional<std::string> OptionalText();

  private:
    bool Check(int code);
    bool NextIsNull() const;

    Database* m_database;
    sqlite3_stmt* m_handle;  // null when preparing failed
    int m_bound = 0;
    int m_column = 0;
};

// BEGIN IMMEDIATE ... COMMIT; rolled back when it goes away without Commit.
class Transaction {
  public:
    // Durable: the commit is on the disk when Commit returns. Relaxed: it survives the end of this process,
    // and may be lost with the machine's power; for what is only good to know. Shared: relaxed until the next
    // Database::Sync, which whoever tells others of it calls before; so several share one.
    enum class Sync { Durable, Shared, Relaxed };

    explicit Transaction(Database& database, Sync sync = Sync::Durable);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    Result<void> Commit();

  private:
    void End();

    Database& m_database;
    const bool m_shared;
    bool m_relaxed;
    bool m_open;
};

}  // namespace rq::engine

#include "engine/sqlite.h"

#include <sqlite3.h>

#include <utility>

namespace rq::engine {

namespace {

// What somebody can do about a failure of this kind; empty when nothing is known to help.
std::string RemedyFor(int code) {
    switch (code & 0xFF) {
        case SQLITE_FULL:
            return "; free space on its disk";
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
        case SQLITE_CANTOPEN:
            return "; the engine's user needs the right to write the file and its folder";
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "; another program holds it open: end that one";
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return "; the file is damaged: end the engine, put the file and those beside it (-wal, -shm) "
                   "aside, and copy a "
                   "backup into its place";
        case SQLITE_IOERR:
            return "; the disk refused: look at it and at the system's log";
        default:
            return "";
    }
}

}  // namespace

Result<std::unique_ptr<Database>> Database::Open(const std::string& path, Durability durability) {
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    std::unique_ptr<Database> database(new Database(handle, path, durability));
    if (code != SQLITE_OK) {
        const std::string why = handle != nullptr ? sqlite3_errmsg(handle) : "out of memory";
        return Fail(path + ": the store cannot be opened: " + why + RemedyFor(code));
    }
    // SQLite falls back to reading when it may not write.
    if (sqlite3_db_readonly(handle, "main") == 1)
        return Fail(path + ": the store cannot be written" + RemedyFor(SQLITE_READONLY));
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, 5000);
    database->Execute("PRAGMA journal_mode = WAL");
    database->Execute("PRAGMA foreign_keys = ON");
    database->Execute(durability == Durability::Power ? "PRAGMA synchronous = FULL"
                                                      : "PRAGMA synchronous = NORMAL");
    database->Execute("PRAGMA trusted_schema = OFF");
    if (database->Failed()) return database->TakeError();
    return database;
}

Database::~Database() {
    for (const auto& entry : m_statements) sqlite3_finalize(entry.second);
    sqlite3_close(m_handle);
}

bool Database::Execute(const char* sql) {
    if (Failed()) return false;
    if (sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    Remember(sql);
    return false;
}

Statement Database::Prepare(std::string_view sql) {
    if (Failed()) return {*this, nullptr};
    const auto found = m_statements.find(std::string(sql));
    if (found != m_statements.end()) return {*this, found->second};
    sqlite3_stmt* handle = nullptr;
    const int code = sqlite3_prepare_v3(m_handle, sql.data(), static_cast<int>(sql.size()),
                                        SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
    if (code != SQLITE_OK) {
        Remember(std::string(sql).c_str());
        return {*this, nullptr};
    }
    m_statements.emplace(sql, handle);
    return {*this, handle};
}

std::int64_t Database::LastRowId() const {
    return sqlite3_last_insert_rowid(m_handle);
}

std::int64_t Database::Changes() const {
    return sqlite3_changes64(m_handle);
}

Error Database::TakeError() {
    Error error = m_error.value_or(Fail("no error"));
    m_error.reset();
    return error;
}

void Database::Owe() {
    if (!std::exchange(m_owes, true) && m_onOwed) m_onOwed();
}

Result<void> Database::Sync() {
    if (!m_owes) return {};
    if (!m_logIsUnsure) {
        sqlite3_file* log = nullptr;
        sqlite3_file_control(m_handle, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
        m_logIsUnsure = log == nullptr || log->pMethods == nullptr ||
                        log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) != SQLITE_OK;
    }
    if (m_logIsUnsure) {
        if (auto copied = CopyLog(); !copied) return copied;
    }
    m_owes = m_logIsUnsure = false;
    return {};
}

// The system may have dropped what it could not write, and call the next sync of the log a success: what the
// log holds is copied into the file, which is synced.
Result<void> Database::CopyLog() {
    m_error.reset();
    std::int64_t left = 1;
    {
        Statement copy = Prepare("PRAGMA wal_checkpoint(FULL)");
        if (copy.Row()) {
            const bool isBusy = copy.Number() != 0;
            const auto all = copy.Number();
            left = isBusy ? 1 : all - copy.Number();
        }
    }
    if (Failed()) return TakeError();
    if (left != 0) return Fail(m_path + ": SQLite: the log could not be synced, and is in use");
    return {};
}

void Database::Remember(const char* doing) {
    if (m_error) return;
    m_error = Fail(m_path + ": SQLite: " + sqlite3_errmsg(m_handle) +
                   RemedyFor(sqlite3_extended_errcode(m_handle)) + " (in: " + doing + ")");
}

Statement::Statement(Statement&& other) noexcept
    : m_database(other.m_database),
      m_handle(other.m_handle),
      m_bound(other.m_bound),
      m_column(other.m_column) {
    other.m_handle = nullptr;
}

Statement::~Statement() {
    if (m_handle == nullptr) return;
    sqlite3_reset(m_handle);
    sqlite3_clear_bindings(m_handle);
}

bool Statement::Check(int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return true;
    m_database->Remember(sqlite3_sql(m_handle));
    return false;
}

Statement& Statement::Bind(std::int64_t value) {
    if (m_handle != nullptr) Check(sqlite3_bind_int64(m_handle, ++m_bound, value));
    return *this;
}

Statement& Statement::Bind(double value) {
    if (m_handle != nullptr) Check(sqlite3_bind_double(m_handle, ++m_bound, value));
    return *this;
}

Statement& Statement::Bind(std::string_view text) {
    if (m_handle != nullptr) {
        const char* bytes = text.data() != nullptr ? text.data() : "";
        Check(sqlite3_bind_text64(m_handle, ++m_bound, bytes, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
    }
    return *this;
}

Statement& Statement::BindNull() {
    if (m_handle != nullptr) Check(sqlite3_bind_null(m_handle, ++m_bound));
    return *this;
}

bool Statement::Row() {
    if (m_handle == nullptr || m_database->Failed()) return false;
    m_column = 0;
    const int code = sqlite3_step(m_handle);
    return Check(code) && code == SQLITE_ROW;
}

bool Statement::Run() {
    if (m_handle == nullptr || m_database->Failed()) return false;
    return Check(sqlite3_step(m_handle));
}

bool Statement::NextIsNull() const {
    return sqlite3_column_type(m_handle, m_column) == SQLITE_NULL;
}

std::int64_t Statement::Number() {
    return sqlite3_column_int64(m_handle, m_column++);
}

double Statement::Real() {
    return sqlite3_column_double(m_handle, m_column++);
}

std::string Statement::Text() {
    const auto* bytes = sqlite3_column_text(m_handle, m_column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(m_handle, m_column++));
    return bytes != nullptr ? std::string(reinterpret_cast<const char*>(bytes), size) : std::string();
}

std::optional<std::int64_t> Statement::OptionalNumber() {
    if (NextIsNull()) {
        ++m_column;
        return std::nullopt;
    }
    return Number();
}

std::optional<std::string> Statement::OptionalText() {
    if (NextIsNull()) {
        ++m_column;
        return std::nullopt;
    }
    return Text();
}

Transaction::Transaction(Database& database, Sync sync)
    : m_database(database),
      m_shared(sync == Sync::Shared && database.m_durability == Durability::Power),
      m_relaxed(sync != Sync::Durable && database.m_durability == Durability::Power),
      m_open(false) {
    m_database.m_error.reset();
    // In WAL mode a commit syncs with FULL and does not with NORMAL; it can be switched between transactions
    // only.
    if (m_relaxed) m_database.Execute("PRAGMA synchronous = NORMAL");
    m_open = m_database.Execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    End();
}

Result<void> Transaction::Commit() {
    if (m_open && !m_database.Failed() && m_database.Execute("COMMIT")) m_open = false;
    if (!m_database.Failed()) {
        End();
        if (m_shared) m_database.Owe();
        return {};
    }
    Error error = m_database.TakeError();
    End();
    return error;
}

void Transaction::End() {
    // Whatever happens here is not the caller's: an open transaction is rolled back, the sync mode is put
    // back.
    m_database.m_error.reset();
    if (m_open) m_database.Execute("ROLLBACK");
    if (m_relaxed) m_database.Execute("PRAGMA synchronous = FULL");
    m_database.m_error.reset();
    m_open = false;
    m_relaxed = false;
}

}  // namespace rq::engine

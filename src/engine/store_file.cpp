#include "engine/store_file.h"

#include <sqlite3.h>

#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "engine/store.h"
#include "platform/files.h"

namespace rq::engine {

namespace fs = std::filesystem;

namespace {

void Remove(const std::string& path) {
    std::error_code ignored;
    for (const char* ending : {"", "-wal", "-shm", "-journal"})
        fs::remove(PathFromUtf8(path + ending), ignored);
}

Result<void> Rename(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::rename(PathFromUtf8(from), PathFromUtf8(to), error);
    if (error) return Fail(from + " cannot be renamed to " + to + ": " + error.message());
    return {};
}

}  // namespace

Result<void> MakeStoreFile(const std::string& path) {
    std::error_code missing;
    const auto size = fs::file_size(PathFromUtf8(path), missing);
    if (!missing && size == 0)
        return Fail(
            path +
            ": the store is an empty file, so its tasks are lost; copy a backup into its place, or remove "
            "the file and those beside it (-wal, -shm) to begin with an empty store");
    if (!missing || fs::exists(PathFromUtf8(path), missing)) return {};
    // Under its name there is either no store or a whole one, whenever the process ends.
    const std::string made = path + ".new";
    Remove(made);
    platform::OsError error;  // what the database makes beside its file has the rights of that
    if (!platform::CreatePrivateFile(made, "", &error)) return Fail(error.message);
    {
        auto database = Database::Open(made);
        if (!database) return database.error();
        if (auto migrated = MigrateSchema(**database); !migrated) return migrated;
    }
    Remove(path);  // what an earlier store may have left beside it
    return Rename(made, path);
}

Result<void> CopyBeforeMigration(Database& database) {
    std::int64_t version = 0;
    {
        Statement query = database.Prepare("PRAGMA user_version");
        if (query.Row()) version = query.Number();
    }
    if (database.Failed()) return database.TakeError();
    if (version == 0 || version >= kSchemaVersion) return {};
    const std::string copy = database.Path() + ".schema" + std::to_string(version);
    auto copying = StoreCopy::Begin(database, copy, StoreCopy::IfThere::Replace);
    if (!copying) return copying.error();
    if (auto done = (*copying)->Step(-1); !done)
        return Fail("the store is not migrated, since it cannot be copied first: " + done.error().message);
    return {};
}

Result<std::unique_ptr<StoreCopy>> StoreCopy::Begin(Database& from, std::string path, IfThere ifThere) {
    std::unique_ptr<StoreCopy> copy(new StoreCopy(std::move(path), ifThere));
    if (auto opened = copy->Open(from); !opened) return opened.error();
    return copy;
}

Result<void> StoreCopy::Open(Database& from) {
    std::error_code unknown;
    if (m_ifThere == IfThere::Refuse && fs::exists(PathFromUtf8(m_path), unknown))
        return Fail(m_path + ": there is a file already");
    Remove(PartName());
    platform::OsError error;
    if (!platform::CreatePrivateFile(PartName(), "", &error)) return Fail(error.message);
    auto target = Database::Open(PartName());
    if (!target) return target.error();
    m_target = std::move(*target);
    m_copy = sqlite3_backup_init(m_target->m_handle, "main", from.m_handle, "main");
    if (m_copy == nullptr) return Fail(PartName() + ": " + sqlite3_errmsg(m_target->m_handle));
    return {};
}

StoreCopy::~StoreCopy() {
    if (m_copy != nullptr) sqlite3_backup_finish(m_copy);
    m_target.reset();
    if (!m_done) Remove(PartName());
}

Result<bool> StoreCopy::Step(int pages) {
    const int code = sqlite3_backup_step(m_copy, pages);
    if (code == SQLITE_OK || code == SQLITE_BUSY || code == SQLITE_LOCKED) return false;
    if (code != SQLITE_DONE) return Fail(PartName() + ": " + sqlite3_errstr(code));
    if (auto concluded = Conclude(); !concluded) return concluded.error();
    return true;
}

Result<void> StoreCopy::Conclude() {
    const int code = sqlite3_backup_finish(std::exchange(m_copy, nullptr));
    if (code != SQLITE_OK) return Fail(PartName() + ": " + sqlite3_errstr(code));
    std::string verdict;
    {
        Statement check = m_target->Prepare("PRAGMA quick_check(1)");
        if (check.Row()) verdict = check.Text();
    }
    if (m_target->Failed()) return m_target->TakeError();
    if (verdict != "ok") return Fail(PartName() + ": the copy is damaged: " + verdict);
    // One file, with nothing beside it.
    m_target->Execute("PRAGMA journal_mode = DELETE");
    if (m_target->Failed()) return m_target->TakeError();
    m_target.reset();
    std::error_code unknown;
    if (m_ifThere == IfThere::Refuse && fs::exists(PathFromUtf8(m_path), unknown))
        return Fail(m_path + ": there is a file already");
    if (auto renamed = Rename(PartName(), m_path); !renamed) return renamed;
    m_done = true;
    return {};
}

}  // namespace rq::engine

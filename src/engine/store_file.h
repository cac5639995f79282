// The store's file as a whole: made so that a broken one is never taken for a new one, copied before its
// schema changes, and copied while the engine works with it. I/O thread.
#pragma once

#include <memory>
#include <string>

#include "base/result.h"
#include "engine/sqlite.h"

struct sqlite3_backup;

namespace rq::engine {

// Makes a new store with the whole schema under another name and moves it into place. Does nothing when there
// is a file; refuses one without content, which a store never is.
Result<void> MakeStoreFile(const std::string& path);

// A store of an older schema is copied to "<path>.schema<N>", over an earlier copy of that schema.
Result<void> CopyBeforeMigration(Database& database);

// A copy under way: what the database has when the last step is taken, in a file that only its owner can
// read. The database may be used between the steps. The copy appears under its name when it is whole and
// synced; an unfinished one is removed.
class StoreCopy {
  public:
    enum class IfThere { Refuse, Replace };

    // `path` is absolute. `from` outlives the copy.
    static Result<std::unique_ptr<StoreCopy>> Begin(Database& from, std::string path,
                                                    IfThere ifThere = IfThere::Refuse);
    ~StoreCopy();
    StoreCopy(const StoreCopy&) = delete;
    StoreCopy& operator=(const StoreCopy&) = delete;

    // Copies up to so many pages, all with -1; true when the copy is done and has its name.
    Result<bool> Step(int pages);

  private:
    StoreCopy(std::string path, IfThere ifThere) : m_path(std::move(path)), m_ifThere(ifThere) {}
    Result<void> Open(Database& from);
    Result<void> Conclude();
    std::string PartName() const { return m_path + ".part"; }

    const std::string m_path;
    const IfThere m_ifThere;
    std::unique_ptr<Database> m_target;
    sqlite3_backup* m_copy = nullptr;
    bool m_done = false;
};

}  // namespace rq::engine

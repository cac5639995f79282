// SyncProbe: sees each sync of a store's log (the -wal file), holds it, or lets it fail. Works on stores that
// are opened while it lives; one at a time, any thread.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <condition_variable>
#include <mutex>

#include "kit/files.h"

namespace rq::engine {

class SyncProbe {
  public:
    SyncProbe() {
        static sqlite3_vfs vfs = *sqlite3_vfs_find(nullptr);
        if (Its().vfs == nullptr) Its().vfs = sqlite3_vfs_find(nullptr);
        vfs.zName = "sync probe";
        vfs.xOpen = &Open;
        m_vfs = &vfs;
        Its().failing = Its().holding = Its().held = false;
        Its().syncs = 0;
        sqlite3_vfs_register(m_vfs, 1);
    }
    ~SyncProbe() {
        Hold(false);
        SetFailing(false);
        sqlite3_vfs_unregister(m_vfs);
        sqlite3_vfs_register(Its().vfs, 1);
    }
    SyncProbe(const SyncProbe&) = delete;
    SyncProbe& operator=(const SyncProbe&) = delete;

    // That began, the failed ones too.
    int Syncs() const {
        const std::lock_guard lock(Its().mutex);
        return Its().syncs;
    }
    void SetFailing(bool failing) {
        const std::lock_guard lock(Its().mutex);
        Its().failing = failing;
    }
    // From now on a sync does not return before Hold(false).
    void Hold(bool holding) {
        const std::lock_guard lock(Its().mutex);
        Its().holding = holding;
        Its().changed.notify_all();
    }
    // False: none came.
    bool AwaitHeld() {
        std::unique_lock lock(Its().mutex);
        const bool held = Its().changed.wait_for(lock, kit::kPatience, [] { return Its().held; });
        EXPECT_TRUE(held) << "no sync was begun";
        return held;
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        sqlite3_vfs* vfs = nullptr;  // the system's
        const sqlite3_io_methods* methods = nullptr;
        sqlite3_io_methods ours{};
        int syncs = 0;
        bool failing = false, holding = false, held = false;
    };
    static State& Its() {
        static State state;
        return state;
    }
    static int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
        const int code = Its().vfs->xOpen(Its().vfs, name, file, flags, outFlags);
        if (code != SQLITE_OK || (flags & SQLITE_OPEN_WAL) == 0) return code;
        const std::lock_guard lock(Its().mutex);
        if (Its().methods == nullptr) {
            Its().methods = file->pMethods;
            Its().ours = *file->pMethods;
            Its().ours.xSync = &Sync;
        }
        file->pMethods = &Its().ours;
        return code;
    }
    static int Sync(sqlite3_file* file, int flags) {
        {
            std::unique_lock lock(Its().mutex);
            ++Its().syncs;
            if (Its().holding) {
                Its().held = true;
                Its().changed.notify_all();
                Its().changed.wait(lock, [] { return !Its().holding; });
                Its().held = false;
            }
            if (Its().failing) return SQLITE_IOERR_FSYNC;
        }
        return Its().methods->xSync(file, flags);
    }

    sqlite3_vfs* m_vfs;
};

}  // namespace rq::engine

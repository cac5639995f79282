// Files and folders that the standard library does not reach safely. Paths are UTF-8. Any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "platform/os_error.h"

namespace rq::platform {

// Full path of the running executable (links resolved), at most 260 wide characters on Windows; empty on
// failure.
std::string ModuleFileName();

std::string CurrentDirectory();
bool ChangeCurrentDirectory(const std::string& path, OsError* error = nullptr);

// fopen by UTF-8 path; not inherited by child processes.
std::FILE* OpenFile(const std::string& path, const char* mode);

// The whole file as bytes; nothing when it cannot be opened or read, or has more than `limit_bytes` (EFBIG,
// ERROR_FILE_TOO_LARGE; of a file without an end, as a device may be, no more than that is read).
std::optional<std::string> ReadWholeFile(const std::string& path, OsError* error = nullptr,
                                         std::uint64_t limit_bytes = UINT64_MAX);

// What tells one state of a file from another.
struct FileState {
    std::int64_t changed = 0;  // when its bytes were last written, in the system's own units
    std::uint64_t size_bytes = 0;

    bool operator==(const FileState&) const = default;
};
// By one look at the file; nothing when there is none, or it is no regular one.
std::optional<FileState> StateOfFile(const std::string& path);

// Makes a new file that only its owner can read (0600; an owner-only ACL on Windows) and writes `bytes`.
// Fails when the file is already there.
bool CreatePrivateFile(const std::string& path, std::string_view bytes, OsError* error = nullptr);

// Makes a folder (with missing parents) that only its owner can enter. True when it is there afterwards.
bool CreatePrivateFolder(const std::string& path, OsError* error = nullptr);

// Writes `bytes` to a temporary file beside `path`, syncs it and renames it over `path`: readers see the old
// text or the new one. A private file stays private. `temporary` names that file, in the same folder; what is
// left of one is removed. Without a name it is a new one each time.
bool ReplaceWholeFile(const std::string& path, std::string_view bytes, bool isPrivate,
                      OsError* error = nullptr, std::string temporary = {});

// An exclusive advisory lock held until the handle is released or the process ends. Null when another process
// (or this one) holds it. Used for "one engine per data folder".
class FolderLock {
  public:
    virtual ~FolderLock() = default;
};
FolderLock* TryLockFile(const std::string& path, OsError* error = nullptr);

}  // namespace rq::platform

// What a transfer does to names and folders, beside the content of files. The plug-in's seam to the file
// system, like plugin_common/file.h: paths in UTF-8, codes are the system's own, 0 is success. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rq::transfer {

enum class Kind { kAbsent, kFile, kFolder, kLink, kOther };

struct Seen {
    std::string name;
    Kind kind = Kind::kAbsent;
    std::uint64_t size_bytes = 0;
    bool isReadOnly = false;  // marked so by its rights or attributes
    std::uint32_t code = 0;   // of an entry in a list: why it cannot be looked at; its kind is kOther
};

// Absent is no failure. With `follow`, what a link leads to.
std::uint32_t LookAt(const std::string& path, bool follow, Seen& seen);
// In the order of their names; links are not followed. `goOn` is asked before each entry; false ends the
// list.
std::uint32_t ListFolder(const std::string& path, std::vector<Seen>& entries,
                         const std::function<bool()>& goOn);
// What is the same for all names of a file, and for no other file that is there; nothing when it cannot be
// told.
using Identity = std::pair<std::uint64_t, std::uint64_t>;
std::optional<Identity> IdentityOf(const std::string& path, bool follow);

std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);

// One that is there is no failure.
std::uint32_t MakeFolder(const std::string& path);
// Time of modification and access rights (attributes), as far as the system allows.
void CopyFolderFacts(const std::string& from, const std::string& to);
// The link itself.
std::uint32_t CopyLink(const std::string& from, const std::string& to);
std::uint32_t RemoveFile(const std::string& path);
std::uint32_t RemoveFolder(const std::string& path);
// Makes names in it last, where the system can.
void SyncFolder(const std::string& path);

bool OnSameFileSystem(const std::string& path, const std::string& other);
// Gives a file or folder another name on the same file system; without `overwrite` never that of something
// that is there.
enum class Renamed { kDone, kTargetExists, kOtherFileSystem, kFailed };
Renamed Rename(const std::string& from, const std::string& to, bool overwrite, std::uint32_t& code);

}  // namespace rq::transfer

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

// What a folder holds, in parts of at most kListed entries, so that the largest takes no more memory. A
// folder of one part is closed when that is read. One thread at a time.
class FolderReader {
  public:
    static constexpr std::size_t kListed = 2000;
    FolderReader() = default;
    ~FolderReader() { Close(); }
    FolderReader(const FolderReader&) = delete;
    FolderReader& operator=(const FolderReader&) = delete;

    std::uint32_t Open(const std::string& path);
    // The next part, in the order of the names; empty at the end. Links are not followed. `goOn` is asked
    // before each entry; false ends the part.
    std::uint32_t Next(std::vector<Seen>& entries, const std::function<bool()>& goOn);

  private:
    void Close();

    void* m_folder = nullptr;
    std::optional<Seen> m_first;  // where opening gives one
};

// What is the same for all names of a file, and for no other file that is there; nothing when it cannot be
// told.
using Identity = std::pair<std::uint64_t, std::uint64_t>;
std::optional<Identity> IdentityOf(const std::string& path, bool follow);

std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);

// As the system resolves it, as far as it exists; as it is where the system does not tell.
std::string RealPath(const std::string& path);

// One that is there is no failure; `made` is false then.
std::uint32_t MakeFolder(const std::string& path, bool& made);
// Time of modification and access rights (attributes), as far as the system allows.
void CopyFolderFacts(const std::string& from, const std::string& to);
// The link itself; with `overwrite` in the place of a link or file that is there, at once.
std::uint32_t CopyLink(const std::string& from, const std::string& to, bool overwrite);
std::uint32_t RemoveFile(const std::string& path);
std::uint32_t RemoveFolder(const std::string& path);
bool OnSameFileSystem(const std::string& path, const std::string& other);
// Gives a file or folder another name on the same file system; without `overwrite` never that of something
// that is there.
enum class Renamed { kDone, kTargetExists, kOtherFileSystem, kFailed };
Renamed Rename(const std::string& from, const std::string& to, bool overwrite, std::uint32_t& code);

}  // namespace rq::transfer

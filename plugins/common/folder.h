// What is in a folder. The plug-ins' seam to the file system, like file.h: paths and names in UTF-8 (on Linux
// whatever bytes they have), codes of the system's own, 0 is success. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace rq::task {

enum class EntryKind {
    kFile,
    kFolder,
    kLink,   // to whatever; on Windows every reparse point, junctions too
    kOther,  // a pipe, a device, a socket
};

struct FolderEntry {
    std::string name;
    EntryKind kind = EntryKind::kOther;
};

// What `path` holds but "." and "..", in the order of the names' bytes. A link as `path` is followed.
// `goOn` is asked before each entry; false ends the list.
std::uint32_t ListFolder(const std::string& path, std::vector<FolderEntry>& entries,
                         const std::function<bool()>& goOn = {});

// Whether a folder is there, maybe behind a link.
bool IsFolder(const std::string& path);

// "folder/name", with the platform's separator unless the folder ends with one.
std::string PathBelow(const std::string& folder, std::string_view name);

// What stands before the last separator, with it; empty without one.
std::string_view FolderPart(std::string_view path);

// A relative path with '/' between its parts, and one as the platform has it.
std::string WithSlashes(std::string_view path);
std::string WithSeparators(std::string_view path);

}  // namespace rq::task

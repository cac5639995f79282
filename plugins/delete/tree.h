// Goes through what lies below an allowed folder, and deletes it, without ever following a link: the allowed
// folder is opened as the node's configuration names it, and from there on every step goes from an open
// folder to an entry of it. The plug-in's seam to the file system. Codes are the system's own, 0 is success.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "delete_task.h"

namespace rq::del {

struct TreeEntry {
    std::string path;
    bool isFolder = false;  // a link to a folder is none
};

// What the tree's walk asks and tells. A batch is announced before its entries are deleted.
class TreeEvents {
  public:
    virtual ~TreeEvents() = default;
    // Between entries; false ends the walk.
    virtual bool GoOn() = 0;
    // false: not to be deleted, and the walk ends.
    virtual bool Announce(const std::vector<TreeEntry>& batch) = 0;
    virtual void Done(const TreeEntry& entry, std::uint32_t code) = 0;
    // An entry or a folder that is left as it is: errorCode of plugin_common/codes.h. Words without the path.
    virtual void Left(const std::string& path, std::int32_t errorCode, std::uint32_t systemCode,
                      const std::string& words) = 0;
    // The item is not there.
    virtual void Absent(const std::string& path) = 0;
};

enum class TreeWalk {
    kCount,   // batches are announced, and nothing is deleted
    kDelete,  // batches are announced, and then deleted
};

// So many entries are announced at a time, and so deep may folders be nested.
constexpr std::size_t kBatch = 256;
constexpr std::size_t kDeepest = 256;

constexpr const char* kNotEmpty =
    "the folder is not empty; say <Recursive>true</Recursive> to delete it with all that is in it";

void WalkTree(const Place& place, bool recursive, TreeWalk walk, TreeEvents& events);

}  // namespace rq::del

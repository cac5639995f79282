#include "base/remove_tree.h"

#include <system_error>
#include <vector>

namespace rq {

namespace {

namespace fs = std::filesystem;

// Depth first. The names are read before anything is removed: a folder that changes under an iterator may be
// told twice, or for ever.
void Remove(const fs::path& path) {
    std::error_code error;
    if (fs::symlink_status(path, error).type() == fs::file_type::directory) {
        std::vector<fs::path> entries;
        for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator();
             entry.increment(error))
            entries.push_back(entry->path());
        for (const fs::path& entry : entries) Remove(entry);
    }
    fs::remove(path, error);
}

}  // namespace

void RemoveTree(const fs::path& folder) noexcept {
    try {
        Remove(folder);
    } catch (...) {  // no memory for a name: what is left stays
    }
}

}  // namespace rq

// The task text of a deletion (docs/tasks/delete.md) and the node's list of folders below which something may
// be deleted, read and checked. Pure but for ReadAllowedFolders; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/task_xml.h"

namespace rq::del {

struct DeleteItem {
    std::string path;  // absolute, as in the task text
    bool recursive = false;
};

struct DeleteTask {
    std::string id;
    bool dryRun = false;
    std::vector<DeleteItem> items;
};

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadDeleteTask(std::string_view text, DeleteTask& task, task::XmlError& error);

constexpr std::string_view kConfigFile = "RQWorkerDelete.xml";

// The folders of RQWorkerDelete.xml in the node's configuration folder. `words` says what is wrong with it,
// and what to do; then there are none.
struct AllowedFolders {
    std::vector<std::string> folders;
    std::uint32_t systemCode = 0;
    std::string words;
};
AllowedFolders ReadAllowedFolders();
// What the file of this name says. Nothing is allowed when anything in it is wrong.
AllowedFolders ParseAllowedFolders(const std::string& file, std::string_view text);

// A path in parts. On Windows a drive or "\\server\share" is the first part.
struct PathParts {
    std::vector<std::string> parts;
    std::string refusal;  // why the path is not taken, empty when it is
};
PathParts SplitPath(std::string_view path);
// As the file system compares names: exactly, on Windows without regard to case.
bool IsSameName(std::string_view first, std::string_view second);

// The allowed folder that the path lies below, and the parts of the path below it; nothing when there is
// none. The folder itself does not lie below itself.
struct Place {
    std::string folder;
    std::vector<std::string> below;
};
std::optional<Place> PlaceOf(const std::vector<std::string>& folders, const PathParts& path);

}  // namespace rq::del

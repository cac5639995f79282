#include "delete_task.h"

#include <algorithm>

#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "plugin_common/typed_fields.h"

namespace rq::del {
namespace {

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::string_view kItemHint = "give at least one";
constexpr std::string_view kPathHint = "give the absolute path of a file or folder";
constexpr std::string_view kFolderHint = "give the absolute path of a folder";
constexpr std::size_t kMaxConfig_bytes = 1u << 20;

DeleteItem ReadItem(const task::XmlElement& element, task::XmlError& error) {
    task::TypedFields fields(element, {"Path", "Recursive"}, error);
    DeleteItem item;
    item.path = fields.AbsolutePath("Path", kPathHint);
    item.recursive = fields.Flag("Recursive").value_or(false);
    if (error.Failed()) return item;
    if (const std::string refusal = SplitPath(item.path).refusal; !refusal.empty())
        fields.Refuse("Path", refusal + ": \"" + item.path + "\"");
    return item;
}

// A folder has at least so many parts; fewer are a whole file system.
const std::size_t kLeastParts = task::IsAbsolutePath("/") ? 1 : 2;

AllowedFolders Wrong(std::uint32_t code, std::string words) {
    return {{}, code, std::move(words)};
}

}  // namespace

bool ReadDeleteTask(std::string_view text, DeleteTask& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "DeleteTask", error)) return false;
    const auto names = {std::string_view("ID"), std::string_view("DryRun"), std::string_view("Items")};
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, names, idError).Required("ID", kIdHint);
    task::TypedFields fields(root, names, error);
    fields.Plain().Required("ID", kIdHint);
    task.dryRun = fields.Flag("DryRun").value_or(false);
    if (const task::XmlElement* items = fields.Plain().Only("Items", "list what is to be deleted in it")) {
        task::XmlFields list(*items, {"Item"}, error);
        for (const task::XmlElement* child : list.Repeated("Item", kItemHint)) {
            task.items.push_back(ReadItem(*child, error));
            if (error.Failed()) break;
        }
    }
    return !error.Failed();
}

AllowedFolders ParseAllowedFolders(const std::string& file, std::string_view text) {
    task::XmlElement root;
    task::XmlError error;
    AllowedFolders allowed;
    if (task::ParseTaskXml(text, root, error) && task::CheckRoot(root, "DeleteConfig", error)) {
        task::XmlFields fields(root, {"Folder"}, error);
        for (const task::XmlElement* child :
             fields.Repeated("Folder", "give at least one, or remove the file")) {
            const std::string folder(child->text);
            if (!child->attributes.empty())
                error.Set(child->line, "<Folder> has the attribute \"" + child->attributes.front() +
                                           "\"; attributes are not used here");
            if (!child->children.empty() || task::TrimXml(folder).empty() || !task::IsAbsolutePath(folder))
                error.Set(child->line, "<Folder> is \"" + folder + "\"; " + std::string(kFolderHint));
            const PathParts parts = SplitPath(folder);
            if (!parts.refusal.empty())
                error.Set(child->line, "<Folder> " + parts.refusal + ": \"" + folder + "\"");
            if (parts.parts.size() < kLeastParts)
                error.Set(child->line,
                          "<Folder> is a whole file system: \"" + folder + "\"; name the folders in it");
            allowed.folders.push_back(folder);
        }
    }
    if (error.Failed()) return Wrong(0, file + ": " + error.Text());
    return allowed;
}

AllowedFolders ReadAllowedFolders() {
    const std::string folder = task::ConfigFolder();
    if (!task::IsAbsolutePath(folder))
        return Wrong(0, "RQ_CONFIG_DIR is no absolute path: \"" + folder + "\"; give one");
    const std::string file = task::PathIn(folder, std::string(kConfigFile));
    std::string text;
    bool isTooLong = false;
    const std::uint32_t code = task::ReadSmallFile(file, kMaxConfig_bytes, text, isTooLong);
    if (code != 0 && task::IsAbsent(file))
        return Wrong(code, "this node allows no deletions: there is no " + file +
                               "; name the folders below which tasks may delete in it: "
                               "<DeleteConfig><Folder>...</Folder></DeleteConfig>");
    if (code != 0) return Wrong(code, file + ": " + task::SystemWords(code));
    if (isTooLong) return Wrong(0, file + ": longer than 1 MiB");
    return ParseAllowedFolders(file, text);
}

std::optional<Place> PlaceOf(const std::vector<std::string>& folders, const PathParts& path) {
    std::optional<Place> place;
    std::size_t longest = 0;
    for (const std::string& folder : folders) {
        const std::vector<std::string> above = SplitPath(folder).parts;
        if (above.size() >= path.parts.size() || (place && above.size() <= longest)) continue;
        if (!std::equal(above.begin(), above.end(), path.parts.begin(), IsSameName)) continue;
        longest = above.size();
        place = Place{folder, {path.parts.begin() + static_cast<std::ptrdiff_t>(longest), path.parts.end()}};
    }
    return place;
}

}  // namespace rq::del

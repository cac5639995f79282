#include "transfer_task.h"

#include <algorithm>

#include "plugin_common/file.h"
#include "plugin_common/typed_fields.h"

namespace rq::transfer {
namespace {

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::string_view kSourceHint = "give the absolute path of a file or folder";
constexpr std::string_view kTargetHint = "give the absolute path of the file or folder to make";
constexpr std::string_view kMd5Hint = "give 32 hexadecimal digits";
constexpr std::int64_t kMostRate_kBps = 1'000'000'000;

bool IsUrl(std::string_view path) {
    const std::string_view text = task::TrimXml(path);
    const std::size_t end = text.find("://");
    return end != std::string_view::npos && end > 1 &&
           std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '+' || c == '-' || c == '.';
           });
}

// Without a separator at the end, as a folder may be given.
std::string ReadPath(task::TypedFields& fields, std::string_view name, std::string_view hint,
                     task::XmlError& error) {
    // A URL may hold a password: it is not repeated.
    if (IsUrl(fields.Plain().Required(name, hint)))
        fields.Refuse(name, "is a URL; only paths are transferred, give one that the system can open");
    if (error.Failed()) return {};
    std::string path = fields.AbsolutePath(name, hint);
    while (path.size() > 1 && (path.back() == '/' || (path.back() == '\\' && !task::IsAbsolutePath("/"))))
        path.pop_back();
    return path;
}

TransferItem ReadItem(const task::XmlElement& element, task::XmlError& error) {
    task::TypedFields fields(element, {"Source", "Target", "MD5"}, error);
    TransferItem item;
    item.source = ReadPath(fields, "Source", kSourceHint, error);
    item.target = ReadPath(fields, "Target", kTargetHint, error);
    if (const std::optional<std::string> text = fields.Plain().Optional("MD5", kMd5Hint);
        text && !error.Failed()) {
        item.expected = task::ParseMd5(task::TrimXml(*text));
        if (!item.expected) fields.Refuse("MD5", "is \"" + *text + "\"; " + std::string(kMd5Hint));
    }
    return item;
}

}  // namespace

bool ReadTransferTask(std::string_view text, TransferTask& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "TransferTask", error)) return false;
    const auto names = {
        std::string_view("ID"),       std::string_view("Mode"),           std::string_view("Overwrite"),
        std::string_view("MD5"),      std::string_view("SHA256"),         std::string_view("Verify"),
        std::string_view("Manifest"), std::string_view("RateLimit_kBps"), std::string_view("Items")};
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, names, idError).Required("ID", kIdHint);
    task::TypedFields fields(root, names, error);
    fields.Plain().Required("ID", kIdHint);
    task.move = fields.Word("Mode", {"copy", "move"}).value_or("copy") == "move";
    task.overwrite = fields.Flag("Overwrite").value_or(false);
    task.md5 = fields.Flag("MD5").value_or(false);
    task.sha256 = fields.Flag("SHA256").value_or(false);
    task.verify = fields.Flag("Verify").value_or(false);
    task.manifest = fields.Flag("Manifest").value_or(false);
    if (const auto rate = fields.Whole("RateLimit_kBps", 1, kMostRate_kBps))
        task.limit_Bps = static_cast<std::uint64_t>(*rate) * 1000;
    if (const task::XmlElement* items =
            fields.Plain().Only("Items", "list what is to be transferred in it")) {
        task::XmlFields list(*items, {"Item"}, error);
        for (const task::XmlElement* child : list.Repeated("Item", "give at least one")) {
            task.items.push_back(ReadItem(*child, error));
            if (error.Failed()) break;
        }
    }
    if (task.verify || (task.manifest && !task.sha256)) task.md5 = true;
    return !error.Failed();
}

}  // namespace rq::transfer

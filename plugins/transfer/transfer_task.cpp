#include "transfer_task.h"

#include <algorithm>

#include "plugin_common/file.h"
#include "plugin_common/typed_fields.h"
#include "url.h"

namespace rq::transfer {
namespace {

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::string_view kSourceHint = "give the absolute path of a file or folder";
constexpr std::string_view kTargetHint = "give the absolute path of the file or folder to make";
constexpr std::string_view kCredentialsHint = "give the name of an entry in RQWorkerCredentials.xml";
constexpr std::string_view kMd5Hint = "give 32 hexadecimal digits";
constexpr std::int64_t kMostRate_kBps = 1'000'000'000;

// Without a separator at the end, as a folder may be given.
std::string ReadPath(task::TypedFields& fields, std::string_view name, std::string_view hint,
                     task::XmlError& error) {
    if (const std::string text = fields.Plain().Required(name, hint); IsUrl(text)) {
        const std::string url(task::TrimXml(text));
        // It may hold a password: it is not repeated.
        if (const std::string why = WhyNotTaken(url); !why.empty()) fields.Refuse(name, why);
        return url;
    }
    if (error.Failed()) return {};
    std::string path = fields.AbsolutePath(name, hint);
    // The root of a file system or drive keeps its separator: "C:" is another folder than "C:\".
    while (path.size() > 1 && (path.back() == '/' || (path.back() == '\\' && !task::IsAbsolutePath("/"))) &&
           task::IsAbsolutePath(std::string_view(path).substr(0, path.size() - 1)))
        path.pop_back();
    return path;
}

TransferItem ReadItem(const task::XmlElement& element, task::XmlError& error) {
    task::TypedFields fields(element, {"Source", "Target", "MD5", "Credentials"}, error);
    TransferItem item;
    item.source = ReadPath(fields, "Source", kSourceHint, error);
    item.target = ReadPath(fields, "Target", kTargetHint, error);
    if (const std::optional<std::string> text = fields.Plain().Optional("MD5", kMd5Hint);
        text && !error.Failed()) {
        item.expected = task::ParseMd5(task::TrimXml(*text));
        if (!item.expected) fields.Refuse("MD5", "is \"" + *text + "\"; " + std::string(kMd5Hint));
    }
    const bool fromUrl = IsUrl(item.source);
    const bool toUrl = IsUrl(item.target);
    if (fromUrl && toUrl) fields.Refuse("Target", "is a URL, as <Source> is; one of them must be a path");
    if (const auto name = fields.Plain().Optional("Credentials", kCredentialsHint)) {
        item.credentials = task::TrimXml(*name);
        if (!fromUrl && !toUrl) fields.Refuse("Credentials", "are for URLs, and there is none");
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
    for (const TransferItem& item : task.items) {
        if (task.move && (IsUrl(item.source) || IsUrl(item.target)))
            fields.Refuse("Mode", "is \"move\"; files are copied from and to URLs, not moved");
        if (task.manifest && IsUrl(item.target))
            fields.Refuse("Manifest", "is \"true\"; beside a URL none is written");
    }
    if (task.verify || (task.manifest && !task.sha256)) task.md5 = true;
    return !error.Failed();
}

}  // namespace rq::transfer

#include "md5_task.h"

#include "plugin_common/file.h"

namespace rq::md5 {
namespace {

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::string_view kPathHint = "give the absolute path of a file";
constexpr std::string_view kMd5Hint = "give 32 hexadecimal digits, or leave it out of every <File>";
constexpr std::string_view kFilesHint = "list the files in it";
constexpr std::string_view kFileHint = "give at least one";

TaskFile ReadFile(const task::XmlElement& element, task::XmlError& error) {
    task::XmlFields fields(element, {"Path", "MD5"}, error);
    TaskFile file;
    file.path = fields.Required("Path", kPathHint);
    if (!error.Failed() && !task::IsAbsolutePath(file.path))
        error.Set(fields.LineOf("Path"), "<Path> is not an absolute path: \"" + file.path +
                                             "\"; the worker has no folder of its own to start from");
    if (const std::optional<std::string> text = fields.Optional("MD5", kMd5Hint)) {
        file.expected = task::ParseMd5(task::TrimXml(*text));
        if (!file.expected)
            error.Set(fields.LineOf("MD5"), "<MD5> is \"" + *text + "\"; " + std::string(kMd5Hint));
    }
    return file;
}

// Computation or verification, the same for all files.
void ReadFiles(const task::XmlElement& element, Md5Task& task, task::XmlError& error) {
    task::XmlFields fields(element, {"File"}, error);
    const auto files = fields.Repeated("File", kFileHint);
    for (const task::XmlElement* child : files) {
        task.files.push_back(ReadFile(*child, error));
        if (error.Failed()) return;
        const bool has = task.files.back().expected.has_value();
        if (task.files.size() == 1) task.verify = has;
        if (has != task.verify)
            error.Set(child->line, std::string("<File> has ") + (has ? "an" : "no") +
                                       " <MD5>, but the one in line " + std::to_string(files.front()->line) +
                                       " has " + (has ? "none" : "one") +
                                       "; give all of them (verification) or none (computation)");
    }
}

}  // namespace

bool ReadMd5Task(std::string_view text, Md5Task& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "MD5Task", error)) return false;
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, {"ID", "Files"}, idError).Required("ID", kIdHint);
    task::XmlFields fields(root, {"ID", "Files"}, error);
    fields.Required("ID", kIdHint);
    if (const task::XmlElement* files = fields.Only("Files", kFilesHint)) ReadFiles(*files, task, error);
    return !error.Failed();
}

}  // namespace rq::md5

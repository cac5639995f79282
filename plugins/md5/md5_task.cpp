#include "md5_task.h"

#include <algorithm>

#include "plugin_common/file.h"

namespace rq::md5 {
namespace {

using Kind = TaskFile::Kind;

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::string_view kPathHint = "give the absolute path of a file";
constexpr std::string_view kMd5Hint = "give 32 hexadecimal digits, or leave it out of every <File>";
constexpr std::string_view kFilesHint = "list the files in it";
constexpr std::string_view kFileHint = "give at least one";
constexpr std::string_view kThreadsHint = "give a whole number from 1 to 64";
constexpr std::string_view kOverwriteHint = "give true or false";

std::string ReadPath(task::XmlFields& fields, task::XmlError& error) {
    const std::string path = fields.Required("Path", kPathHint);
    if (!error.Failed() && !task::IsAbsolutePath(path))
        error.Set(fields.LineOf("Path"), "<Path> is not an absolute path: \"" + path +
                                             "\"; the worker has no folder of its own to start from");
    return path;
}

TaskFile ReadFile(const task::XmlElement& element, task::XmlError& error) {
    TaskFile file;
    if (element.name != "File") {
        file.kind = element.name == "Folder" ? Kind::kFolder : Kind::kChecksums;
        task::XmlFields fields(element, {"Path"}, error);
        file.path = ReadPath(fields, error);
        return file;
    }
    task::XmlFields fields(element, {"Path", "MD5"}, error);
    file.path = ReadPath(fields, error);
    if (const std::optional<std::string> text = fields.Optional("MD5", kMd5Hint)) {
        file.expected = task::ParseMd5(task::TrimXml(*text));
        if (!file.expected)
            error.Set(fields.LineOf("MD5"), "<MD5> is \"" + *text + "\"; " + std::string(kMd5Hint));
    }
    return file;
}

bool IsVerification(const TaskFile& file) {
    return file.kind == Kind::kChecksums || file.expected.has_value();
}

// What a refusal says of an element that does not go with the first one.
std::string Mixture(const TaskFile& file, bool verify, std::size_t firstLine) {
    const std::string first = "in line " + std::to_string(firstLine);
    if (file.kind == Kind::kFolder)
        return "<Folder> is computed, but the element " + first + " is verified; give tasks of their own";
    if (file.kind == Kind::kChecksums)
        return "<ChecksumFile> is verified, but the element " + first +
               " is computed; give tasks of their own";
    return std::string("<File> has ") + (verify ? "no" : "an") + " <MD5>, but the one " + first + " has " +
           (verify ? "one" : "none") + "; give all of them (verification) or none (computation)";
}

// Computation or verification, the same for all files.
void ReadFiles(const task::XmlElement& element, Md5Task& task, task::XmlError& error) {
    task::XmlFields fields(element, {"File", "Folder", "ChecksumFile"}, error);
    if (element.children.empty()) fields.Repeated("File", kFileHint);
    for (const task::XmlElement& child : element.children) {
        if (error.Failed()) return;
        task.files.push_back(ReadFile(child, error));
        const bool isVerified = IsVerification(task.files.back());
        if (task.files.size() == 1) task.verify = isVerified;
        if (!error.Failed() && isVerified != task.verify)
            error.Set(child.line, Mixture(task.files.back(), task.verify, element.children.front().line));
    }
}

void ReadThreads(task::XmlFields& fields, Md5Task& task, task::XmlError& error) {
    const std::optional<std::string> text = fields.Optional("Threads", kThreadsHint);
    if (!text) return;
    const std::string_view digits = task::TrimXml(*text);
    const bool isNumber =
        digits.size() <= 2 && digits.find_first_not_of("0123456789") == std::string_view::npos;
    task.threads = isNumber && !digits.empty() ? std::stoi(std::string(digits)) : 0;
    if (task.threads < 1 || task.threads > kMaxThreads)
        error.Set(fields.LineOf("Threads"), "<Threads> is \"" + *text + "\"; " + std::string(kThreadsHint));
}

void ReadOutput(const task::XmlElement& element, Md5Task& task, task::XmlError& error) {
    task::XmlFields fields(element, {"Path", "Overwrite"}, error);
    ChecksumOutput output;
    output.path = ReadPath(fields, error);
    if (const std::optional<std::string> text = fields.Optional("Overwrite", kOverwriteHint)) {
        output.overwrite = task::TrimXml(*text) == "true";
        if (!output.overwrite && task::TrimXml(*text) != "false")
            error.Set(fields.LineOf("Overwrite"),
                      "<Overwrite> is \"" + *text + "\"; " + std::string(kOverwriteHint));
    }
    if (task.verify) error.Set(element.line, "<WriteChecksums> is for a computation; this task verifies");
    task.output = std::move(output);
}

}  // namespace

bool Md5Task::IsPlainList() const {
    return std::all_of(files.begin(), files.end(),
                       [](const TaskFile& file) { return file.kind == Kind::kFile; });
}

bool ReadMd5Task(std::string_view text, Md5Task& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "MD5Task", error)) return false;
    const auto allowed = {std::string_view("ID"), std::string_view("Files"), std::string_view("Threads"),
                          std::string_view("WriteChecksums")};
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, allowed, idError).Required("ID", kIdHint);
    task::XmlFields fields(root, allowed, error);
    fields.Required("ID", kIdHint);
    if (const task::XmlElement* files = fields.Only("Files", kFilesHint)) ReadFiles(*files, task, error);
    ReadThreads(fields, task, error);
    if (const task::XmlElement* output = fields.OptionalOnly("WriteChecksums"))
        ReadOutput(*output, task, error);
    return !error.Failed();
}

}  // namespace rq::md5

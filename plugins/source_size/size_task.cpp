#include "size_task.h"

#include <algorithm>

#include "plugin_common/typed_fields.h"

namespace rq::source_size {
namespace {

constexpr std::string_view kIdHint = "give the task's ID";
constexpr std::int64_t kMost_bytes = 999'999'999'999'999'999;  // 18 digits
constexpr std::int64_t kLongest_us = std::int64_t{7} * 24 * 3600 * 1'000'000;

SourceFile ReadFile(const task::XmlElement& element, task::XmlError& error) {
    task::TypedFields fields(element, {"Path", "Size_bytes", "MinSize_bytes"}, error);
    SourceFile file;
    file.path = fields.FilePath("Path");
    if (const auto size = fields.Whole("Size_bytes", 0, kMost_bytes))
        file.exact_bytes = static_cast<std::uint64_t>(*size);
    if (const auto least = fields.Whole("MinSize_bytes", 0, kMost_bytes))
        file.least_bytes = static_cast<std::uint64_t>(*least);
    if (file.exact_bytes && file.least_bytes)
        fields.Refuse("MinSize_bytes", "stands beside <Size_bytes>; give one of them");
    return file;
}

}  // namespace

bool ReadSizeTask(std::string_view text, SizeTask& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "SourceSizeTask", error))
        return false;
    const auto names = {std::string_view("ID"), std::string_view("StableFor_s"),
                        std::string_view("Timeout_s"), std::string_view("Files")};
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, names, idError).Required("ID", kIdHint);
    task::TypedFields fields(root, names, error);
    fields.Plain().Required("ID", kIdHint);
    const auto stableFor = fields.Seconds("StableFor_s");
    if (stableFor) task.stableFor = std::chrono::microseconds(*stableFor);
    if (const auto time = fields.Seconds("Timeout_s")) task.timeout = std::chrono::microseconds(*time);
    if (task.timeout.count() > kLongest_us)
        fields.Refuse("Timeout_s", "is more than 604800 (seven days); submit the task again instead");
    if (!stableFor) task.stableFor = std::min(task.stableFor, task.timeout);
    if (task.stableFor > task.timeout)
        fields.Refuse("StableFor_s",
                      "is longer than the time-out; the files could never be complete in time");
    if (const task::XmlElement* files = fields.Plain().Only("Files", "list the files in it")) {
        task::XmlFields list(*files, {"File"}, error);
        for (const task::XmlElement* child : list.Repeated("File", "give at least one")) {
            task.files.push_back(ReadFile(*child, error));
            if (error.Failed()) break;
        }
    }
    return !error.Failed();
}

}  // namespace rq::source_size

// The task texts of the source_size plug-in, any bytes.
#include "fuzz/checks.h"
#include "plugin_common/file.h"
#include "size_task.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::source_size::SizeTask task;
    rq::task::XmlError error;
    if (!rq::source_size::ReadSizeTask(text, task, error)) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    Require(!error.Failed() && !task.files.empty(), "a task that is taken has files", text);
    Require(!rq::task::TrimXml(task.id).empty(), "and an ID", text);
    Require(task.stableFor.count() >= 0 && task.stableFor <= task.timeout, "and times that fit", text);
    for (const rq::source_size::SourceFile& file : task.files) {
        Require(rq::task::IsAbsolutePath(file.path), "a path that is taken is absolute", file.path);
        Require(!file.exact_bytes || !file.least_bytes, "one size at most", file.path);
    }
    return 0;
}

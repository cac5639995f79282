// The task texts of the md5 plug-in, any bytes.
#include "fuzz/checks.h"
#include "md5_task.h"
#include "plugin_common/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::md5::Md5Task task;
    rq::task::XmlError error;
    if (!rq::md5::ReadMd5Task(text, task, error)) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    Require(!error.Failed() && !task.files.empty(), "a task that is taken has files", text);
    Require(!rq::task::TrimXml(task.id).empty(), "and an ID", text);
    for (const rq::md5::TaskFile& file : task.files) {
        Require(rq::task::IsAbsolutePath(file.path), "a path that is taken is absolute", file.path);
        const bool isVerified = file.expected || file.kind == rq::md5::TaskFile::Kind::kChecksums;
        Require(isVerified == task.verify, "all are verified, or none", file.path);
    }
    Require(task.threads >= 0 && task.threads <= rq::md5::kMaxThreads, "the threads", text);
    Require(!task.output || (!task.verify && rq::task::IsAbsolutePath(task.output->path)), "the output",
            text);
    return 0;
}

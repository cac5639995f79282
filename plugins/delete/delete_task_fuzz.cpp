// The task texts of the delete plug-in, any bytes.
#include "delete_task.h"
#include "fuzz/checks.h"
#include "plugin_common/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::del::DeleteTask task;
    rq::task::XmlError error;
    if (!rq::del::ReadDeleteTask(text, task, error)) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    Require(!error.Failed() && !task.items.empty(), "a task that is taken has items", text);
    Require(!rq::task::TrimXml(task.id).empty(), "and an ID", text);
    for (const rq::del::DeleteItem& item : task.items) {
        Require(rq::task::IsAbsolutePath(item.path), "a path that is taken is absolute", item.path);
        Require(rq::del::SplitPath(item.path).refusal.empty(), "and has no odd parts", item.path);
    }
    return 0;
}

// The task texts of the transfer plug-in, any bytes.
#include "fuzz/checks.h"
#include "plugin_common/file.h"
#include "transfer_task.h"
#include "url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::transfer::TransferTask task;
    rq::task::XmlError error;
    if (!rq::transfer::ReadTransferTask(text, task, error)) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    Require(!error.Failed() && !task.items.empty(), "a task that is taken has items", text);
    Require(!rq::task::TrimXml(task.id).empty(), "and an ID", text);
    Require(task.md5 || !task.verify, "a verification has a digest", text);
    Require(task.md5 || task.sha256 || !task.manifest, "and a manifest too", text);
    for (const rq::transfer::TransferItem& item : task.items)
        for (const std::string* path : {&item.source, &item.target}) {
            if (rq::transfer::IsUrl(*path)) {
                Require(rq::transfer::WhyNotTaken(*path).empty(), "a URL that is taken is a good one", *path);
                Require(!task.move && !rq::transfer::HostOf(*path).empty(), "and has a host", *path);
                Require(!rq::transfer::FileNameOf(*path).empty(), "and names a file", *path);
                continue;
            }
            Require(rq::task::IsAbsolutePath(*path), "a path that is taken is absolute", *path);
        }
    return 0;
}

// The task texts of the transcode plug-in, any bytes.
#include "fuzz/checks.h"
#include "plugin_common/file.h"
#include "transcode_task.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::transcode::TranscodeTask task;
    rq::task::XmlError error;
    if (!rq::transcode::ReadTranscodeTask(text, task, error)) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    Require(!error.Failed() && !rq::task::TrimXml(task.id).empty(), "a task that is taken has an ID", text);
    Require(rq::task::IsAbsolutePath(task.source) && rq::task::IsAbsolutePath(task.target),
            "the paths of a task that is taken are absolute", text);
    Require(task.container == "mp4" || task.container == "mkv", "the container", task.container);
    Require(task.in_us >= 0 && (!task.out_us || *task.out_us > task.in_us), "the cut", text);
    if (const auto& rate = task.video.frameRate_fps)
        Require(rate->numerator > 0 && rate->denominator > 0, "the frame rate", text);
    for (const auto& side : {task.video.width_px, task.video.height_px})
        Require(!side || (*side > 0 && *side % 2 == 0), "width and height", text);
    return 0;
}

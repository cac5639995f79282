#include "ctl/transcode_task.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "ctl/file_argument.h"

namespace rq::ctl {

namespace {

using Fields = std::initializer_list<std::pair<const char*, const std::string&>>;

std::string Element(const std::string& name, const std::string& text) {
    return text.empty() ? "" : "<" + name + ">" + EscapeXml(text) + "</" + name + ">";
}

std::string Elements(const Fields& fields) {
    std::string text;
    for (const auto& [name, value] : fields) text += Element(name, value);
    return text;
}

std::string Stream(const std::string& name, const Fields& fields) {
    const std::string inner = Elements(fields);
    return inner.empty() ? "" : "    <" + name + ">" + inner + "</" + name + ">\n";
}

bool AnyOf(std::initializer_list<const std::string*> texts) {
    return std::any_of(texts.begin(), texts.end(), [](const std::string* text) { return !text->empty(); });
}

std::string EndingOf(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    std::string ending = dot == std::string::npos ? "" : path.substr(dot + 1);
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return ending;
}

}  // namespace

Result<TranscodeOptions> PrepareTranscode(TranscodeOptions options) {
    auto source = ExistingFile(options.source);
    if (!source) return source.error();
    auto target = NewFile(options.target, options.overwrite);
    if (!target) return target.error();
    if (options.container.empty()) {
        const std::string ending = EndingOf(*target);
        if (ending != "mp4" && ending != "mkv")
            return Fail(options.target + ": its ending is neither mp4 nor mkv; say which with --container");
        options.container = ending;
    }
    options.source = std::move(*source);
    options.target = std::move(*target);
    if (options.video.empty() &&
        AnyOf({&options.width_px, &options.height_px, &options.frameRate_fps, &options.videoBitRate_kbps,
               &options.quality, &options.preset, &options.keyFrameInterval_frames, &options.bFrames}))
        options.video = "h264";
    if (options.audio.empty() &&
        AnyOf({&options.sampleRate_Hz, &options.channels, &options.audioBitRate_kbps}))
        options.audio = "aac";
    return options;
}

std::string BuildTranscodeTaskXml(const std::string& id, const TranscodeOptions& options) {
    const std::string yes = "true";
    const std::string no;
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TranscodeTask>\n  " + Element("ID", id) +
           "\n  <Source>" +
           Elements({{"Path", options.source},
                     {"In_s", options.in_s},
                     {"Out_s", options.out_s},
                     {"IgnoreDamage", options.ignoreDamage ? yes : no}}) +
           "</Source>\n  <Target>\n    " + Element("Path", options.target) + "\n    " +
           Element("Container", options.container) + Element("Overwrite", options.overwrite ? yes : no) +
           "\n" +
           Stream("Video", {{"Codec", options.video},
                            {"Width_px", options.width_px},
                            {"Height_px", options.height_px},
                            {"FrameRate_fps", options.frameRate_fps},
                            {"BitRate_kbps", options.videoBitRate_kbps},
                            {"Quality", options.quality},
                            {"Preset", options.preset},
                            {"KeyFrameInterval_frames", options.keyFrameInterval_frames},
                            {"BFrames", options.bFrames}}) +
           Stream("Audio", {{"Codec", options.audio},
                            {"SampleRate_Hz", options.sampleRate_Hz},
                            {"Channels", options.channels},
                            {"BitRate_kbps", options.audioBitRate_kbps}}) +
           "  </Target>\n</TranscodeTask>\n";
}

}  // namespace rq::ctl

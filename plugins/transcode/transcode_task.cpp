#include "transcode_task.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "fields.h"

namespace rq::transcode {
namespace {

constexpr int kMaxSide_px = 8192;
// What MPEG-2 video can say.
constexpr std::array<Rational, 8> kMpeg2Rates{
    {{24000, 1001}, {24, 1}, {25, 1}, {30000, 1001}, {30, 1}, {50, 1}, {60000, 1001}, {60, 1}}};

bool IsMpeg2Rate(const Rational& rate) {
    for (const Rational& known : kMpeg2Rates)
        if (std::int64_t{known.numerator} * rate.denominator ==
            std::int64_t{rate.numerator} * known.denominator)
            return true;
    return false;
}

Handling HandlingOf(const std::string& codec) {
    if (codec == "none") return Handling::kNone;
    return codec == "copy" ? Handling::kCopy : Handling::kEncode;
}

// Copying and leaving out take no settings.
void ForbidSettings(TypedFields& fields, const std::string& codec,
                    std::initializer_list<std::string_view> settings) {
    for (const std::string_view name : settings)
        fields.Forbid(name, "does not go with <Codec>" + codec + "</Codec>; leave it out, or name a codec");
}

void CheckVideo(TypedFields& fields, const VideoSettings& video) {
    if (video.bitRate_kbps && video.quality)
        fields.Refuse("Quality", "stands beside <BitRate_kbps>; give one of them");
    if (video.codec != "mpeg2video") return;
    fields.Forbid("Preset", "is for h264 only; leave it out");
    if (video.frameRate_fps && !IsMpeg2Rate(*video.frameRate_fps))
        fields.Refuse("FrameRate_fps",
                      "cannot be said in mpeg2video; give one of: 23.976, 24, 25, 29.97, 30, 50, 59.94, 60");
}

VideoSettings ReadVideo(const task::XmlElement& element, task::XmlError& error) {
    TypedFields fields(element,
                       {"Codec", "Width_px", "Height_px", "FrameRate_fps", "BitRate_kbps", "Quality",
                        "Preset", "KeyFrameInterval_frames", "BFrames"},
                       error);
    VideoSettings video;
    const std::string codec = fields.RequiredWord("Codec", {"h264", "mpeg2video", "copy", "none"});
    video.handling = HandlingOf(codec);
    if (video.handling != Handling::kEncode) {
        ForbidSettings(fields, codec,
                       {"Width_px", "Height_px", "FrameRate_fps", "BitRate_kbps", "Quality", "Preset",
                        "KeyFrameInterval_frames", "BFrames"});
        return video;
    }
    video.codec = codec;
    const bool isH264 = codec == "h264";
    video.width_px = fields.Whole("Width_px", 16, kMaxSide_px);
    video.height_px = fields.Whole("Height_px", 16, kMaxSide_px);
    for (const auto& [name, side] : {std::pair{"Width_px", video.width_px}, {"Height_px", video.height_px}})
        if (side && *side % 2 != 0) fields.Refuse(name, "is odd; give an even number");
    video.frameRate_fps = fields.FrameRate("FrameRate_fps");
    video.bitRate_kbps = fields.Whole("BitRate_kbps", 16, 500'000);
    video.quality = fields.Whole("Quality", isH264 ? 0 : 1, isH264 ? 51 : 31);
    video.preset = fields.Word("Preset", {"ultrafast", "superfast", "veryfast", "faster", "fast", "medium",
                                          "slow", "slower", "veryslow", "placebo"});
    video.keyFrameInterval_frames = fields.Whole("KeyFrameInterval_frames", 1, isH264 ? 1000 : 600);
    video.bFrames = fields.Whole("BFrames", 0, 16);
    CheckVideo(fields, video);
    return video;
}

AudioSettings ReadAudio(const task::XmlElement& element, const std::string& container,
                        task::XmlError& error) {
    TypedFields fields(element, {"Codec", "SampleRate_Hz", "Channels", "BitRate_kbps"}, error);
    AudioSettings audio;
    const std::string codec = fields.RequiredWord("Codec", {"aac", "pcm_s16le", "pcm_s24le", "copy", "none"});
    audio.handling = HandlingOf(codec);
    if (audio.handling != Handling::kEncode) {
        ForbidSettings(fields, codec, {"SampleRate_Hz", "Channels", "BitRate_kbps"});
        return audio;
    }
    audio.codec = codec;
    const bool isAac = codec == "aac";
    if (!isAac && container == "mp4")
        fields.Refuse("Codec",
                      "is \"" + codec + "\", which does not go into mp4; give aac, or the container mkv");
    audio.sampleRate_Hz = fields.Whole("SampleRate_Hz", 8000, isAac ? 96'000 : 192'000);
    audio.channels = fields.Whole("Channels", 1, 8);
    audio.bitRate_kbps = fields.Whole("BitRate_kbps", 16, 2000);
    if (!isAac) fields.Forbid("BitRate_kbps", "is for aac only; that of PCM follows from rate and channels");
    return audio;
}

void ReadSource(const task::XmlElement& element, TranscodeTask& task, task::XmlError& error) {
    TypedFields fields(element, {"Path", "In_s", "Out_s", "IgnoreDamage"}, error);
    task.source = fields.Path();
    task.in_us = fields.Seconds("In_s").value_or(0);
    task.out_us = fields.Seconds("Out_s");
    task.ignoreDamage = fields.Flag("IgnoreDamage").value_or(false);
    if (task.out_us && *task.out_us <= task.in_us)
        fields.Refuse("Out_s", "does not lie after the in point; give a later time, or leave it out");
}

void ReadTarget(const task::XmlElement& element, TranscodeTask& task, task::XmlError& error) {
    TypedFields fields(element, {"Path", "Container", "Overwrite", "Video", "Audio"}, error);
    task.target = fields.Path();
    task.container = fields.RequiredWord("Container", {"mp4", "mkv"});
    task.overwrite = fields.Flag("Overwrite").value_or(false);
    if (const task::XmlElement* video = fields.Plain().OptionalOnly("Video"))
        task.video = ReadVideo(*video, error);
    if (const task::XmlElement* audio = fields.Plain().OptionalOnly("Audio"))
        task.audio = ReadAudio(*audio, task.container, error);
    if (task.video.handling == Handling::kNone && task.audio.handling == Handling::kNone)
        error.Set(element.line, "<Target> has neither video nor audio; give a codec for one of them");
}

}  // namespace

Rational NearestMpeg2Rate(const Rational& rate) {
    const auto distance = [&rate](const Rational& known) {
        return std::abs(static_cast<double>(known.numerator) / known.denominator -
                        static_cast<double>(rate.numerator) / rate.denominator);
    };
    return *std::min_element(kMpeg2Rates.begin(), kMpeg2Rates.end(),
                             [&](const Rational& a, const Rational& b) { return distance(a) < distance(b); });
}

bool ReadTranscodeTask(std::string_view text, TranscodeTask& task, task::XmlError& error) {
    task::XmlElement root;
    if (!task::ParseTaskXml(text, root, error) || !task::CheckRoot(root, "TranscodeTask", error))
        return false;
    task::XmlError idError;  // an ID is wanted even when something else is wrong
    task.id = task::XmlFields(root, {"ID", "Source", "Target"}, idError).Required("ID", "give the task's ID");
    task::XmlFields fields(root, {"ID", "Source", "Target"}, error);
    fields.Required("ID", "give the task's ID");
    if (const task::XmlElement* source = fields.Only("Source", "say what is to be transcoded"))
        ReadSource(*source, task, error);
    if (const task::XmlElement* target = fields.Only("Target", "say what is to be made"))
        ReadTarget(*target, task, error);
    return !error.Failed();
}

}  // namespace rq::transcode

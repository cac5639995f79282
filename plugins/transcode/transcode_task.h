// The task text of a transcode task (docs/tasks/transcode.md), read and checked. Pure; any thread. What the
// text leaves open stays empty here: the source or the codec decides.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plugin_common/task_xml.h"

namespace rq::transcode {

// What becomes of the source's video or audio. kDefault: encoded when the source has one, in the container's
// usual codec.
enum class Handling { kDefault, kNone, kCopy, kEncode };

struct Rational {
    int numerator = 0;
    int denominator = 1;
};

struct VideoSettings {
    Handling handling = Handling::kDefault;
    std::string codec = "h264";  // or "mpeg2video"
    std::optional<int> width_px;
    std::optional<int> height_px;
    std::optional<Rational> frameRate_fps;
    std::optional<int> bitRate_kbps;
    std::optional<int> quality;  // CRF of h264, quantiser scale of mpeg2video
    std::optional<std::string> preset;
    std::optional<int> keyFrameInterval_frames;
    std::optional<int> bFrames;
};

struct AudioSettings {
    Handling handling = Handling::kDefault;
    std::string codec = "aac";  // or "pcm_s16le", "pcm_s24le"
    std::optional<int> sampleRate_Hz;
    std::optional<int> channels;
    std::optional<int> bitRate_kbps;
};

struct TranscodeTask {
    std::string id;
    std::string source;  // absolute, as in the task text
    std::int64_t in_us = 0;
    std::optional<std::int64_t> out_us;
    bool ignoreDamage = false;
    std::string target;     // absolute, as in the task text
    std::string container;  // "mp4" or "mkv"
    bool overwrite = false;
    VideoSettings video;
    AudioSettings audio;
};

// Of the rates that MPEG-2 video can say, the nearest.
Rational NearestMpeg2Rate(const Rational& rate);

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadTranscodeTask(std::string_view text, TranscodeTask& task, task::XmlError& error);

}  // namespace rq::transcode

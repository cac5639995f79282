// The task text of a transcode (docs/tasks/transcode.md) from a command line. What it says about values is
// little: the plug-in reads them and knows what is allowed. Pure but for looking at the files; any thread.
#pragma once

#include <string>

#include "base/result.h"

namespace rq::ctl {

// As on the command line; empty texts are left out of the task text.
struct TranscodeOptions {
    std::string source;
    std::string target;
    std::string container;  // empty: by the target's ending
    bool overwrite = false;
    bool ignoreDamage = false;
    std::string in_s, out_s;
    std::string video;  // h264, mpeg2video, copy, none
    std::string width_px, height_px, frameRate_fps, videoBitRate_kbps, quality, preset;
    std::string keyFrameInterval_frames, bFrames;
    std::string audio;  // aac, pcm_s16le, pcm_s24le, copy, none
    std::string sampleRate_Hz, channels, audioBitRate_kbps;
};

// Makes both names absolute and finds the container; a setting without its codec gets the usual one.
Result<TranscodeOptions> PrepareTranscode(TranscodeOptions options);

// Of prepared options; `id` is the ID within the text.
std::string BuildTranscodeTaskXml(const std::string& id, const TranscodeOptions& options);

}  // namespace rq::ctl

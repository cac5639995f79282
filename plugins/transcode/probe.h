// What a written file is: its media format as a description for the task's result, and whether it is what was
// asked for. The thread that calls.
#pragma once

#include <optional>
#include <string>

#include "failure.h"
#include "plugin_common/media_format.h"
#include "source.h"

namespace rq::transcode {

// The description of an opened source.
task::MediaFormat Describe(const Source& source, std::uint64_t size_bytes);

// What the target must be.
struct Expected {
    struct Video {
        std::string codec;
        int width_px = 0;
        int height_px = 0;
        std::int64_t frames = 0;
    };
    struct Audio {
        std::string codec;
        int sampleRate_Hz = 0;
        int channels = 0;
    };
    std::string container;
    std::optional<Video> video;
    std::optional<Audio> audio;
    std::int64_t duration_us = 0;
    std::int64_t frame_us = 0;  // of one frame, 0 without video
};

// Whether the duration is off by no more than one frame or 0.1 s, whichever is longer, and the streams are
// those, and no more. `frames` is what the container tells of the number of pictures, 0 when it does not.
// What is wrong in words; empty when nothing is.
std::string Difference(const task::MediaFormat& found, std::int64_t frames, const Expected& expected);

}  // namespace rq::transcode

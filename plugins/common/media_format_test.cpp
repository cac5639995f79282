#include "plugin_common/media_format.h"

#include <gtest/gtest.h>

using rq::task::MediaFormat;
using rq::task::MediaFormatView;
using rq::task::MediaStream;

TEST(MediaFormatView, ShowsWhatItHolds) {
    MediaStream video;
    video.kind = RQ_STREAM_VIDEO;
    video.codec = "h264";
    video.width_px = 1920;
    video.height_px = 1080;
    video.frameRateNumerator = 30000;
    video.frameRateDenominator = 1001;
    video.duration_us = 5;
    MediaStream audio;
    audio.kind = RQ_STREAM_AUDIO;
    audio.codec = "a codec with a name that is long enough to be on the heap";
    audio.sampleRate_Hz = 48000;
    audio.channels = 2;
    audio.bitRate_bps = 128000;
    MediaFormat format{"mp4", 7, 8, 9, {video, audio}};
    const MediaFormatView view(std::move(format));
    const RQMediaFormat& raw = *view.Raw();
    EXPECT_EQ(raw.size, sizeof(RQMediaFormat));
    EXPECT_EQ(std::string(raw.container.p, raw.container.n), "mp4");
    EXPECT_EQ(raw.duration_us, 7);
    EXPECT_EQ(raw.size_bytes, 8u);
    EXPECT_EQ(raw.bitRate_bps, 9u);
    ASSERT_EQ(raw.streamCount, 2u);
    EXPECT_EQ(raw.streams[0]->size, sizeof(RQMediaStream));
    EXPECT_EQ(raw.streams[0]->kind, RQ_STREAM_VIDEO);
    EXPECT_EQ(raw.streams[0]->width_px, 1920u);
    EXPECT_EQ(raw.streams[0]->height_px, 1080u);
    EXPECT_EQ(raw.streams[0]->frameRateNumerator, 30000u);
    EXPECT_EQ(raw.streams[0]->frameRateDenominator, 1001u);
    EXPECT_EQ(raw.streams[0]->duration_us, 5);
    EXPECT_EQ(std::string(raw.streams[1]->codec.p, raw.streams[1]->codec.n), audio.codec);
    EXPECT_EQ(raw.streams[1]->sampleRate_Hz, 48000u);
    EXPECT_EQ(raw.streams[1]->channels, 2u);
    EXPECT_EQ(raw.streams[1]->bitRate_bps, 128000u);
    EXPECT_EQ(raw.streams[1]->duration_us, -1);
}

TEST(MediaFormatView, MayBeEmpty) {
    const MediaFormatView view(MediaFormat{});
    EXPECT_EQ(view.Raw()->streamCount, 0u);
    EXPECT_EQ(view.Raw()->container.n, 0u);
    EXPECT_EQ(view.Raw()->duration_us, -1);
}

// Why a transcode failed, as a value. The functions of this plug-in return a Problem; none means success.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace rq::transcode {

// Detail error codes (TaskInfo.detailErrorCode): those of the codec family that the engine knows by name.
enum class Detail : std::uint32_t {
    kNone = 0,
    kNoMemory = 0x80000003,
    kSourceOpen = 0x80000100,
    kSourceSize = 0x80000102,
    kTargetCreate = 0x80000104,
    kSourceRead = 0x80000107,
    kTargetWrite = 0x80000108,
    kUnknownSourceFormat = 0x80000200,
    kUnsupportedTargetFormat = 0x80000203,
    kUnknownSourceVideo = 0x80000300,
    kNoVideoInSource = 0x80000305,
    kNoVideoFrame = 0x80000307,
    kEncodeVideo = 0x80000309,
    kDecodeVideo = 0x8000030A,
    kUnknownSourceAudio = 0x80000400,
    kNoAudioInSource = 0x80000404,
    kNoAudioFrame = 0x80000406,
    kEncodeAudio = 0x80000407,
    kDecodeAudio = 0x80000408,
    kVideoDecoderMissing = 0x80000500,
    kVideoEncoderMissing = 0x80000501,
    kAudioDecoderMissing = 0x80000502,
    kAudioEncoderMissing = 0x80000503,
    kH264EncoderMissing = 0x8000050F,
    kVideoEncoderStart = 0x80000520,
    kVideoDecoderStart = 0x80000521,
    kMuxerMissing = 0x80000600,
    kMuxerRefusesVideo = 0x80000602,
    kMuxerRefusesAudio = 0x80000603,
    kProcessing = 0x80000653,
    kInPoint = 0x80000803,
};

struct Failure {
    std::int32_t errorCode = 0;  // one of plugin_common/codes.h
    Detail detail = Detail::kNone;
    std::string words;  // with the path that it is about
};

using Problem = std::optional<Failure>;

inline Problem FailureOf(std::int32_t errorCode, Detail detail, const std::string& words) {
    return Failure{errorCode, detail, words};
}

// "12.48 s".
std::string SecondsWords(std::int64_t time_us);

}  // namespace rq::transcode

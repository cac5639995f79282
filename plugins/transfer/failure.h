// Why a file is not at its place. Values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "plugin_common/digest.h"
#include "plugin_common/publish.h"

namespace rq::transfer {

struct Failure {
    std::int32_t errorCode = 0;  // of plugin_common/codes.h; 0: the stop flag ended it
    std::uint32_t systemCode = 0;
    std::string words;  // with the path
};
using Problem = std::optional<Failure>;

inline const Failure kStopped{};

// Of a path, by a code of the system. A full disk and a target that may not be written have codes and advice
// of their own; `words` have the path.
Failure SourceFailure(const std::string& path, std::uint32_t code);
Failure TargetFailure(std::uint32_t code, const std::string& words, std::uint64_t size_bytes);
Failure PublicationFailure(const task::PublishFailure& failure, std::uint64_t size_bytes);

std::string Md5Hex(const task::Md5Digest& digest);

}  // namespace rq::transfer

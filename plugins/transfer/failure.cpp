#include "failure.h"

#include "plugin_common/codes.h"
#include "plugin_common/file.h"

namespace rq::transfer {

Failure SourceFailure(const std::string& path, std::uint32_t code) {
    return {task::kErrorSourceUnreadable, code, path + ": " + task::SystemWords(code)};
}

Failure TargetFailure(std::uint32_t code, const std::string& words, std::uint64_t size_bytes) {
    switch (task::ClassOf(code)) {
        case task::CodeClass::kNoRoom:
            return {task::kErrorTargetFull, code,
                    words + "; the file needs " + std::to_string(size_bytes) +
                        " bytes: make room there, or choose another target"};
        case task::CodeClass::kReadOnly:
            return {task::kErrorTargetReadOnly, code,
                    words + "; let the worker's user write there, or choose another target"};
        case task::CodeClass::kOther:
        case task::CodeClass::kAbsent:
            break;
    }
    return {task::kErrorTargetUnwritable, code, words};
}

Failure PublicationFailure(const task::PublishFailure& failure, std::uint64_t size_bytes) {
    const std::int32_t code = task::TaskErrorOf(failure.problem);
    if (code != task::kErrorTargetUnwritable) return {code, failure.systemCode, failure.words};
    return TargetFailure(failure.systemCode, failure.words, size_bytes);
}

std::string Md5Hex(const task::Md5Digest& digest) {
    return task::HexOf(digest.data(), digest.size());
}

}  // namespace rq::transfer

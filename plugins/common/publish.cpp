#include "plugin_common/publish.h"

#include "plugin_common/codes.h"

namespace rq::task {
namespace {

constexpr std::string_view kSuffix = ".rqpart";
constexpr std::size_t kDigits = 16;

}  // namespace

std::int32_t TaskErrorOf(PublishProblem problem) {
    switch (problem) {
        case PublishProblem::kTargetIsSource:
            return kErrorTargetIsSource;
        case PublishProblem::kTargetExists:
            return kErrorTargetExists;
        case PublishProblem::kCheck:
            return kErrorOutputCheck;
        case PublishProblem::kCreate:
        case PublishProblem::kWrite:
        case PublishProblem::kRename:
            break;
    }
    return kErrorTargetUnwritable;
}

bool IsTemporaryName(std::string_view name) {
    if (name.size() < kSuffix.size() + kDigits + 3 || name.front() != '.') return false;
    if (name.substr(name.size() - kSuffix.size()) != kSuffix) return false;
    name.remove_suffix(kSuffix.size());
    const std::string_view digits = name.substr(name.size() - kDigits);
    return name[name.size() - kDigits - 1] == '.' &&
           digits.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace rq::task

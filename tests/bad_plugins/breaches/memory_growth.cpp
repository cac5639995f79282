// Keeps 256 KiB of each task.
#include <memory>
#include <vector>

#include "skeleton.h"

namespace breach {

std::vector<std::unique_ptr<char[]>>& Kept() {
    static std::vector<std::unique_ptr<char[]>> kept;
    return kept;
}

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            constexpr std::size_t kSize = 262'144;
            Kept().push_back(std::make_unique<char[]>(kSize));
            for (std::size_t at = 0; at < kSize; at += 4096) Kept().back()[at] = 1;
            call.Progress(1, 1);
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

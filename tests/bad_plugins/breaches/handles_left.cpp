// Leaves a file of each task open.
#include <cstdio>

#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            static std::FILE* last = nullptr;
            last = std::tmpfile();
            call.Progress(1, last == nullptr ? 0 : 1);
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

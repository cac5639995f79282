// Changes an entry after it was counted.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            std::this_thread::sleep_for(std::chrono::milliseconds(60));  // a report reads it
            call.record.file.computedMd5[0] = 2;
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

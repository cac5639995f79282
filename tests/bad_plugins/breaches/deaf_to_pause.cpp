// Says that it can be paused, and tells nothing for 1.7 s of its first task.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            static bool isFirst = true;
            if (isFirst) std::this_thread::sleep_for(std::chrono::milliseconds(1700));
            isFirst = false;
            call.Work();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

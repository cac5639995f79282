// Tells nothing for 1.2 s of its first task, and does not say that it can be paused.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.abilities = RQ_ABILITY_FINISH;
        made.work = [](const Call& call) {
            static bool isFirst = true;
            if (isFirst) std::this_thread::sleep_for(std::chrono::milliseconds(1200));
            isFirst = false;
            call.Work();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

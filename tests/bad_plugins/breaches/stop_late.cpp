// Takes 1.3 s to see a stop.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            if (call.Stop() != RQ_STOP_NONE) std::this_thread::sleep_for(std::chrono::milliseconds(1300));
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

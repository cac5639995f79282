// Never returns once it was told to stop.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            while (call.Stop() != RQ_STOP_NONE) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

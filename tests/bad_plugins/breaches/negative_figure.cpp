// Tells -5 of 100.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Progress(100, -5);
            call.Work();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

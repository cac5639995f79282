// Tells 150 of 100.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            call.Progress(100, 150);
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

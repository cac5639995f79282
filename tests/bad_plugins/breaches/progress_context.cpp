// Tells progress with a context of its own.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            int own = 0;
            call.progress(10, 0, &own);
            call.Work();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

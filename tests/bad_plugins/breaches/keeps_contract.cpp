// Breaks nothing.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;

        return made;
    }();
    return hooks;
}

}  // namespace breach

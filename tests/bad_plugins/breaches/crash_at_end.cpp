// Aborts when its objects are destroyed at the end of the process.
#include <cstdlib>

#include "skeleton.h"

namespace breach {

struct AtEnd {
    bool isArmed = false;
    ~AtEnd() {
        if (isArmed) std::abort();
    }
} g_atEnd;

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.release = [] { g_atEnd.isArmed = true; };
        return made;
    }();
    return hooks;
}

}  // namespace breach

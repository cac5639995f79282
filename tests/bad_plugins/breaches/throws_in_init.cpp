// An exception leaves its init function.
#include <stdexcept>

#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.init = [] { throw std::runtime_error("not caught"); };
        return made;
    }();
    return hooks;
}

}  // namespace breach

// Writes where nothing is mapped.
#include <cstdint>

#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call&) {
            volatile std::uintptr_t address = 64;
            *reinterpret_cast<volatile int*>(address) = 1;  // NOLINT(performance-no-int-to-ptr)
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

// Counts more entries than the list has room for.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            RQStore32(&call.record.list.count, 2);
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

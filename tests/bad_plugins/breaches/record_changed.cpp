// Gives the record another task ID while it is performed.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.record.info.taskId = RQText{"another", 7};
            call.Work();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

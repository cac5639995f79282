// Leaves a thread that lives for 2 s more.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.work = [](const Call& call) {
            call.Work();
            std::thread([] { std::this_thread::sleep_for(std::chrono::seconds(2)); }).detach();
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

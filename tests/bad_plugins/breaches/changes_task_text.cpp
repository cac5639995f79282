// Writes into the task text that it was lent.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.analyse = [](Record&, std::string_view text) {
            if (text == "<Task/>") const_cast<char&>(text.back()) = '\0';
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

// Wipes its further text through the record's field, where the worker may have put a text of its
// own.
#include <cstring>

#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.analyse = [](Record& record, std::string_view) {
            static char text[] = "a further text";
            record.info.furtherText = RQText{text, sizeof text - 1};
        };
        made.end = [](Record& record) {
            std::memset(const_cast<char*>(record.info.furtherText.p), 0, record.info.furtherText.n);
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

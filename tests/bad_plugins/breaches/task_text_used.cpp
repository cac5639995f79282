// Looks at the task text again while it performs, and fails when that is not as it was.
#include "skeleton.h"

namespace breach {

const Hooks& GetHooks() {
    static const Hooks hooks = [] {
        Hooks made;
        made.analyse = [](Record& record, std::string_view text) {
            record.info.own = text.empty() ? nullptr : &record;
        };
        made.work = [](const Call& call) {
            if (call.record.lentText.p[0] == '<') call.Work();
        };
        made.status = [](const Call& call) {
            if (call.record.lentText.p[0] != '<') return RQ_STATUS_ERROR;
            return call.Stop() == RQ_STOP_CANCEL ? RQ_STATUS_CANCELLED : RQ_STATUS_FINISHED;
        };
        return made;
    }();
    return hooks;
}

}  // namespace breach

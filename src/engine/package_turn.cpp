#include "engine/package_turn.h"

#include "link/codec.h"

namespace rq::engine {

PackageTurn::Meaning PackageTurn::Of(const TaskStatusEntry& entry, bool repeated) const {
    const bool final = link::IsFinalTaskStatus(entry.status);
    switch (m_phase) {
        case Phase::Given:
            if (entry.status == kTaskRunning) return Meaning::Begins;
            if (!final) return Meaning::Other;
            // The patrol may find a task overdue in the moment of its end. Behind its report the worker
            // begins none: it has set its stop flag before, and joins the patrol before it looks at the next
            // text.
            if (m_hasEarlier && !m_held && (repeated || entry.stalled)) return Meaning::OfEarlier;
            return Meaning::Ends;
        case Phase::Begun:
            // The core reports once before the perform call and once after it, whatever the status is then.
            return final ? Meaning::Ends : Meaning::EndsUnsaid;
        default:
            return final ? Meaning::Late : Meaning::Other;
    }
}

}  // namespace rq::engine

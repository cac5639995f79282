// Whose a report of a package worker is. Such a worker performs the tasks that it was given (with its start,
// then by add orders) in their order, and its reports carry only the task ID that the plug-in read from the
// text, which another task's text may hold, too. What tells them apart is their order (docs/engine.md): the
// worker has its earlier task's final status acknowledged, and its progress thread joined, before it looks at
// the next text.
//
// A pure state machine, without I/O; the engine's I/O thread. It stands on the task in hand: the one whose
// reports come next.
#pragma once

#include "records/engine_messages.h"

namespace rq::engine {

class PackageTurn {
  public:
    enum class Meaning {
        Begins,      // status 3: the task is performed from now on
        Ends,        // its first final status, or the refusal of its text
        EndsUnsaid,  // its perform call has returned without a final status
        Late,        // a further final status of the task in hand, which has ended
        OfEarlier,   // a further final status of the task before it
        Other,       // says nothing about the task's end
    };
    // `repeated`: the worker marked it as one that was sent before and not acknowledged in time.
    Meaning Of(const TaskStatusEntry& entry, bool repeated) const;

    void Begin() { m_phase = Phase::Begun; }
    // Its end is committed.
    void End() { m_phase = Phase::Ended; }
    // Its end could not be committed and will be repeated.
    void Hold() { m_held = true; }
    // The worker may begin the next task from now on.
    void Turn() {
        m_phase = Phase::Given;
        m_hasEarlier = true;
        m_held = false;
    }
    // Not begun, as far as the worker has said, and another one ended before it.
    bool IsAwaited() const { return m_phase == Phase::Given && m_hasEarlier; }

  private:
    enum class Phase { Given, Begun, Ended };
    Phase m_phase = Phase::Given;
    bool m_hasEarlier = false;
    bool m_held = false;
};

}  // namespace rq::engine

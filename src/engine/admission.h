// Admission: whether a task may start beside what runs, by the node's limits: workers of its type, memory and
// cores that it declares, and its volumes. It also decides who goes first when a task waits for memory or
// cores: later ones may pass it for a while, and then nothing that declares either is started before it.
// No I/O; time, usage and volumes are given. One thread.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "engine/api_request.h"
#include "engine/limits.h"
#include "engine/node_facts.h"
#include "engine/path_map.h"
#include "engine/store_types.h"
#include "engine/volume_watch.h"

namespace rq::engine {

class Admission {
  public:
    // Limits of 0 are made what the machine has.
    explicit Admission(const NodeLimits& limits, PathMap paths = {});

    const NodeLimits& Limits() const { return m_limits; }
    // Turns the volumes of a submission into their names; refuses one that could never start here.
    std::optional<FieldError> Accept(NewTask& task) const;

    // Every limit that holds such a task, in order.
    std::vector<WaitReason> Reasons(std::int32_t type, const Demand& demand, const Usage& usage,
                                    const VolumeStates& volumes) const;

    // One choice of the next task: Begin, then MayStart for candidates in the order of their turns until one
    // may, then End, which says whether all were asked.
    void Begin(Usage usage, VolumeStates volumes, SteadyTime now);
    // `others`: whether the rules that are not of this class let it start.
    bool MayStart(const Candidate& candidate, bool others);
    void End(bool askedAll);

    // The task for which memory and cores are kept, as the latest choice found.
    std::optional<std::int64_t> KeptFor() const { return m_keptFor; }
    // Since when the task could start but for memory or cores.
    std::optional<SteadyTime> PassedSince(std::int64_t task) const;

  private:
    struct Verdict {
        bool held = false;       // by anything
        bool lacksRoom = false;  // by memory or cores alone
    };
    Verdict Judge(std::int32_t type, const Demand& demand);

    NodeLimits m_limits;
    PathMap m_paths;
    Usage m_usage;
    VolumeStates m_volumes;
    SteadyTime m_now;
    std::map<std::pair<std::int32_t, Demand>, Verdict> m_verdicts;  // of this choice
    std::map<std::int64_t, SteadyTime> m_passed;                    // by task
    std::set<std::int64_t> m_asked;                                 // of those, in this choice
    std::optional<std::int64_t> m_keptFor;
};

// "4096 of 8192 MiB"
std::string OfText(std::int64_t present, std::int64_t limit, const std::string& unit);

}  // namespace rq::engine

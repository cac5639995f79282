#include "engine/admission.h"

#include <algorithm>
#include <filesystem>
#include <thread>

#include "base/paths.h"
#include "base/text.h"
#include "platform/machine.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

constexpr std::int64_t kMiB = 1024 * 1024;

FieldError Bad(const std::string& field, const std::string& why) {
    return {"bad-field", field, field + ": " + why};
}

std::string TypeText(std::int32_t type) {
    const auto code = CodeOfTaskType(type);
    return code.empty() ? std::to_string(type) : std::string(code);
}

std::string VolumeNames(const NodeLimits& limits) {
    if (limits.volumes.empty()) return "this engine has none: add [volumes.NAME] to its configuration";
    std::string names;
    for (const auto& [name, volume] : limits.volumes)
        names += (names.empty() ? "there are " : ", ") + name + " (" + volume.path + ")";
    return names;
}

// Whether the path lies below the folder, by their parts.
bool IsBelow(const std::filesystem::path& path, const std::filesystem::path& folder) {
    auto part = path.begin();
    for (const auto& one : folder) {
        if (one.empty()) continue;  // behind a closing separator
        if (part == path.end() || *part != one) return false;
        ++part;
    }
    return true;
}

// The volume that a name or path means; the text of what is wrong with it otherwise. A path may be called
// otherwise on this node.
std::optional<std::string> VolumeOf(const NodeLimits& limits, const PathMap& paths, const std::string& text,
                                    std::string& problem) {
    if (limits.volumes.contains(text)) return text;
    const auto local = paths.Local(text);
    const std::filesystem::path path = PathFromUtf8(local.value_or(text));
    const std::string shown = "\"" + std::string(CutUtf8(text, 120)) + "\"" +
                              (local ? ", here \"" + std::string(CutUtf8(*local, 120)) + "\"," : "");
    if (!path.is_absolute()) {
        problem = shown + " is neither a volume nor an absolute path; " + VolumeNames(limits);
        return std::nullopt;
    }
    if (std::any_of(path.begin(), path.end(), [](const auto& part) { return part == ".."; })) {
        problem = shown + " holds \"..\"; write the path that is meant";
        return std::nullopt;
    }
    std::optional<std::string> found;
    std::size_t longest = 0;
    for (const auto& [name, volume] : limits.volumes) {
        if (!IsBelow(path.lexically_normal(), PathFromUtf8(volume.path).lexically_normal())) continue;
        if (found && volume.path.size() <= longest) continue;
        found = name;
        longest = volume.path.size();
    }
    if (!found) problem = shown + " is on no volume; " + VolumeNames(limits);
    return found;
}

WaitReason Over(const std::string& rule, const std::string& text, std::int64_t limit, std::int64_t present,
                const std::string& unit) {
    WaitReason reason;
    reason.rule = rule;
    reason.text = text;
    reason.limit = limit;
    reason.present = present;
    reason.unit = unit;
    return reason;
}

// Of memory or cores.
std::optional<WaitReason> Lacks(const std::string& rule, std::int64_t wanted, std::int64_t taken,
                                std::uint64_t limit, const std::string& unit) {
    const auto most = static_cast<std::int64_t>(limit);
    if (wanted == 0 || most == 0 || taken + wanted <= most) return std::nullopt;
    const std::string text = wanted > most ? "it takes " + std::to_string(wanted) + " " + unit +
                                                 " and the node has " + std::to_string(most) +
                                                 ": it can never start here; cancel it, or allow more"
                                           : "it takes " + std::to_string(wanted) + " " + unit +
                                                 "; running tasks take " + OfText(taken, most, unit);
    return Over(rule, text, most, taken, unit);
}

}  // namespace

std::string OfText(std::int64_t present, std::int64_t limit, const std::string& unit) {
    return std::to_string(present) + " of " + std::to_string(limit) + " " + unit;
}

Admission::Admission(const NodeLimits& limits, PathMap paths) : m_limits(limits), m_paths(std::move(paths)) {
    if (m_limits.memory_MiB == 0) m_limits.memory_MiB = platform::TotalMemory_bytes() / kMiB;
    if (m_limits.cores == 0) m_limits.cores = std::max(1u, std::thread::hardware_concurrency());
}

std::optional<FieldError> Admission::Accept(NewTask& task) const {
    const auto tooMuch = [](const std::string& field, std::int64_t wanted, std::uint64_t limit,
                            const std::string& unit) -> std::optional<FieldError> {
        if (limit == 0 || wanted <= static_cast<std::int64_t>(limit)) return std::nullopt;
        return Bad(field, std::to_string(wanted) + " " + unit + " are more than the node has, " +
                              std::to_string(limit) + "; such a task could never start here");
    };
    if (auto fault = tooMuch("memory_mib", task.demand.memory_MiB, m_limits.memory_MiB, "MiB")) return fault;
    if (auto fault = tooMuch("cores", task.demand.cores, m_limits.cores, "cores")) return fault;
    std::set<std::string> names;
    for (const auto& text : task.demand.volumes) {
        std::string problem;
        const auto name = VolumeOf(m_limits, m_paths, text, problem);
        if (!name) return Bad("volumes", problem);
        names.insert(*name);
    }
    task.demand.volumes.assign(names.begin(), names.end());
    return std::nullopt;
}

std::vector<WaitReason> Admission::Reasons(std::int32_t type, const Demand& demand, const Usage& usage,
                                           const VolumeStates& volumes) const {
    std::vector<WaitReason> reasons;
    if (const auto most = m_limits.typeWorkers.find(type); most != m_limits.typeWorkers.end()) {
        const auto running = usage.workers.find(type);
        const unsigned now = running == usage.workers.end() ? 0 : running->second;
        if (now >= most->second)
            reasons.push_back(
                Over("type-workers",
                     OfText(now, most->second, "workers of type " + TypeText(type)) + " are running",
                     most->second, now, "workers"));
    }
    for (const auto& name : demand.volumes) {
        const auto volume = volumes.find(name);
        if (volume == volumes.end()) {
            reasons.push_back(
                {"volume", "volume " + name + " is not in the engine's configuration any more"});
        } else if (volume->second.away) {
            reasons.push_back({"volume", "volume " + name + " is away: " + *volume->second.away});
        } else if (volume->second.IsShort()) {
            const auto free_MiB = static_cast<std::int64_t>(volume->second.free_bytes) / kMiB;
            const auto floor_MiB = static_cast<std::int64_t>(volume->second.floor_bytes) / kMiB;
            reasons.push_back(Over("volume-space",
                                   "volume " + name + " (" + volume->second.path + ") has " +
                                       std::to_string(free_MiB) + " MiB free; its floor is " +
                                       std::to_string(floor_MiB) + " MiB",
                                   floor_MiB, free_MiB, "MiB"));
        }
    }
    if (auto lacks = Lacks("memory", demand.memory_MiB, usage.memory_MiB, m_limits.memory_MiB, "MiB"))
        reasons.push_back(std::move(*lacks));
    if (auto lacks = Lacks("cores", demand.cores, usage.cores, m_limits.cores, "cores"))
        reasons.push_back(std::move(*lacks));
    return reasons;
}

void Admission::Begin(Usage usage, VolumeStates volumes, SteadyTime now) {
    m_usage = std::move(usage);
    m_volumes = std::move(volumes);
    m_now = now;
    m_verdicts.clear();
    m_asked.clear();
    m_keptFor.reset();
}

Admission::Verdict Admission::Judge(std::int32_t type, const Demand& demand) {
    const auto [known, isNew] = m_verdicts.try_emplace({type, demand});
    if (isNew) {
        const auto reasons = Reasons(type, demand, m_usage, m_volumes);
        known->second.held = !reasons.empty();
        known->second.lacksRoom =
            !reasons.empty() && std::all_of(reasons.begin(), reasons.end(), [](const WaitReason& reason) {
                return reason.rule == "memory" || reason.rule == "cores";
            });
    }
    return known->second;
}

bool Admission::MayStart(const Candidate& candidate, bool others) {
    const bool declares = candidate.demand.memory_MiB != 0 || candidate.demand.cores != 0;
    const Verdict verdict = others ? Judge(candidate.type, candidate.demand) : Verdict{true, false};
    if (verdict.lacksRoom) {
        const bool fitsEver = candidate.demand.memory_MiB <= static_cast<std::int64_t>(m_limits.memory_MiB) &&
                              candidate.demand.cores <= static_cast<std::int64_t>(m_limits.cores);
        const auto since = m_passed.try_emplace(candidate.task, m_now).first->second;
        m_asked.insert(candidate.task);
        if (!m_keptFor && fitsEver && m_now - since >= m_limits.passFor) m_keptFor = candidate.task;
        return false;
    }
    if (verdict.held || (declares && m_keptFor)) return false;
    m_passed.erase(candidate.task);
    return true;
}

void Admission::End(bool askedAll) {
    // Who was not met has ended, or is held by something else now: it is passed anew.
    if (askedAll) std::erase_if(m_passed, [&](const auto& entry) { return !m_asked.contains(entry.first); });
}

std::optional<SteadyTime> Admission::PassedSince(std::int64_t task) const {
    const auto found = m_passed.find(task);
    return found == m_passed.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace rq::engine

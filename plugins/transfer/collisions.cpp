// What a task that overwrites must not write over: its own sources, of which some are not transferred yet.
#include <algorithm>

#include "plugin_common/codes.h"
#include "transfer_work.h"
#include "url.h"

namespace rq::transfer {

// A target that is its own source is found when its turn comes (CheckTarget), and does not keep the others of
// its item from being transferred.
void TransferWork::RefuseCollisions() {
    if (!m_task.overwrite) return;
    struct Source {
        Identity identity;
        const Job* job;
        bool operator<(const Source& other) const { return identity < other.identity; }
    };
    std::vector<Source> sources;
    for (const Job& job : m_jobs) {
        if (!Tell(0)) return;
        if (job.kind == Kind::kFolder || IsUrl(job.source)) continue;
        // A link that is an item is followed: it is a source, and so is what it leads to.
        for (const bool follow : {false, true}) {
            if (follow && job.kind != Kind::kFile) continue;
            if (const auto identity = IdentityOf(job.source, follow)) sources.push_back({*identity, &job});
        }
    }
    std::sort(sources.begin(), sources.end());
    const auto refuse = [&](const std::string& target, const Job* own, std::size_t item) {
        if (m_itemRefused[item]) return;
        const auto identity = IdentityOf(target, false);
        if (!identity) return;
        const auto found = std::equal_range(sources.begin(), sources.end(), Source{*identity, nullptr});
        const auto other =
            std::find_if(found.first, found.second, [&](const Source& source) { return source.job != own; });
        if (other == found.second) return;
        m_itemRefused[item] = true;
        Note({task::kErrorTargetIsSource, 0,
              target + ": the target is a source of this task: " + other->job->source +
                  "; nothing of its <Item> was done"},
             item);
    };
    for (const Job& job : m_jobs) {
        if (!Tell(0)) return;
        if (job.kind != Kind::kFolder && !IsUrl(job.target)) refuse(job.target, &job, job.item);
    }
    for (std::size_t item = 0; m_task.manifest && item < m_task.items.size(); ++item)
        for (const char* ending : {".md5", ".sha256"})
            if (ending[1] == 'm' ? m_task.md5 : m_task.sha256)
                refuse(m_task.items[item].target + ending, nullptr, item);
}

}  // namespace rq::transfer

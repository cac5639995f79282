// What there is to do, and what a task must not write over: its own sources, of which some are not
// transferred yet.
#include <algorithm>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/node.h"
#include "transfer_work.h"
#include "url.h"

namespace rq::transfer {

void TransferWork::Plan(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    if (IsUrl(wanted.source)) return PlanUrl(item);
    Seen seen;
    std::uint32_t code = LookAt(wanted.source, true, seen);
    if (code == 0 && seen.kind == Kind::kAbsent) {
        task::InputFile file;  // the system's own words for what is missing
        code = file.Open(wanted.source);
    }
    if (code != 0) return Note(SourceFailure(wanted.source, code), item);
    Seen named;
    if (m_task.move && LookAt(wanted.source, false, named) == 0 && named.kind == Kind::kLink)
        return Note({task::kErrorSourceUnreadable, 0,
                     wanted.source + ": is a link, which is copied, not moved; name what it leads to"},
                    item);
    if (seen.kind == Kind::kFolder && IsUrl(wanted.target))
        return Note({task::kErrorSourceUnreadable, 0,
                     wanted.source + ": is a folder, and only files are sent to URLs"},
                    item);
    if (seen.kind == Kind::kFolder && wanted.expected)
        return Note(
            {task::kErrorSourceUnreadable, 0, wanted.source + ": is a folder; leave <MD5> out of its <Item>"},
            item);
    m_items[item].kind = seen.kind;
    m_items[item].size_bytes = seen.size_bytes;
}

std::uint32_t TransferWork::EachEntry(const std::string& folder,
                                      const std::function<void(const Seen&)>& visit) {
    FolderReader reader;
    std::uint32_t code = reader.Open(folder);
    for (std::vector<Seen> entries; code == 0;) {
        code = reader.Next(entries, [this] { return Tell(0); });
        if (entries.empty()) break;
        for (const Seen& entry : entries) {
            if (!Tell(0)) return 0;
            if (task::IsTemporaryName(entry.name))
                m_metTemporary = true;
            else
                visit(entry);
        }
    }
    return code;
}

// A link that is an item is followed: it is a source, and so is what it leads to.
void TransferWork::FindRoots() {
    for (std::size_t item = 0; item < m_items.size() && Tell(0); ++item) {
        const std::string& source = m_task.items[item].source;
        if (m_items[item].kind == Kind::kAbsent || IsUrl(source)) continue;
        const auto named = IdentityOf(source, false);
        const auto end = IdentityOf(source, true);
        const bool isFolder = m_items[item].kind == Kind::kFolder;
        if (end) m_roots.push_back({*end, item, isFolder});
        if (named && named != end) m_roots.push_back({*named, item, false});
    }
    std::sort(m_roots.begin(), m_roots.end());
}

void TransferWork::Survey(std::size_t item) {
    const TransferItem& wanted = m_task.items[item];
    ItemState& state = m_items[item];
    if (state.kind == Kind::kAbsent) return;
    if (state.kind != Kind::kFolder) state.planned_bytes = state.size_bytes;
    if (IsUrl(wanted.target)) return SurveyFile(item, wanted.source, {}, {});
    const Where above = LocateAll(item, ParentOf(wanted.target));
    if (state.kind == Kind::kFolder) {
        Where where = above;
        Locate(item, wanted.target, where);
        if (where.isInOwn) {
            state.isRefused = true;
            Note({task::kErrorTargetIsSource, 0,
                  wanted.target + ": the target is the source or lies in it: " + wanted.source},
                 item);
        }
        m_metTemporary = false;
        SurveyFolder(item, wanted.source, wanted.target, where);
        state.holdsTemporaries = m_metTemporary;
    } else {
        SurveyFile(item, wanted.source, wanted.target, above);
    }
    if (m_task.manifest && m_task.md5) SurveyTarget(item, {}, wanted.target + ".md5", above);
    if (m_task.manifest && m_task.sha256) SurveyTarget(item, {}, wanted.target + ".sha256", above);
}

void TransferWork::SurveyFolder(std::size_t item, const std::string& source, const std::string& target,
                                Where where) {
    const std::uint32_t code = EachEntry(source, [&](const Seen& entry) {
        const std::string from = task::PathIn(source, entry.name);
        const std::string to = task::PathIn(target, entry.name);
        if (entry.kind != Kind::kFolder) {
            m_items[item].planned_bytes += entry.size_bytes;
            return SurveyFile(item, from, to, where);
        }
        Where below = where;
        Seen there;
        if (LookAt(to, false, there) == 0 && there.kind == Kind::kLink)
            below = LocateAll(item, to);
        else if (there.kind == Kind::kFolder)
            Locate(item, to, below);
        // What is made there would be transferred again.
        if (below.isInOwn) RefuseCollision(item, to, m_task.items[item].source);
        SurveyFolder(item, from, to, below);
    });
    // Its turn says why.
    if (code != 0) m_items[item].wasListed = false;
}

void TransferWork::SurveyFile(std::size_t item, const std::string& source, const std::string& target,
                              Where where) {
    ++m_items[item].files;
    if (!target.empty()) SurveyTarget(item, source, target, where);
}

// A target that is its own source is found when its turn comes (CheckTarget), and does not keep the others of
// its item from being transferred.
void TransferWork::SurveyTarget(std::size_t item, const std::string& source, const std::string& target,
                                const Where& where) {
    if (!m_task.overwrite || m_items[item].isRefused) return;
    const auto identity = IdentityOf(target, false);
    if (!identity) return;
    const auto found = std::equal_range(m_roots.begin(), m_roots.end(), Root{*identity, 0, false});
    const auto other =
        std::find_if(found.first, found.second, [&](const Root& root) { return root.item != item; });
    if (other != found.second) return RefuseCollision(item, target, m_task.items[other->item].source);
    Seen there;
    if (where.inside == nullptr || LookAt(target, false, there) != 0 || there.kind == Kind::kFolder) return;
    if (source != target && !task::IsSameFile(source, target))
        RefuseCollision(item, target, m_task.items[where.inside->item].source);
}

void TransferWork::RefuseCollision(std::size_t item, const std::string& target, const std::string& source) {
    if (m_items[item].isRefused) return;
    m_items[item].isRefused = true;
    Note({task::kErrorTargetIsSource, 0,
          target + ": the target is a source of this task: " + source + "; nothing of its <Item> was done"},
         item);
}

void TransferWork::Locate(std::size_t item, const std::string& folder, Where& where) const {
    const auto identity = IdentityOf(folder, true);
    if (!identity) return;
    const auto found = std::equal_range(m_roots.begin(), m_roots.end(), Root{*identity, 0, false});
    for (auto root = found.first; root != found.second; ++root) {
        if (!root->isFolder) continue;
        where.inside = &*root;
        where.isInOwn = where.isInOwn || root->item == item;
    }
}

TransferWork::Where TransferWork::LocateAll(std::size_t item, const std::string& path) const {
    Where where;
    for (std::string above = RealPath(path);; above = ParentOf(above)) {
        Locate(item, above, where);
        if (above.empty() || ParentOf(above) == above) return where;
    }
}

}  // namespace rq::transfer

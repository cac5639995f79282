// Does one transfer. First everything is looked at once: how many files and bytes there are, and whether a
// target would be a source of the task (survey.cpp). Then the items are walked again, and each file is
// brought to its place: many small ones are synced and named together (batch.cpp). No list of the files is
// kept, so that memory does not grow with their number. A file that fails does not keep the others from being
// transferred. Lives as long as one perform call, on its thread; copy_stream has threads of its own for each
// file, and what waits for the disk has one.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "copy_stream.h"
#include "failure.h"
#include "manifest.h"
#include "places.h"
#include "plugin_common/publish.h"
#include "remote.h"
#include "rqworker/plugin.hpp"
#include "transfer_task.h"

namespace rq::transfer {

class TransferRecord final : public plugin::TaskRecord {
  public:
    explicit TransferRecord(TransferTask task)
        : TaskRecord(RQ_TYPE_TRANSFER, task.id), m_task(std::move(task)) {}
    const TransferTask& Task() const { return m_task; }

  private:
    TransferTask m_task;
};

constexpr std::chrono::milliseconds kReport_ms{50};
// How long one call of the system may take before the task counts as stalled, and one that waits for the
// disk.
constexpr std::int64_t kOneCall_s = 60;
constexpr std::chrono::seconds kSync{600};
constexpr std::size_t kMaxFurtherText_bytes = 64u << 10;
// More results than this are not told: the report would be larger than what it is about.
constexpr std::size_t kMaxResults = 10'000;
// A batch is synced and named when it has so many files, or bytes, or is so old.
constexpr std::size_t kBatchFiles = 128;
constexpr std::uint64_t kBatch_bytes = 16u << 20;
constexpr std::chrono::seconds kBatchAge{2};

class TransferWork {
  public:
    TransferWork(TransferRecord& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    // One that is being filled, or an item's beginning.
    struct Folder {
        std::shared_ptr<Folder> above;
        bool wasMade = false;
        bool hasFailed = false;  // something in it, however deep
    };
    struct Job {
        std::string source;
        std::string target;
        std::string name;  // in the manifest
        Kind kind = Kind::kFile;
        std::uint64_t planned_bytes = 0;
        std::size_t item = 0;
        std::uint32_t code = 0;            // why it cannot be looked at
        std::shared_ptr<Folder> folder{};  // it lies in; of a folder that is done itself
        bool isCompared = false;           // has its entry in the first list
        bool isPending = false;            // in the batch
    };
    // What waits for its batch: a file that is written, a link that is made, a folder that is filled.
    struct Pending {
        Job job;
        std::unique_ptr<task::InputFile> source{};  // of a move
        std::unique_ptr<task::Publication> target{};
        Digests digests{};
        std::uint64_t size_bytes = 0;
        bool isNamed = false;
        Problem problem{};
    };
    struct ItemState {
        Kind kind = Kind::kAbsent;  // absent: there is nothing to do
        std::uint64_t size_bytes = 0;
        std::size_t files = 0;
        std::uint64_t planned_bytes = 0;  // with all that is in it
        bool isRefused = false;
        bool hasFailed = false;
        bool wasListed = true;
        bool holdsTemporaries = false;  // of other transfers
    };
    // A source as the task names it.
    struct Root {
        Identity identity;
        std::size_t item;
        bool isFolder;
        bool operator<(const Root& other) const { return identity < other.identity; }
    };
    // Where a target lies: in whose source folder, if in any.
    struct Where {
        const Root* inside = nullptr;
        bool isInOwn = false;
    };

    // What there is to do; survey.cpp.
    void Plan(std::size_t item);
    void FindRoots();
    void Survey(std::size_t item);
    void SurveyFolder(std::size_t item, const std::string& source, const std::string& target, Where where);
    void SurveyFile(std::size_t item, const std::string& source, const std::string& target, Where where);
    void SurveyTarget(std::size_t item, const std::string& source, const std::string& target,
                      const Where& where);
    void Locate(std::size_t item, const std::string& folder, Where& where) const;
    Where LocateAll(std::size_t item, const std::string& path) const;
    void RefuseCollision(std::size_t item, const std::string& target, const std::string& source);
    // Calls `visit` with what is in the folder, but what another transfer writes there.
    std::uint32_t EachEntry(const std::string& folder, const std::function<void(const Seen&)>& visit);

    void DoItem(std::size_t item);
    bool MoveWholeFolder(std::size_t item);
    void CompareMoved(const std::string& source, const std::string& target, std::size_t item);
    void DoEntry(Job job);
    void DoFolder(Job job);
    Problem DoJob(Job& job);
    Problem DoLink(Job& job);
    Problem DoFile(Job& job);
    Problem CheckTarget(const std::string& source, const std::string& target) const;
    // False in `moved` when it lies on another file system.
    Problem MoveByName(Job& job, bool& moved);
    Problem Copy(Job& job);
    // A folder that was cleaned of leftovers last is not cleaned again.
    task::Publication::Cleaning CleaningOf(const std::string& folder);
    // Creates the temporary of a file's target.
    Problem Begin(const Job& job, const std::vector<std::string>& sources, std::uint64_t size_bytes,
                  task::Publication& target);
    // From and to URLs; fetch.cpp.
    void PlanUrl(std::size_t item);
    Problem Settle(const Job& job, bool isSource, Remote::Settings& settings);
    Problem Fetch(Job& job);
    Problem Send(Job& job);
    Problem ReadBack(Job& job, Remote& remote, const Digests& digests);
    Problem Pass(const Job& job, task::InputFile& source, task::Publication* target, Digests& digests);
    Problem CheckSource(const Job& job, const task::InputFile& source) const;
    Problem CheckExpected(Job& job, const Digests& digests, const task::Md5Digest* found);

    // The batch; batch.cpp.
    void Queue(Pending pending);
    bool IsBatchFull() const;
    void Flush();
    void SyncBatch();
    void NameBatch();
    void FinishFolders();
    void EndBatch();
    void SyncChanged();
    Problem RemoveSource(Pending& pending);
    Problem ReadBack(Pending& pending);

    void Result(Job& job, const char* how, std::uint64_t size_bytes, const Digests& digests);
    // The entry of a file in the first list: its digests, or null for both when nothing is compared.
    void Compared(Job& job, const task::Md5Digest* first, const task::Md5Digest* second);
    void Note(Failure failure, std::size_t item);
    void Note(Failure failure, const Job& job);
    static void MarkFailed(std::shared_ptr<Folder> folder);
    bool WantsBytes(std::size_t item) const;
    bool Stopped() const { return m_run.Stop() != RQ_STOP_NONE; }
    bool Tell(std::uint64_t done_bytes);
    // Does what waits for the disk on a thread of its own, while this one gives signs of life, so that a
    // suspended task is held soon. Of a disk that hangs the signs end after kSync.
    template <class Work>
    auto Aside(const Work& work);
    plugin::Outcome Conclude();

    TransferRecord& m_record;
    const TransferTask& m_task;
    plugin::Run& m_run;
    const plugin::Host& m_host;
    RateLimit m_limit;
    std::vector<ItemState> m_items;
    std::vector<Root> m_roots;           // in order
    std::optional<Manifest> m_manifest;  // of the item that is done
    std::vector<Pending> m_pending;
    std::uint64_t m_pending_bytes = 0;
    std::chrono::steady_clock::time_point m_pendingSince;
    std::set<std::string> m_changedFolders;  // whose names are not synced yet
    std::string m_cleanedFolder;             // of leftovers
    bool m_metTemporary = false;             // of another transfer, in a folder that was listed
    std::size_t m_files = 0;
    std::uint64_t m_total_bytes = 0;
    std::uint64_t m_base_bytes = 0;  // of the jobs that are done with
    std::int64_t m_told_bytes = 0;
    std::chrono::steady_clock::time_point m_toldAt = std::chrono::steady_clock::now();
    std::size_t m_done = 0;
    std::size_t m_results = 0;
    std::size_t m_comparisons = 0;
    std::optional<Failure> m_first;
    std::string m_failures;
    std::size_t m_unlisted = 0;
};

template <class Work>
auto TransferWork::Aside(const Work& work) {
    auto result = std::async(std::launch::async, work);
    for (std::chrono::milliseconds left = kSync; left > left.zero(); left -= kReport_ms) {
        m_run.QuietFor(std::chrono::ceil<std::chrono::seconds>(left).count());
        if (result.wait_for(kReport_ms) == std::future_status::ready) break;
    }
    return result.get();
}

}  // namespace rq::transfer

// Does one transfer: plans which files there are, and brings one after the other to its place. A file that
// fails does not keep the others from being transferred. Lives as long as one perform call, on its thread;
// copy_stream has threads of its own for each file, and a sync has one.
#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "copy_stream.h"
#include "failure.h"
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

class TransferWork {
  public:
    TransferWork(TransferRecord& record, plugin::Run& run, const plugin::Host& host);
    plugin::Outcome Do();

  private:
    struct Job {
        std::string source;
        std::string target;
        std::string name;  // in the manifest
        Kind kind = Kind::kFile;
        std::uint64_t planned_bytes = 0;
        std::size_t item = 0;
        std::uint32_t code = 0;  // why it cannot be looked at
    };
    struct Line {
        std::string name;
        Digests digests;
    };

    // What there is to do.
    void Plan(std::size_t item);
    void PlanFolder(const std::string& source, const std::string& target, const std::string& name,
                    std::size_t item);
    void PlanEntry(Job job);
    // Items that would write over sources of this task; collisions.cpp.
    void RefuseCollisions();

    void DoItem(std::size_t item);
    bool MoveWholeFolder(std::size_t item);
    Problem DoJob(const Job& job);
    Problem DoLink(const Job& job);
    Problem DoFile(const Job& job);
    Problem CheckTarget(const std::string& source, const std::string& target) const;
    // False in `moved` when it lies on another file system.
    Problem MoveByName(const Job& job, bool& moved);
    Problem Copy(const Job& job);
    // From and to URLs; fetch.cpp.
    void PlanUrl(std::size_t item);
    Problem Settle(const Job& job, bool isSource, Remote::Settings& settings);
    Problem Fetch(const Job& job);
    Problem Send(const Job& job);
    Problem ReadBack(const Job& job, Remote& remote, const Digests& digests);
    Problem Pass(const Job& job, task::InputFile& source, task::Publication* target, Digests& digests);
    Problem Publish(const Job& job, task::Publication& target, const Digests& digests);
    Problem ReadBack(const Job& job, const task::Publication& target, const Digests& digests);
    Problem CheckSource(const Job& job, const task::InputFile& source) const;
    Problem CheckExpected(const Job& job, const Digests& digests, const task::Md5Digest* found);
    Problem WriteManifest(std::size_t item, const std::string& ending);
    Problem FromPublication(const task::PublishFailure& failure, std::uint64_t size_bytes) const;
    void FinishFolders(std::size_t item);

    void Result(const Job& job, const char* how, std::uint64_t size_bytes, const Digests& digests);
    // The entry of a file in the first list: its digests, or null for both when nothing is compared.
    void Compared(const Job& job, const task::Md5Digest* first, const task::Md5Digest* second);
    void Note(Failure failure, std::size_t item);
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
    std::vector<Job> m_jobs;
    std::vector<std::vector<Line>> m_lines;  // of each item's manifest
    std::vector<bool> m_itemFailed;
    std::vector<bool> m_itemRefused;  // nothing of it is done
    std::uint64_t m_total_bytes = 0;
    std::uint64_t m_base_bytes = 0;  // of the jobs that are done with
    std::int64_t m_told_bytes = 0;
    std::chrono::steady_clock::time_point m_toldAt = std::chrono::steady_clock::now();
    std::size_t m_done = 0;
    std::size_t m_results = 0;
    std::size_t m_comparisons = 0;
    const Job* m_compared = nullptr;  // the last job that has its entry in the first list
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

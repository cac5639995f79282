// Does one deletion: looks how much there is, then deletes and writes the journal. An item that fails does
// not keep the others from being deleted. Lives as long as one perform call, on its thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "delete_task.h"
#include "plugin_common/report.h"
#include "rqworker/plugin.hpp"
#include "tree.h"

namespace rq::del {

class DeleteRecord final : public plugin::TaskRecord {
  public:
    explicit DeleteRecord(DeleteTask task) : TaskRecord(RQ_TYPE_DELETE, task.id), m_task(std::move(task)) {}
    const DeleteTask& Task() const { return m_task; }

  private:
    DeleteTask m_task;
};

constexpr std::chrono::milliseconds kReport_ms{50};
// How long one call of the system may take before the task counts as stalled.
constexpr std::int64_t kOneCall_s = 60;
// Longer lists of failures are cut; the journal has them all.
constexpr std::size_t kMaxFurtherText_bytes = 16u << 10;

class DeleteWork final : TreeEvents {
  public:
    DeleteWork(DeleteRecord& record, plugin::Run& run, const plugin::Host& host)
        : m_record(record), m_run(run), m_host(host) {}
    plugin::Outcome Do();

  private:
    struct Failure {
        std::int32_t errorCode = 0;
        std::uint32_t systemCode = 0;
        std::string words;
    };
    enum class Phase { kCounting, kTrying, kDeleting };  // kTrying: a dry run

    bool GoOn() override;
    bool Announce(const std::vector<TreeEntry>& batch) override;
    void Done(const TreeEntry& entry, std::uint32_t code) override;
    void Left(const std::string& path, std::int32_t errorCode, std::uint32_t systemCode,
              const std::string& words) override;
    void Absent(const std::string& path) override;

    void WalkItems(const AllowedFolders& allowed, Phase phase);
    void Fail(Failure failure);
    // Writes what was added to the journal; false when that failed, which ends the work.
    bool WriteJournal(bool sync);
    plugin::Outcome Conclude();
    std::string Summary() const;

    DeleteRecord& m_record;
    plugin::Run& m_run;
    const plugin::Host& m_host;
    task::Report m_journal;
    Phase m_phase = Phase::kCounting;
    bool m_journalFailed = false;
    std::int64_t m_total = 0;
    std::int64_t m_handled = 0;  // entries deleted, left or failed
    std::uint64_t m_files = 0;
    std::uint64_t m_folders = 0;
    std::uint64_t m_absent = 0;
    std::chrono::steady_clock::time_point m_reportedAt = std::chrono::steady_clock::now();
    Failure m_first;
    std::string m_failures;
    std::size_t m_failureCount = 0;
    std::size_t m_unlisted = 0;
};

}  // namespace rq::del

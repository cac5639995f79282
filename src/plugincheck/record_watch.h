// RecordWatch: reads task information records as a worker does, and tells when one does not hold what it
// promised. Main and link thread.
#pragma once

#include <rqworker/plugin.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "plughost/plugin_text.h"
#include "plugincheck/journal.h"
#include "plugincheck/task_text.h"

namespace rq::plugincheck {

// Each list's entries, one text for each entry.
using ResultTexts = std::array<std::vector<std::string>, 4>;

struct RecordSnapshot {
    const TaskInfo* info = nullptr;
    RQText taskIdPlace{};
    std::string taskId;
    std::int32_t taskType = 0;
    const void* typeData = nullptr;
    std::uint32_t status = 0;
    std::uint32_t detailErrorCode = 0;
    std::int32_t errorCode = 0;
    std::string detailErrorText;
    std::string furtherText;
    ResultTexts results;
};

class RecordWatch {
  public:
    explicit RecordWatch(JournalWriter& journal) : m_journal(journal) {}

    // Set before any record is read.
    void SetPluginName(std::string name) { m_pluginName = std::move(name); }

    // False when a worker could not use the record; told.
    bool CheckUsable(Lane lane, const TaskInfo* info, const std::string& when);
    // Texts of the record that lie in the task text are told.
    void CheckBorrowed(const TaskInfo& info, const TaskText& text, const std::string& when);
    // `when` completes "read ...": should the process end here, this is what it was at.
    RecordSnapshot Read(Lane lane, const TaskInfo& info, const std::string& when);
    // The texts that the plug-in has just written are UTF-8.
    void CheckTaskId(const RecordSnapshot& record);
    void CheckErrorTexts(const RecordSnapshot& record);
    // What is wrong with the lists and their entries is told.
    ResultTexts ReadResults(Lane lane, const TaskInfo& info, const std::string& when);

    // What the analysis fixed is as it was.
    void CheckFixed(const RecordSnapshot& before, const RecordSnapshot& now, const std::string& when,
                    Check check = Check::RecordChanged);
    // Everything is as it was.
    void CheckSame(const RecordSnapshot& before, const RecordSnapshot& now, const std::string& when);
    // The results of `before` are all still there, unchanged.
    void CheckGrowth(const ResultTexts& before, const ResultTexts& now, const std::string& when,
                     Check check = Check::ResultList);

  private:
    void CheckText(const std::string& text, const char* what);

    JournalWriter& m_journal;
    std::string m_pluginName;
};

}  // namespace rq::plugincheck

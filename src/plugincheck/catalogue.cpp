#include "plugincheck/catalogue.h"

#include <cstddef>

namespace rq::plugincheck {

const std::vector<CatalogueEntry>& Catalogue() {
    constexpr std::string_view kOrder = "Order of calls";
    constexpr std::string_view kTexts = "Texts and structs";
    constexpr std::string_view kLifetime = "Lifetime";
    constexpr std::string_view kThreads = "Threads";
    constexpr std::string_view kStop = "Stop, pause, status";
    constexpr std::string_view kFailure = "Failure";
    constexpr std::string_view kLater = "Later versions";
    static const std::vector<CatalogueEntry> entries = {
        {Check::Load, "load", "the library does not load", kOrder,
         "it loads by the plain search order, with its own folder as the current directory"},
        {Check::MissingExport, "missing-export", "a required function is not exported", kOrder,
         "RQWorkerAnalyseTask and RQWorkerPerformTask are exported by these undecorated names"},
        {Check::ContractVersion, "contract-version", "built for another contract version", kLater,
         "description and records carry RQ_CONTRACT_VERSION; a worker refuses any other"},
        {Check::StructSize, "struct-size", "a struct is too small", kTexts,
         "every struct but RQText begins with its size, which covers at least what version 1 has"},
        {Check::Description, "description", "the description does not hold together", kTexts,
         "a count is followed by as many entries, and name and version are told"},
        {Check::InitFailed, "init-failed", "the plug-in refuses to start", kOrder,
         "RQWorkerInit returns 0; any other result ends the worker"},
        {Check::Exception, "exception", "an exception left a function that may not throw", kFailure,
         "only the perform call may throw, on the thread that made the call"},
        {Check::NoRecord, "no-record", "an analysis left no task information record", kFailure,
         "an analysis leaves a record whatever it returns"},
        {Check::AnalysisFailed, "analysis-failed", "the task of this check is refused", kFailure,
         "0 for a task text that can be performed; give one that is in order"},
        {Check::TaskFailed, "task-failed", "the task of this check fails", kStop,
         "status 0 when the work is done; give a task that succeeds each time it is performed"},
        {Check::TaskTextLength, "task-text-length", "the task text is read beyond its length", kTexts,
         "a text is a pointer and a length; no zero stands behind it"},
        {Check::TaskTextKept, "task-text-kept", "the task text is used after the analyse call", kTexts,
         "a text is borrowed: whoever receives it does not keep it"},
        {Check::HostText, "host-text", "a text of the worker's was written to", kTexts,
         "a text is borrowed: the worker's texts, also those that it puts into a record, are neither changed "
         "nor freed"},
        {Check::TextMemory, "text-memory", "a text or record did not live as long as promised", kLifetime,
         "a record and its texts live until the next analysis of a new task, a performed one until the next "
         "perform call"},
        {Check::RecordChanged, "record-changed", "a field that is fixed was changed", kLifetime,
         "task ID, type and per-type data are fixed when the analyse call returns"},
        {Check::ResultList, "result-list", "a result list breaks its rules", kThreads,
         "a result list only grows, up to its capacity; an entry does not change once it is counted"},
        {Check::InvalidUtf8, "invalid-utf8", "a text is not UTF-8", kTexts,
         "a text is UTF-8; other bytes reach the operator as U+FFFD"},
        {Check::WrongOrder, "wrong-order", "results or errors were published outside the perform call",
         kOrder,
         "publishResult and publishError belong to the time of the perform call; else they do nothing"},
        {Check::ProgressThread, "progress-thread", "progress was told from another thread than perform's",
         kThreads, "the progress callback belongs to the perform call's thread"},
        {Check::ProgressLate, "progress-late", "progress was told after the perform call had returned",
         kThreads, "the progress callback belongs to the time until the perform call returns"},
        {Check::ProgressContext, "progress-context", "progress was told with a context that nobody gave",
         kThreads, "the progress callback gets the context that came with the perform call"},
        {Check::PercentAbove100, "percent-above-100", "more than 100 percent was told", kFailure,
         "done is not greater than total"},
        {Check::PercentBackwards, "percent-backwards", "the percentage went back", kFailure,
         "progress of one perform call only grows"},
        {Check::NegativeFigure, "negative-figure", "a progress figure below 0 was told", kFailure,
         "no figure is below 0"},
        {Check::Silence, "silence", "the task told nothing for longer than the progress patrol waits", kStop,
         "progress, or a sign of life that covers the wait, comes within the progress patrol's time-out"},
        {Check::Pause, "pause", "it says that it can be paused, and is deaf to it", kStop,
         "with RQ_ABILITY_PAUSE the progress callback is called once a second while it works"},
        {Check::StatusRunning, "status-running", "the perform call returned in status 3", kStop,
         "it never leaves 3"},
        {Check::StatusUnknown, "status-unknown", "the perform call left a status that is none", kStop,
         "it leaves 0, 4 or 5"},
        {Check::StopStatus, "stop-status", "the status does not tell how the call ended", kStop,
         "0 when the work is done, 5 after stop flag 1, 0 after stop flag 2"},
        {Check::StopLate, "stop-late", "a stop was seen too late", kStop,
         "the stop flag is read every 100 ms and the call returns soon; this check allows 1 s"},
        {Check::ThreadLeft, "thread-left", "threads outlive the perform call", kThreads,
         "threads that the plug-in starts end before the perform call returns"},
        {Check::MemoryGrowth, "memory-growth", "memory grows from task to task", kLifetime,
         "records and what belongs to them are freed when they are no longer promised"},
        {Check::HandlesLeft, "handles-left", "open files or handles grow from task to task", kLifetime,
         "what a task opens is closed when its record ends"},
        {Check::NoReturn, "no-return", "a call did not come back", kStop,
         "calls return; nobody kills them, and a worker that waits for one is lost"},
        {Check::Crash, "crash", "the process ended inside the plug-in", kFailure,
         "no call ends the process, and no exception leaves a thread of the plug-in's own"},
    };
    return entries;
}

const CatalogueEntry& EntryOf(Check check) {
    return Catalogue()[static_cast<std::size_t>(check)];
}

std::optional<Check> CheckByName(std::string_view name) {
    for (const CatalogueEntry& entry : Catalogue()) {
        if (entry.name == name) return entry.check;
    }
    return std::nullopt;
}

}  // namespace rq::plugincheck

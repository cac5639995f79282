// The checks by name: what each looks for, and what the contract asks, with the heading of sdk/contract.md
// under which it stands. Names are stable: they stand in reports that programs read. Constant data; any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace rq::plugincheck {

// In the order of a report.
enum class Check : std::uint8_t {
    Load,
    MissingExport,
    ContractVersion,
    StructSize,
    Description,
    InitFailed,
    Exception,
    NoRecord,
    AnalysisFailed,
    TaskFailed,
    TaskTextLength,
    TaskTextKept,
    HostText,
    TextMemory,
    RecordChanged,
    ResultList,
    InvalidUtf8,
    WrongOrder,
    ProgressThread,
    ProgressLate,
    ProgressContext,
    PercentAbove100,
    PercentBackwards,
    NegativeFigure,
    Silence,
    Pause,
    StatusRunning,
    StatusUnknown,
    StopStatus,
    StopLate,
    ThreadLeft,
    MemoryGrowth,
    HandlesLeft,
    NoReturn,
    Crash,
};

struct CatalogueEntry {
    Check check;
    std::string_view name;     // "progress-thread"
    std::string_view message;  // what is wrong, in one line
    std::string_view heading;  // of the contract
    std::string_view asks;     // what the contract asks
};

// One entry for each Check, in its order.
const std::vector<CatalogueEntry>& Catalogue();
const CatalogueEntry& EntryOf(Check check);
std::optional<Check> CheckByName(std::string_view name);

}  // namespace rq::plugincheck

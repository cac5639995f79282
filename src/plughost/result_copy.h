// A task's results, copied out of the plug-in's per-type data and out of what it published through the host
// services. Nothing here points into the plug-in afterwards. Texts are valid UTF-8 (U+FFFD for what was not).
// Sizes in every record are checked before a field is used, and only entries below a list's atomic count are
// read, so that copying is safe while the task runs. Any thread, as long as the task information record
// lives.
#pragma once

#include <rqworker/plugin.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "plughost/plugin_text.h"
#include "records/media_format.h"

namespace rq {

using Md5Digest = std::array<std::uint8_t, 16>;

// A digest that the plug-in did not mark as there is empty.
struct VerificationCopy {
    std::string first;
    std::string second;
    std::optional<Md5Digest> firstMd5;
    std::optional<Md5Digest> secondMd5;
};

struct Md5FileCopy {
    std::string first;
    std::string second;
    std::optional<Md5Digest> firstMd5;
    std::optional<Md5Digest> secondMd5;
    std::optional<Md5Digest> computedMd5;
};

struct TransferOutputCopy {
    std::uint32_t kind = RQ_OUTPUT_PLAIN;
    std::string first;
    std::string second;
    std::uint64_t size_bytes = 0;
    std::optional<KWOVL::tagAVFormat> format;  // kind RQ_OUTPUT_FORMAT only
    std::string further;                       // kind RQ_OUTPUT_TEXT only
};

struct TranscodeOutputCopy {
    std::uint32_t value1 = 0;
    std::uint32_t value2 = 0;
    std::uint64_t value64 = 0;
    std::string first;
    std::string second;
    std::optional<KWOVL::tagAVFormat> format;
};

// The lists that the task's type does not have are empty.
struct TaskResultCopy {
    std::vector<Md5FileCopy> md5Files;
    std::vector<VerificationCopy> verifications;
    std::vector<TransferOutputCopy> transferOutputs;
    std::vector<TranscodeOutputCopy> transcodeOutputs;
};

// The results in info.typeData, by info.taskType. Breaches (a record that is too small, a count above the
// capacity) leave the entry or the list out; all that a call finds is one line for each kind, naming the
// plug-in.
TaskResultCopy CopyTaskResults(const TaskInfo& info, const std::string& pluginName, const PluginLog& log);

// Copies one entry given to RQHostServices.publishResult to the end of its list. False for an unknown kind, a
// NULL entry or one that is too small.
bool AppendResult(TaskResultCopy& results, std::uint32_t kind, const void* entry,
                  const std::string& pluginName, const PluginLog& log);

// `more` to the end of `results`, list by list.
void AppendResults(TaskResultCopy& results, TaskResultCopy more);

// The frame rate of the first source with video (type 1); nothing for other types, without such a source or
// with a denominator of 0.
std::optional<double> SourceFrameRate(const TaskInfo& info);

// Both two-pass flags of a review (type 2) are set.
bool IsTwoPass(const TaskInfo& info);

}  // namespace rq

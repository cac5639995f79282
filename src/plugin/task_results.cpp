#include "plugin/task_results.h"

#include "plugin/work_runner.h"
#include "plugin/work_runner_state.h"
#include "util/utility.h"

namespace rq {
namespace {

constexpr const char* kZeroMd5 = "00000000000000000000000000000000";

std::string Md5Text(const std::optional<Md5Digest>& digest) {
    return digest ? KWOVL_UTILITY::OVLMD5SeedToString(digest->data()) : std::string();
}

std::string FormatXml(const std::optional<KWOVL::tagAVFormat>& format) {
    if (!format) return {};
    std::wstring xml;
    KWOVL_UTILITY::RQAVFormatToXmlString(&*format, xml);
    return KWOVL_UTILITY::OVLTStringToUTF8(xml);
}

Md5FileEntry ComputedFile(const Md5FileCopy& from) {
    Md5FileEntry entry;
    entry.mode = 1;
    entry.first = from.first;
    entry.second = from.second;
    entry.computedMd5 = Md5Text(from.computedMd5);
    return entry;
}

Md5FileEntry VerifiedFile(const Md5FileCopy& from) {
    Md5FileEntry entry;
    entry.mode = 0;
    entry.first = from.first;
    entry.second = from.second;
    entry.firstMd5 = Md5Text(from.firstMd5);
    entry.secondMd5 = Md5Text(from.secondMd5);
    entry.verification = CompareMd5Texts(entry.firstMd5, entry.secondMd5);
    return entry;
}

std::vector<VerificationEntry> Verifications(const std::vector<VerificationCopy>& from) {
    std::vector<VerificationEntry> entries;
    for (const VerificationCopy& copy : from) {
        VerificationEntry& entry = entries.emplace_back();
        entry.first = copy.first;
        entry.second = copy.second;
        entry.firstMd5 = Md5Text(copy.firstMd5);
        entry.secondMd5 = Md5Text(copy.secondMd5);
        entry.verification = CompareMd5Texts(entry.firstMd5, entry.secondMd5);
    }
    return entries;
}

stMD5TaskResult Md5Result(std::int32_t taskType, const TaskResultCopy& results) {
    stMD5TaskResult record;
    for (const Md5FileCopy& file : results.md5Files) {
        record.files.push_back(taskType == RQ_TASK_MD5_VERIFY ? VerifiedFile(file) : ComputedFile(file));
    }
    return record;
}

stTransferTaskResult TransferResult(const TaskResultCopy& results) {
    stTransferTaskResult record;
    record.verifications = Verifications(results.verifications);
    for (const TransferOutputCopy& output : results.transferOutputs) {
        record.outputs.push_back({output.kind, output.first, output.second, output.size_bytes,
                                  FormatXml(output.format), output.further});
    }
    return record;
}

stTranscodeTaskResult TranscodeResult(const TaskResultCopy& results) {
    stTranscodeTaskResult record;
    record.verifications = Verifications(results.verifications);
    for (const TranscodeOutputCopy& output : results.transcodeOutputs) {
        record.outputs.push_back({output.first, output.second, output.value1, output.value2, output.value64,
                                  FormatXml(output.format)});
    }
    return record;
}

}  // namespace

std::int32_t CompareMd5Texts(const std::string& first, const std::string& second) {
    if (first.empty() || first == kZeroMd5) return kNotCompared;
    return first == second ? kEqual : kDifferent;
}

bool HasTaskResult(std::int32_t taskType) {
    switch (taskType) {
        case RQ_TASK_TRANSFER:
        case RQ_TASK_TRANSCODE:
        case RQ_TASK_MD5_COMPUTE:
        case RQ_TASK_MD5_VERIFY:
        case RQ_TASK_REALTIME_MERGE:
        case RQ_TYPE_TRANSCODE_30:
            return true;
        default:
            return false;
    }
}

std::shared_ptr<const stTaskResultBase> MakeTaskResult(std::int32_t taskType, const TaskResultCopy& results) {
    if (!HasTaskResult(taskType)) return nullptr;
    if (taskType == RQ_TASK_TRANSFER) return std::make_shared<stTransferTaskResult>(TransferResult(results));
    if (taskType == RQ_TASK_MD5_COMPUTE || taskType == RQ_TASK_MD5_VERIFY) {
        return std::make_shared<stMD5TaskResult>(Md5Result(taskType, results));
    }
    return std::make_shared<stTranscodeTaskResult>(TranscodeResult(results));
}

std::optional<TaskResultCopy> WorkRunner::State::CollectResults() {
    TaskResultCopy results;
    {
        MutexLock lock(recordLock);
        if (!HasTask()) return std::nullopt;
        results =
            kept != nullptr ? kept->results : CopyTaskResults(*CurrentRecord().info, pluginName, LogSink());
    }
    AppendResults(results, services.PublishedResults());
    return results;
}

// The per-type data is read by the record's own type and the class of the result is chosen by `taskType`: a
// type that does not fit the record gives empty lists, and never misread memory.
std::shared_ptr<const stTaskResultBase> WorkRunner::GetTaskResult(std::int32_t taskType) {
    State& s = *m_state;
    MutexLock lock(s.resultLock);
    s.taskResult.reset();
    if (!HasTaskResult(taskType)) return nullptr;
    const std::optional<TaskResultCopy> results = s.CollectResults();
    if (!results) return nullptr;
    s.taskResult = MakeTaskResult(taskType, *results);
    return s.taskResult;
}

}  // namespace rq

#include "plughost/result_copy.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace rq {
namespace {

// Records of this version have no shorter form: whoever makes one knows all of its fields.
template <class Record>
bool Fits(const Record* record) {
    return record != nullptr && record->size >= sizeof(Record);
}

// Copies records and counts what was wrong with them, so that a list of ten thousand names in another
// encoding is one line and not ten thousand.
class Copier {
  public:
    Copier(const std::string& pluginName, const PluginLog& log) : m_pluginName(pluginName), m_log(log) {}
    Copier(const Copier&) = delete;
    Copier& operator=(const Copier&) = delete;
    ~Copier() {
        Report(m_replacedTexts, " text(s) of its results are not UTF-8; what is wrong in them became U+FFFD");
        Report(m_unusable, " result record(s) are missing or too small; they are left out");
        Report(m_tooMany, " result list(s) count more entries than their capacity; the rest is left out");
    }

    bool Copy(const RQVerification& from, VerificationCopy& to) {
        if (!IsUsable(&from)) return false;
        to.first = Text(from.first);
        to.second = Text(from.second);
        to.firstMd5 = Digest(from.has & RQ_HAS_FIRST_MD5, from.firstMd5);
        to.secondMd5 = Digest(from.has & RQ_HAS_SECOND_MD5, from.secondMd5);
        return true;
    }

    bool Copy(const RQMd5File& from, Md5FileCopy& to) {
        if (!IsUsable(&from)) return false;
        to.first = Text(from.first);
        to.second = Text(from.second);
        to.firstMd5 = Digest(from.has & RQ_HAS_FIRST_MD5, from.firstMd5);
        to.secondMd5 = Digest(from.has & RQ_HAS_SECOND_MD5, from.secondMd5);
        to.computedMd5 = Digest(from.has & RQ_HAS_COMPUTED_MD5, from.computedMd5);
        return true;
    }

    bool Copy(const RQTransferOutput& from, TransferOutputCopy& to) {
        if (!IsUsable(&from)) return false;
        to.kind = from.kind;
        to.first = Text(from.first);
        to.second = Text(from.second);
        to.size_bytes = from.size_bytes;
        if (from.kind == RQ_OUTPUT_FORMAT) to.format = Format(from.format);
        if (from.kind == RQ_OUTPUT_TEXT) to.further = Text(from.further);
        return true;
    }

    bool Copy(const RQTranscodeOutput& from, TranscodeOutputCopy& to) {
        if (!IsUsable(&from)) return false;
        to.value1 = from.frames;
        to.value2 = from.audio_ms;
        to.value64 = from.size_bytes;
        to.first = Text(from.first);
        to.second = Text(from.second);
        to.format = Format(from.format);
        return true;
    }

    // What the list has published so far. The entries' memory is read after the count, which was stored after
    // them.
    template <class Record, class Entry>
    void CopyList(const RQResultList* list, std::vector<Entry>& to) {
        if (list == nullptr || !IsUsable(list)) return;
        std::uint32_t count = RQLoad32(&list->count);
        if (count > list->capacity) {
            ++m_tooMany;
            count = list->capacity;
        }
        if (list->items == nullptr) return;
        for (std::uint32_t i = 0; i < count; ++i) CopyEntry<Record>(list->items[i], to);
    }

    template <class Record, class Entry>
    bool CopyEntry(const void* entry, std::vector<Entry>& to) {
        const auto* record = static_cast<const Record*>(entry);
        if (record == nullptr) {
            ++m_unusable;
            return false;
        }
        Entry copy;
        if (!Copy(*record, copy)) return false;
        to.push_back(std::move(copy));
        return true;
    }

    template <class Record>
    bool IsUsable(const Record* record) {
        if (Fits(record)) return true;
        ++m_unusable;
        return false;
    }

  private:
    std::string Text(RQText text) {
        bool isReplaced = false;
        std::string repaired = RepairUtf8(PluginTextView(text), &isReplaced);
        if (isReplaced) ++m_replacedTexts;
        return repaired;
    }

    static std::optional<Md5Digest> Digest(std::uint32_t isThere, const std::uint8_t (&bytes)[16]) {
        if (isThere == 0) return std::nullopt;
        Md5Digest digest;
        std::copy(std::begin(bytes), std::end(bytes), digest.begin());
        return digest;
    }

    std::optional<KWOVL::tagAVFormat> Format(const RQMediaFormat* from) {
        if (from == nullptr || !IsUsable(from)) return std::nullopt;
        KWOVL::tagAVFormat format;
        format.container = Text(from->container);
        format.duration_us = from->duration_us;
        format.size_bytes = from->size_bytes;
        format.bitRate_bps = from->bitRate_bps;
        const std::uint32_t count = from->streams == nullptr ? 0 : from->streamCount;
        for (std::uint32_t i = 0; i < count; ++i) {
            if (IsUsable(from->streams[i])) format.streams.push_back(Stream(*from->streams[i]));
        }
        return format;
    }

    KWOVL::tagAVStream Stream(const RQMediaStream& from) {
        KWOVL::tagAVStream stream;
        stream.kind = from.kind;
        stream.codec = Text(from.codec);
        stream.width_px = from.width_px;
        stream.height_px = from.height_px;
        stream.frameRateNumerator = from.frameRateNumerator;
        stream.frameRateDenominator = from.frameRateDenominator;
        stream.sampleRate_Hz = from.sampleRate_Hz;
        stream.channels = from.channels;
        stream.bitRate_bps = from.bitRate_bps;
        stream.duration_us = from.duration_us;
        return stream;
    }

    void Report(std::uint64_t count, const char* what) {
        if (count > 0 && m_log) m_log(3, "plug-in " + m_pluginName + ": " + std::to_string(count) + what);
    }

    const std::string& m_pluginName;
    const PluginLog& m_log;
    std::uint64_t m_replacedTexts = 0;
    std::uint64_t m_unusable = 0;
    std::uint64_t m_tooMany = 0;
};

// The per-type data as `Data`; null when there is none or it is too small for it.
template <class Data>
const Data* TypeData(const TaskInfo& info, Copier* copier = nullptr) {
    const auto* data = static_cast<const Data*>(info.typeData);
    if (data == nullptr) return nullptr;
    return (copier == nullptr ? Fits(data) : copier->IsUsable(data)) ? data : nullptr;
}

template <class Entry>
void Append(std::vector<Entry>& to, std::vector<Entry>&& from) {
    to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

}  // namespace

TaskResultCopy CopyTaskResults(const TaskInfo& info, const std::string& pluginName, const PluginLog& log) {
    TaskResultCopy results;
    Copier copier(pluginName, log);
    switch (info.taskType) {
        case RQ_TYPE_TRANSFER:
            if (const auto* data = TypeData<RQTransferData>(info, &copier)) {
                copier.CopyList<RQVerification>(data->verifications, results.verifications);
                copier.CopyList<RQTransferOutput>(data->outputs, results.transferOutputs);
            }
            break;
        case RQ_TYPE_TRANSCODE:
        case RQ_TYPE_REALTIME_MERGE:
        case RQ_TYPE_TRANSCODE_30:
            if (const auto* data = TypeData<RQTranscodeData>(info, &copier)) {
                copier.CopyList<RQVerification>(data->verifications, results.verifications);
                copier.CopyList<RQTranscodeOutput>(data->outputs, results.transcodeOutputs);
            }
            break;
        case RQ_TYPE_MD5_COMPUTE:
        case RQ_TYPE_MD5_VERIFY:
            if (const auto* data = TypeData<RQMd5Data>(info, &copier))
                copier.CopyList<RQMd5File>(data->files, results.md5Files);
            break;
        default:
            break;
    }
    return results;
}

bool AppendResult(TaskResultCopy& results, std::uint32_t kind, const void* entry,
                  const std::string& pluginName, const PluginLog& log) {
    Copier copier(pluginName, log);
    switch (kind) {
        case RQ_RESULT_MD5_FILE:
            return copier.CopyEntry<RQMd5File>(entry, results.md5Files);
        case RQ_RESULT_VERIFICATION:
            return copier.CopyEntry<RQVerification>(entry, results.verifications);
        case RQ_RESULT_TRANSFER_OUTPUT:
            return copier.CopyEntry<RQTransferOutput>(entry, results.transferOutputs);
        case RQ_RESULT_TRANSCODE_OUTPUT:
            return copier.CopyEntry<RQTranscodeOutput>(entry, results.transcodeOutputs);
        default:
            return false;
    }
}

void AppendResults(TaskResultCopy& results, TaskResultCopy more) {
    Append(results.md5Files, std::move(more.md5Files));
    Append(results.verifications, std::move(more.verifications));
    Append(results.transferOutputs, std::move(more.transferOutputs));
    Append(results.transcodeOutputs, std::move(more.transcodeOutputs));
}

std::optional<double> SourceFrameRate(const TaskInfo& info) {
    if (info.taskType != RQ_TYPE_TRANSCODE) return std::nullopt;
    const auto* data = TypeData<RQTranscodeData>(info);
    if (data == nullptr || data->sourceCount == 0 || data->sources == nullptr) return std::nullopt;
    const RQSourceDescription* first = data->sources[0];
    if (!Fits(first) || first->hasVideo == 0 || first->frameRateDenominator == 0) return std::nullopt;
    return static_cast<double>(first->frameRateNumerator) / static_cast<double>(first->frameRateDenominator);
}

bool IsTwoPass(const TaskInfo& info) {
    if (info.taskType != RQ_TYPE_REVIEW) return false;
    const auto* data = TypeData<RQReviewData>(info);
    return data != nullptr && data->twoPass != 0 && data->twoPassAudio != 0;
}

}  // namespace rq

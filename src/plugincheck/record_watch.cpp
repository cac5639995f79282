#include "plugincheck/record_watch.h"

#include <cstddef>

#include "base/text.h"
#include "plughost/result_copy.h"

namespace rq::plugincheck {
namespace {

// As people can read it, whatever it is: control bytes, and all others of a text that is not UTF-8, in
// hexadecimal.
std::string Quoted(const std::string& text) {
    constexpr std::size_t kMost = 80;
    static const char kDigits[] = "0123456789abcdef";
    const bool isText = IsValidUtf8(text);
    std::string quoted = "\"";
    for (const char c : isText ? CutUtf8(text, kMost) : std::string_view(text).substr(0, kMost)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isText)) {
            quoted += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        } else {
            quoted += c;
        }
    }
    return quoted + (text.size() > kMost ? "...\"" : "\"");
}

std::string Digest(const std::optional<Md5Digest>& digest) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text = " ";
    if (!digest) return text + "-";
    for (const std::uint8_t byte : *digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string Format(const std::optional<KWOVL::tagAVFormat>& format) {
    if (!format) return " -";
    std::string text = " " + format->container + " " + std::to_string(format->duration_us) + " " +
                       std::to_string(format->size_bytes);
    for (const auto& stream : format->streams) text += " " + stream.codec;
    return text;
}

ResultTexts CopyResults(const TaskInfo& info, const std::string& pluginName, const PluginLog& log) {
    const TaskResultCopy copy = CopyTaskResults(info, pluginName, log);
    ResultTexts texts;
    for (const auto& file : copy.md5Files)
        texts[0].push_back(Quoted(file.first) + Quoted(file.second) + Digest(file.firstMd5) +
                           Digest(file.secondMd5) + Digest(file.computedMd5));
    for (const auto& pair : copy.verifications)
        texts[1].push_back(Quoted(pair.first) + Quoted(pair.second) + Digest(pair.firstMd5) +
                           Digest(pair.secondMd5));
    for (const auto& output : copy.transferOutputs)
        texts[2].push_back(Quoted(output.first) + Quoted(output.second) + Quoted(output.further) + " " +
                           std::to_string(output.size_bytes) + Format(output.format));
    for (const auto& output : copy.transcodeOutputs)
        texts[3].push_back(Quoted(output.first) + Quoted(output.second) + " " +
                           std::to_string(output.value1) + " " + std::to_string(output.value2) + " " +
                           std::to_string(output.value64) + Format(output.format));
    return texts;
}

// The list that a line of CopyTaskResults speaks of cannot be told from it, only what is wrong.
Check CheckOfLine(const std::string& line) {
    if (line.find("not UTF-8") != std::string::npos) return Check::InvalidUtf8;
    if (line.find("too small") != std::string::npos) return Check::StructSize;
    return Check::ResultList;
}

}  // namespace

bool RecordWatch::CheckUsable(Lane lane, const TaskInfo* info, const std::string& when) {
    if (info == nullptr) {
        m_journal.Tell(Check::NoRecord, "*taskInfo is NULL " + when);
        return false;
    }
    const Step step(m_journal, lane, "reading the task information record " + when, Check::TextMemory);
    constexpr std::size_t kVersioned =
        offsetof(TaskInfo, contractVersion) + sizeof(TaskInfo::contractVersion);
    if (info->size >= kVersioned && info->contractVersion != RQ_CONTRACT_VERSION) {
        m_journal.Tell(Check::ContractVersion, "the task information record shows contract version " +
                                                   std::to_string(info->contractVersion) +
                                                   ", this is version " +
                                                   std::to_string(RQ_CONTRACT_VERSION));
        return false;
    }
    if (info->size < sizeof(TaskInfo)) {
        m_journal.Tell(Check::StructSize, "the task information record says that it has " +
                                              std::to_string(info->size) + " bytes of " +
                                              std::to_string(sizeof(TaskInfo)));
        return false;
    }
    return true;
}

void RecordWatch::CheckBorrowed(const TaskInfo& info, const TaskText& text, const std::string& when) {
    const std::pair<const char*, RQText> texts[] = {{"the task ID", info.taskId},
                                                    {"the detail error text", info.detailErrorText},
                                                    {"the further text", info.furtherText}};
    for (const auto& [what, value] : texts) {
        if (text.Holds(value.p))
            m_journal.Tell(Check::TaskTextKept,
                           std::string(what) + " points into the task text that was borrowed " + when);
    }
}

RecordSnapshot RecordWatch::Read(Lane lane, const TaskInfo& info, const std::string& when) {
    const Step step(m_journal, lane, "reading the task information record " + when, Check::TextMemory);
    RecordSnapshot snapshot;
    snapshot.info = &info;
    snapshot.taskIdPlace = info.taskId;
    snapshot.taskId = PluginTextView(info.taskId);
    snapshot.taskType = info.taskType;
    snapshot.typeData = info.typeData;
    snapshot.status = RQLoad32(&info.status);
    snapshot.detailErrorCode = info.detailErrorCode;
    snapshot.errorCode = info.errorCode;
    snapshot.detailErrorText = PluginTextView(info.detailErrorText);
    snapshot.furtherText = PluginTextView(info.furtherText);
    snapshot.results = CopyResults(info, m_pluginName, {});
    return snapshot;
}

ResultTexts RecordWatch::ReadResults(Lane lane, const TaskInfo& info, const std::string& when) {
    const Step step(m_journal, lane, "reading the result lists " + when, Check::TextMemory);
    return CopyResults(info, m_pluginName,
                       [this](int, const std::string& line) { m_journal.Tell(CheckOfLine(line), line); });
}

void RecordWatch::CheckTaskId(const RecordSnapshot& record) {
    CheckText(record.taskId, "the task ID");
}

void RecordWatch::CheckErrorTexts(const RecordSnapshot& record) {
    CheckText(record.detailErrorText, "the detail error text");
    CheckText(record.furtherText, "the further text");
}

void RecordWatch::CheckText(const std::string& text, const char* what) {
    if (!IsValidUtf8(text)) m_journal.Tell(Check::InvalidUtf8, std::string(what) + " is " + Quoted(text));
}

void RecordWatch::CheckFixed(const RecordSnapshot& before, const RecordSnapshot& now, const std::string& when,
                             Check check) {
    const auto changed = [&](const std::string& what) {
        m_journal.Tell(check, what + " was changed " + when);
    };
    if (before.taskType != now.taskType) changed("the task type");
    if (before.typeData != now.typeData) changed("the pointer to the per-type data");
    const bool isSamePlace =
        before.taskIdPlace.p == now.taskIdPlace.p && before.taskIdPlace.n == now.taskIdPlace.n;
    if (!isSamePlace) {
        changed("the task ID");
    } else if (before.taskId != now.taskId) {
        m_journal.Tell(Check::TextMemory, "the task ID was " + Quoted(before.taskId) + ", its memory holds " +
                                              Quoted(now.taskId) + " " + when);
    }
}

void RecordWatch::CheckSame(const RecordSnapshot& before, const RecordSnapshot& now,
                            const std::string& when) {
    CheckFixed(before, now, when, Check::TextMemory);
    CheckGrowth(before.results, now.results, when, Check::TextMemory);
    const auto lost = [&](const std::string& what, const std::string& was, const std::string& is) {
        if (was != is)
            m_journal.Tell(Check::TextMemory, what + " of the performed record was " + Quoted(was) +
                                                  ", it is " + Quoted(is) + " " + when);
    };
    lost("the status", std::to_string(before.status), std::to_string(now.status));
    lost("the error code", std::to_string(before.errorCode), std::to_string(now.errorCode));
    lost("the detail error code", std::to_string(before.detailErrorCode),
         std::to_string(now.detailErrorCode));
    lost("the detail error text", before.detailErrorText, now.detailErrorText);
    lost("the further text", before.furtherText, now.furtherText);
}

void RecordWatch::CheckGrowth(const ResultTexts& before, const ResultTexts& now, const std::string& when,
                              Check check) {
    for (std::size_t list = 0; list < before.size(); ++list) {
        if (now[list].size() < before[list].size()) {
            m_journal.Tell(check, "a result list had " + std::to_string(before[list].size()) +
                                      " entries and has " + std::to_string(now[list].size()) + " " + when);
            continue;
        }
        for (std::size_t i = 0; i < before[list].size(); ++i) {
            if (before[list][i] == now[list][i]) continue;
            m_journal.Tell(check, "entry " + std::to_string(i) + " was " + before[list][i] + ", it is " +
                                      now[list][i] + " " + when);
            break;
        }
    }
}

}  // namespace rq::plugincheck

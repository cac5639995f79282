// The analysis: what the steps say of the record.
#include <chrono>
#include <thread>

#include "script.h"

namespace scripted {
namespace {

void Apply(Record& record, const Step& step) {
    if (step.word == "id") {
        record.taskId = step.rest;
    } else if (step.word == "type") {
        record.info.taskType = static_cast<std::int32_t>(step.Number(0));
    } else if (step.word == "analyse-code") {
        record.analyseCode = static_cast<std::int32_t>(step.Number(0));
    } else if (step.word == "analyse-sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(step.Number(0)));
    } else if (step.word == "analyse-error") {
        record.detailErrorText = step.rest;
    } else if (step.word == "null-info") {
        record.isNull = true;
    } else if (step.word == "info-size") {
        record.info.size = static_cast<std::uint32_t>(step.Number(0));
    } else if (step.word == "info-version") {
        record.info.contractVersion = static_cast<std::uint32_t>(step.Number(0));
    } else if (step.word == "two-pass") {
        record.reviewData.twoPass = 1;
        record.reviewData.twoPassAudio = 1;
    } else if (step.word == "capacity") {
        record.capacity = static_cast<std::uint32_t>(step.Number(0));
    } else if (step.word == "source") {
        record.sources.push_back(std::make_unique<RQSourceDescription>(RQSourceDescription{
            sizeof(RQSourceDescription), static_cast<std::uint32_t>(step.Number(0)),
            static_cast<std::uint32_t>(step.Number(1)), static_cast<std::uint32_t>(step.Number(2))}));
        record.sourceItems.push_back(record.sources.back().get());
    }
}

void SetTypeData(Record& record) {
    switch (record.info.taskType) {
        case RQ_TYPE_TRANSCODE:
            record.transcodeData.size = sizeof record.transcodeData;
            record.transcodeData.sourceCount = static_cast<std::uint32_t>(record.sourceItems.size());
            record.transcodeData.sources = record.sourceItems.data();
            record.info.typeData = &record.transcodeData;
            break;
        case RQ_TYPE_REVIEW:
            record.reviewData.size = sizeof record.reviewData;
            record.info.typeData = &record.reviewData;
            break;
        case RQ_TYPE_MD5_COMPUTE:
        case RQ_TYPE_MD5_VERIFY:
            record.md5Items.resize(record.capacity);
            record.md5List.size = sizeof record.md5List;
            record.md5List.capacity = record.capacity;
            record.md5List.items = record.md5Items.data();
            record.md5Data.size = sizeof record.md5Data;
            record.md5Data.files = &record.md5List;
            record.info.typeData = &record.md5Data;
            break;
        default:
            break;
    }
}

}  // namespace

std::unique_ptr<Record> AnalyseScript(std::string_view taskText) {
    auto record = std::make_unique<Record>();
    record->info.size = sizeof record->info;
    record->info.contractVersion = RQ_CONTRACT_VERSION;
    record->info.taskType = RQ_TYPE_MD5_COMPUTE;
    record->steps = ParseScript(taskText);
    for (const Step& step : record->steps) Apply(*record, step);
    record->info.taskId = Borrow(record->taskId);
    record->info.detailErrorText = Borrow(record->detailErrorText);
    SetTypeData(*record);
    return record;
}

}  // namespace scripted

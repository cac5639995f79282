#include "link/result_codec.h"

#include "wire.pb.h"

namespace rq::link {
namespace {

namespace wire = rqworker::link::v1;

void ToWire(const Md5FileEntry& entry, wire::Md5File* out) {
    out->set_mode(entry.mode);
    out->set_first(entry.first);
    out->set_second(entry.second);
    out->set_first_md5(entry.firstMd5);
    out->set_second_md5(entry.secondMd5);
    out->set_verification(entry.verification);
    out->set_computed_md5(entry.computedMd5);
}

Md5FileEntry FromWire(const wire::Md5File& in) {
    Md5FileEntry entry;
    entry.mode = static_cast<std::uint8_t>(in.mode());
    entry.first = in.first();
    entry.second = in.second();
    entry.firstMd5 = in.first_md5();
    entry.secondMd5 = in.second_md5();
    entry.verification = in.verification();
    entry.computedMd5 = in.computed_md5();
    return entry;
}

void ToWire(const VerificationEntry& entry, wire::Verification* out) {
    out->set_first(entry.first);
    out->set_second(entry.second);
    out->set_first_md5(entry.firstMd5);
    out->set_second_md5(entry.secondMd5);
    out->set_verification(entry.verification);
}

VerificationEntry FromWire(const wire::Verification& in) {
    return {in.first(), in.second(), in.first_md5(), in.second_md5(), in.verification()};
}

void ToWire(const TransferOutputEntry& entry, wire::TransferOutput* out) {
    out->set_kind(entry.kind);
    out->set_first(entry.first);
    out->set_second(entry.second);
    out->set_size_bytes(entry.size_bytes);
    out->set_format_xml(entry.formatXml);
    out->set_further_text(entry.furtherText);
}

TransferOutputEntry FromWire(const wire::TransferOutput& in) {
    return {in.kind(), in.first(), in.second(), in.size_bytes(), in.format_xml(), in.further_text()};
}

void ToWire(const TranscodeOutputEntry& entry, wire::TranscodeOutput* out) {
    out->set_first(entry.first);
    out->set_second(entry.second);
    out->set_value1(entry.value1);
    out->set_value2(entry.value2);
    out->set_value64(entry.value64);
    out->set_format_xml(entry.formatXml);
}

TranscodeOutputEntry FromWire(const wire::TranscodeOutput& in) {
    return {in.first(), in.second(), in.value1(), in.value2(), in.value64(), in.format_xml()};
}

template <class Record, class WireResult>
void ListsToWire(const Record& record, WireResult* out) {
    for (const auto& entry : record.verifications) ToWire(entry, out->add_verifications());
    for (const auto& entry : record.outputs) ToWire(entry, out->add_outputs());
}

template <class Record, class WireResult>
std::shared_ptr<const stTaskResultBase> ListsFromWire(const WireResult& in) {
    auto record = std::make_shared<Record>();
    for (const auto& entry : in.verifications()) record->verifications.push_back(FromWire(entry));
    for (const auto& entry : in.outputs()) record->outputs.push_back(FromWire(entry));
    return record;
}

std::shared_ptr<const stTaskResultBase> FromWire(const wire::Md5Result& in) {
    auto record = std::make_shared<stMD5TaskResult>();
    for (const auto& file : in.files()) record->files.push_back(FromWire(file));
    return record;
}

}  // namespace

void ResultToWire(const stTaskResultBase& result, wire::StatusEntry* entry) {
    if (const auto* md5 = dynamic_cast<const stMD5TaskResult*>(&result)) {
        wire::Md5Result* out = entry->mutable_md5();
        for (const Md5FileEntry& file : md5->files) ToWire(file, out->add_files());
    } else if (const auto* transfer = dynamic_cast<const stTransferTaskResult*>(&result)) {
        ListsToWire(*transfer, entry->mutable_transfer());
    } else if (const auto* transcode = dynamic_cast<const stTranscodeTaskResult*>(&result)) {
        ListsToWire(*transcode, entry->mutable_transcode());
    }
}

std::shared_ptr<const stTaskResultBase> ResultFromWire(const wire::StatusEntry& entry) {
    switch (entry.result_case()) {
        case wire::StatusEntry::kMd5:
            return FromWire(entry.md5());
        case wire::StatusEntry::kTransfer:
            return ListsFromWire<stTransferTaskResult>(entry.transfer());
        case wire::StatusEntry::kTranscode:
            return ListsFromWire<stTranscodeTaskResult>(entry.transcode());
        case wire::StatusEntry::RESULT_NOT_SET:
            break;
    }
    return nullptr;
}

}  // namespace rq::link

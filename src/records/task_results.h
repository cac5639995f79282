// Task results: per-file outcomes that a final status carries to the engine. All texts are UTF-8. Records are
// always deleted through stTaskResultBase.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rq {

// No data; the destructor is the only virtual operation.
struct stTaskResultBase {
    virtual ~stTaskResultBase() = default;

  protected:
    stTaskResultBase() = default;
    stTaskResultBase(const stTaskResultBase&) = default;
    stTaskResultBase& operator=(const stTaskResultBase&) = default;
};

// Outcome of comparing two MD5 texts.
enum VerificationResult : std::int32_t { kNotCompared = 0, kEqual = 1, kDifferent = -1 };

struct Md5FileEntry {
    std::uint8_t mode = 0;  // 0 verification (type 4), 1 computation (type 3)
    std::string first;
    std::string second;
    std::string firstMd5;                      // 32 hexadecimal characters; verification only
    std::string secondMd5;                     // verification only
    std::int32_t verification = kNotCompared;  // always 0 for computation
    std::string computedMd5;                   // computation only
};

struct VerificationEntry {
    std::string first;
    std::string second;
    std::string firstMd5;
    std::string secondMd5;
    std::int32_t verification = kNotCompared;
};

// One output of a transfer: `kind` says whether it carries a media format (2) or a further text (3).
struct TransferOutputEntry {
    std::uint32_t kind = 0;
    std::string first;
    std::string second;
    std::uint64_t size_bytes = 0;
    std::string formatXml;
    std::string furtherText;
};

// One output of a transcode.
struct TranscodeOutputEntry {
    std::string first;
    std::string second;
    std::uint32_t value1 = 0;
    std::uint32_t value2 = 0;
    std::uint64_t value64 = 0;
    std::string formatXml;
};

struct stMD5TaskResult final : stTaskResultBase {
    std::vector<Md5FileEntry> files;
};

struct stTransferTaskResult final : stTaskResultBase {
    std::vector<VerificationEntry> verifications;
    std::vector<TransferOutputEntry> outputs;
};

struct stTranscodeTaskResult final : stTaskResultBase {
    std::vector<VerificationEntry> verifications;
    std::vector<TranscodeOutputEntry> outputs;
};

}  // namespace rq

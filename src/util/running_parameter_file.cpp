// OVLReadRunningParameter and OVLRunningParamToXml: "actor.xml" as a file that people edit and that many
// workers read, and sometimes write, at the same moment.
#include <fmt/format.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "base/paths.h"
#include "base/result.h"
#include "base/text.h"
#include "platform/files.h"
#include "util/file_text.h"
#include "util/running_parameter_xml.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "util/xml_bounds.h"

namespace rq {
namespace {

constexpr int kMostBackups = 100;
// A damaged file beyond this is not copied, and so stays where it is.
constexpr std::uint64_t kLargestBackup_bytes = 64 * 1024 * 1024;

enum class FileState { Whole, Missing, Unreadable, Damaged };

struct LoadedFile {
    FileState state = FileState::Missing;
    std::string problem;  // when unreadable or damaged
    std::string bytes;    // as they are in the file; not for a file that is far too large
    bool isTooLarge = false;
    TiXmlDocument document;
};

// What is wrong with the text; nothing when `document` holds it.
std::optional<std::string> ParseDocument(const std::string& text, TiXmlDocument& document) {
    if (std::optional<std::string> problem = FindXmlBoundsProblem(text)) return problem;
    document.Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    if (document.Error()) return fmt::format("line {}: {}", document.ErrorRow(), document.ErrorDesc());
    const TiXmlElement* root = document.RootElement();
    if (root == nullptr) return "it has no element";
    if (root->ValueStr() != kRunningParameterRoot) {
        return fmt::format("line {}: the root is <{}>, not <{}>", root->Row(), root->Value(),
                           kRunningParameterRoot);
    }
    return std::nullopt;
}

void LoadFile(const std::string& path, LoadedFile& file) {
    std::error_code error;
    const std::filesystem::path name = PathFromUtf8(path);
    if (!std::filesystem::exists(name, error)) {
        file.state = error ? FileState::Unreadable : FileState::Missing;
        file.problem = error ? error.message() : std::string();
        return;
    }
    const std::uintmax_t size = std::filesystem::file_size(name, error);
    // Twice the bound: the text may be UTF-16.
    if (!error && size > 2 * XmlBounds().size_bytes + 2) {
        file.state = FileState::Damaged;
        file.isTooLarge = true;
        file.problem = fmt::format("it has {} bytes, {} are allowed", size, XmlBounds().size_bytes);
        return;
    }
    platform::OsError osError;
    // The bound is for what does not tell its size.
    std::optional<std::string> bytes =
        platform::ReadWholeFile(path, &osError, 2 * XmlBounds().size_bytes + 2);
    if (!bytes) {
        file.state = FileState::Unreadable;
        file.problem = osError.message;
        return;
    }
    file.bytes = *std::move(bytes);
    std::optional<std::string> problem = ParseDocument(DecodeFileText(file.bytes), file.document);
    file.state = problem ? FileState::Damaged : FileState::Whole;
    if (problem) file.problem = *std::move(problem);
}

void LogBadFields(const std::string& path, const ReadReport& report) {
    for (const BadField& bad : report.bad) {
        Log(3,
            fmt::format(
                "running parameters: {} line {}: <{}> is \"{}\", not {}; the default \"{}\" is used. Correct "
                "the element, or remove it to have the default written.",
                path, bad.line, bad.element, bad.value, bad.wanted, bad.fallback));
    }
}

// Copies the file beside itself as "<path>.damaged", or "<path>.damaged.<n>" when another damaged state is
// kept there already. Workers that do so at the same moment write the same bytes.
bool KeepDamaged(const std::string& path, const std::string& bytes) {
    for (int i = 0; i < kMostBackups; ++i) {
        const std::string backup = path + ".damaged" + (i == 0 ? std::string() : fmt::format(".{}", i));
        std::error_code error;
        if (std::filesystem::exists(PathFromUtf8(backup), error)) {
            if (platform::ReadWholeFile(backup) == bytes) return true;
            continue;
        }
        platform::OsError osError;
        if (platform::ReplaceWholeFile(backup, bytes, false, &osError)) {
            Log(3, "running parameters: the damaged file is kept as " + backup);
            return true;
        }
        Log(4, "running parameters: no backup of the damaged file: " + osError.message);
        return false;
    }
    Log(4, fmt::format("running parameters: {} backups of {} are there already; remove some.", kMostBackups,
                       path));
    return false;
}

// Leaves a document with the root in it. False when the file must stay as it is.
bool PrepareDocument(const std::string& path, LoadedFile& file) {
    if (file.state == FileState::Whole) return true;
    if (file.state == FileState::Unreadable) {
        Log(4, fmt::format("running parameters: {} is not written, since it cannot be read: {}", path,
                           file.problem));
        return false;
    }
    if (file.state == FileState::Damaged) {
        // Not read again: another worker may have put a whole file there meanwhile.
        platform::OsError error;
        auto bytes = file.isTooLarge ? platform::ReadWholeFile(path, &error, kLargestBackup_bytes)
                                     : std::optional(file.bytes);
        if (!bytes) {
            Log(4,
                fmt::format("running parameters: {} is not written, since no backup can be made: {}. Repair "
                            "or remove the file.",
                            path, error.message));
            return false;
        }
        if (!KeepDamaged(path, *bytes)) return false;
    }
    file.document.Clear();
    file.document.InsertEndChild(TiXmlDeclaration("1.0", "UTF-8", ""));
    file.document.InsertEndChild(TiXmlElement(kRunningParameterRoot));
    return true;
}

// The text is written as UTF-8 whatever it was before.
void DeclareUtf8(TiXmlDocument& document) {
    TiXmlNode* first = document.FirstChild();
    const TiXmlDeclaration declaration("1.0", "UTF-8", "");
    if (first != nullptr && first->ToDeclaration() != nullptr) {
        document.ReplaceChild(first, declaration);
    } else if (first != nullptr) {
        document.InsertBeforeChild(first, declaration);
    }
}

std::int32_t WriteFile(const tagOVLCommunicationParam& parameter, const std::string& path) {
    LoadedFile file;
    LoadFile(path, file);
    if (!PrepareDocument(path, file)) return kStatusFail;
    DeclareUtf8(file.document);
    WriteFields(parameter, *file.document.RootElement());
    TiXmlPrinter printer;
    file.document.Accept(&printer);
    if (file.state == FileState::Whole && printer.Str() == file.bytes) return kStatusOk;
    platform::OsError error;
    if (platform::ReplaceWholeFile(path, printer.Str(), false, &error)) return kStatusOk;
    Log(3, "running parameters: not written: " + error.message);
    return kStatusFail;
}

std::int32_t ReadFile(const std::string& path, tagOVLCommunicationParam& parameter) {
    using namespace KWOVL_UTILITY;
    parameter = tagOVLCommunicationParam();
    LoadedFile file;
    LoadFile(path, file);
    switch (file.state) {
        case FileState::Missing:
            Log(2, "running parameters: " + path + " is not there; the defaults are used.");
            return kParameterFileMissing;
        case FileState::Unreadable:
            Log(4, "running parameters: " + path + " cannot be read, the defaults are used: " + file.problem);
            return kParameterFileDamaged;
        case FileState::Damaged:
            Log(4, "running parameters: " + path + " is damaged, the defaults are used: " + file.problem);
            return kParameterFileDamaged;
        case FileState::Whole:
            break;
    }
    const ReadReport report = ReadFields(*file.document.RootElement(), parameter);
    LogBadFields(path, report);
    return report.missing.empty() ? kStatusOk : kParameterFileIncomplete;
}

}  // namespace
}  // namespace rq

namespace KWOVL_UTILITY {

std::int32_t OVLReadRunningParameter(std::string path, tagOVLCommunicationParam* parameter) {
    if (parameter == nullptr) return rq::kStatusFail;
    return rq::ReadFile(path, *parameter);
}

std::int32_t OVLRunningParamToXml(const tagOVLCommunicationParam* parameter, std::wstring path) {
    if (parameter == nullptr) return rq::kStatusFail;
    return rq::WriteFile(*parameter, rq::NarrowUtf8(path));
}

}  // namespace KWOVL_UTILITY

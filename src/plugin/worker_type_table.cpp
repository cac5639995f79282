#include "plugin/worker_type_table.h"

#include <tinyxml.h>

#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "util/utility.h"
#include "util/worker_util.h"
#include "util/xml_bounds.h"

namespace rq {
namespace {

using KWOVL_UTILITY::OVLStringToTString;
using KWOVL_UTILITY::OVLTStringToString;

constexpr int kLevelFailure = 4;

// `format` with its one placeholder replaced.
std::string Fill(std::string_view format, std::string_view placeholder, const std::string& value) {
    std::string text(format);
    return text.replace(text.find(placeholder), placeholder.size(), value);
}

// Turns an element's name to upper case in the document (A to Z only) and returns it.
const std::string& UpperCaseName(TiXmlElement& element) {
    std::string name = element.ValueStr();
    for (char& c : name) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    element.SetValue(name);
    return element.ValueStr();
}

// The element's text, null when it has none. A comment before it does not hide it.
const char* ElementText(const TiXmlElement& element) {
    for (const TiXmlNode* node = element.FirstChild(); node != nullptr; node = node->NextSibling()) {
        if (node->ToComment() != nullptr) continue;
        return node->ToText() != nullptr ? node->Value() : nullptr;
    }
    return nullptr;
}

// As atoi reads it: leading blanks and a sign are accepted, trailing junk is ignored, no digits give 0. Out
// of range is clamped, where atoi leaves the result open.
std::int32_t NumberOf(std::string_view text) {
    std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
    if (at == std::string_view::npos) return 0;
    const bool negative = text[at] == '-';
    if (text[at] == '-' || text[at] == '+') ++at;
    constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
    std::int64_t value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = value * 10 + (text[at] - '0');
        if (value > kMax + 1) value = kMax + 1;
    }
    if (negative) return static_cast<std::int32_t>(-value);
    return static_cast<std::int32_t>(value > kMax ? kMax : value);
}

WideText WidenPath(const std::string& bytes) {
    if (IsValidUtf8(bytes)) return OVLStringToTString(bytes);
    const std::optional<std::string> utf8 = platform::GbkToUtf8(bytes);
    return utf8 ? OVLStringToTString(*utf8) : WidenUtf8(bytes);
}

bool Exists(const std::string& name) {
    std::FILE* file = platform::OpenFile(name, "r");
    if (file == nullptr) return false;
    std::fclose(file);
    return true;
}

bool Parse(const std::string& name, TiXmlDocument& document) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(PathFromUtf8(name), error);
    if (error || size > kMaxTableSize_bytes) return false;
    const std::optional<std::string> bytes = platform::ReadWholeFile(name);
    if (!bytes || FindXmlBoundsProblem(*bytes, {kMaxTableSize_bytes, kMaxTableNesting})) return false;
    // Bytes that are not UTF-8 are taken one by one: read as UTF-8, a lead byte would swallow the tag behind
    // it.
    const TiXmlEncoding encoding = IsValidUtf8(*bytes) ? TIXML_DEFAULT_ENCODING : TIXML_ENCODING_LEGACY;
    document.SetTabSize(0);  // nobody asks for rows and columns
    document.Parse(bytes->c_str(), nullptr, encoding);
    return !document.Error();
}

}  // namespace

WorkerTypeTable::WorkerTypeTable() : WorkerTypeTable(GetModuleDirectory()) {}

WorkerTypeTable::WorkerTypeTable(WideText moduleDirectory) : m_moduleDirectory(std::move(moduleDirectory)) {}

bool WorkerTypeTable::LoadConfig() {
    const WideText wideName = m_moduleDirectory + L"RQWorkerConfig.xml";
    const std::string name = OVLTStringToString(wideName);
    if (!Exists(name)) {
        Log(kLevelFailure, Fill("File [%s] does not exist.", "%s", name));
        return false;
    }
    TiXmlDocument document;
    if (!Parse(name, document)) {
        Log(kLevelFailure, Fill("File [%s] load failed.", "%s", name));
        return false;
    }
    TiXmlElement* root = document.FirstChildElement();
    if (root == nullptr) {
        Log(kLevelFailure, Fill("File [%s] element is null.", "%s", name));
        return false;
    }
    m_entries.clear();
    std::int32_t type = 0;  // kept from one WORKER to the next
    for (TiXmlElement* child = root->FirstChildElement(); child; child = child->NextSiblingElement()) {
        if (UpperCaseName(*child) == "WORKER") ReadWorker(*child, type);
    }
    return true;
}

void WorkerTypeTable::ReadWorker(TiXmlElement& worker, std::int32_t& type) {
    WorkerTypeEntry entry;
    for (TiXmlElement* child = worker.FirstChildElement(); child; child = child->NextSiblingElement()) {
        const std::string& name = UpperCaseName(*child);
        const char* text = ElementText(*child);
        if (name == "TYPE") {
            if (text != nullptr) type = NumberOf(text);
        } else if (name == "PATH") {
            entry.path = text != nullptr ? WidenPath(text) : WideText{};
        }
    }
    entry.type = type;
    m_entries[type] = entry;
}

bool WorkerTypeTable::GetWorkerDllPath(std::int32_t type, WideText& path) {
    if (!LoadConfig()) return false;
    const auto found = m_entries.find(type);
    if (found == m_entries.end()) {
        Log(kLevelFailure, Fill("Cannot Find Worker Dll! Type [%d].", "%d", std::to_string(type)));
        return false;
    }
    path = found->second.path;
    return true;
}

}  // namespace rq

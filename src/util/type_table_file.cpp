#include "util/type_table_file.h"

#include <tinyxml.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>

#include "base/paths.h"
#include "platform/codepage.h"
#include "platform/files.h"
#include "util/utility.h"
#include "util/xml_bounds.h"

namespace rq {
namespace {

using KWOVL_UTILITY::OVLStringToTString;
using State = TypeTableReading::State;

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

std::string InLineOf(std::string_view xml, std::size_t position, const std::string& problem) {
    const auto lines = std::count(xml.begin(), xml.begin() + static_cast<std::ptrdiff_t>(position), '\n');
    return "line " + std::to_string(lines + 1) + ": " + problem;
}

TypeTableReading Failure(std::string problem) {
    TypeTableReading reading;
    reading.problem = std::move(problem);
    return reading;
}

// TinyXML passes over a byte order mark only where it reads UTF-8.
std::string WithoutMark(std::string bytes) {
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.erase(0, 3);
    return bytes;
}

class TableReader {
  public:
    explicit TableReader(std::string bytes) : m_xml(WithoutMark(std::move(bytes))) {}

    TypeTableReading Read() {
        if (std::optional<std::string> problem =
                FindXmlBoundsProblem(m_xml, {kMaxTableSize_bytes, kMaxTableNesting})) {
            return Failure(*std::move(problem));
        }
        // Bytes that are not UTF-8 are taken one by one: read as UTF-8, a lead byte would swallow the tag
        // behind it.
        m_encoding = IsValidUtf8(m_xml) ? TIXML_ENCODING_UTF8 : TIXML_ENCODING_LEGACY;
        const std::string frame = ReadChildren();
        TiXmlDocument document;
        if (!m_problem && Parse(frame, document, 0) && document.FirstChildElement() == nullptr) {
            m_reading.state = State::NoElement;
            return m_reading;
        }
        if (m_problem) return Failure(*std::move(m_problem));
        m_reading.state = State::Read;
        return m_reading;
    }

  private:
    // Takes each element below the root. Returns the document without what stands inside its root.
    std::string ReadChildren() {
        std::size_t depth = 0;
        std::size_t rootEnd = 0;  // behind the root's first tag
        std::size_t child = 0;
        std::size_t at = 0;
        while (const std::optional<XmlTag> tag = NextXmlTag(m_xml, at)) {
            at = tag->end;
            if (tag->kind == XmlTagKind::Other) continue;
            if (depth == 0) {
                if (tag->kind == XmlTagKind::Empty) return m_xml;  // a root that holds nothing
                if (tag->kind == XmlTagKind::Close) continue;
                rootEnd = tag->end;
                depth = 1;
                continue;
            }
            if (depth == 1 && tag->kind == XmlTagKind::Close) {
                return m_xml.substr(0, rootEnd) + m_xml.substr(tag->begin);
            }
            if (depth == 1) child = tag->begin;
            if (tag->kind == XmlTagKind::Open) ++depth;
            if (tag->kind == XmlTagKind::Close) --depth;
            if (depth == 1 && !TakeChild(child, tag->end)) return {};
        }
        if (depth > 1) TakeChild(child, m_xml.size());  // which does not end, as its parser says
        return depth == 0 ? m_xml : m_xml.substr(0, rootEnd);
    }

    bool TakeChild(std::size_t begin, std::size_t end) {
        TiXmlDocument document;
        if (!Parse(m_xml.substr(begin, end - begin), document, begin)) return false;
        TiXmlElement* element = document.FirstChildElement();
        if (element == nullptr) {
            m_problem = InLineOf(m_xml, begin, "a name that is none");
            return false;
        }
        if (UpperCaseName(*element) == "WORKER") TakeWorker(*element);
        return true;
    }

    bool Parse(const std::string& text, TiXmlDocument& document, std::size_t position) {
        document.SetTabSize(0);  // nobody asks for rows and columns
        document.Parse(text.c_str(), nullptr, m_encoding);
        if (document.Error()) m_problem = InLineOf(m_xml, position, document.ErrorDesc());
        return !document.Error();
    }

    void TakeWorker(TiXmlElement& worker) {
        WorkerTypeEntry entry;
        for (TiXmlElement* child = worker.FirstChildElement(); child; child = child->NextSiblingElement()) {
            const std::string& name = UpperCaseName(*child);
            const char* text = ElementText(*child);
            if (name == "TYPE") {
                if (text != nullptr) m_type = NumberOf(text);
            } else if (name == "PATH") {
                entry.path = text != nullptr ? WidenPath(text) : WideText{};
            }
        }
        entry.type = m_type;
        m_reading.entries[m_type] = entry;
    }

    const std::string m_xml;
    TiXmlEncoding m_encoding = TIXML_ENCODING_UTF8;
    std::int32_t m_type = 0;  // kept from one WORKER to the next
    std::optional<std::string> m_problem;
    TypeTableReading m_reading;
};

}  // namespace

TypeTableReading ReadTypeTable(const std::string& name) {
    try {
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(PathFromUtf8(name), error);
        if (!error && size > kMaxTableSize_bytes) {
            return Failure("it has " + std::to_string(size) + " bytes, " +
                           std::to_string(kMaxTableSize_bytes) + " are allowed");
        }
        platform::OsError osError;
        std::optional<std::string> bytes = platform::ReadWholeFile(name, &osError);
        if (!bytes) return Failure(osError.message);
        return TableReader(*std::move(bytes)).Read();
    } catch (const std::bad_alloc&) {
        return Failure("there is not enough memory for it");
    }
}

}  // namespace rq

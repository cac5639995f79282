#include "util/running_parameter_xml.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

#include "base/text.h"

namespace rq {
namespace {

constexpr const char* kItem = "Item";

// ---- texts of single values ----

// Character data of an element, sections and comments in between notwithstanding.
std::string TextOf(const TiXmlElement& element) {
    std::string text;
    for (const TiXmlNode* child = element.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (const TiXmlText* part = child->ToText()) text += part->ValueStr();
    }
    return text;
}

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The whole text as a number, in the classic form whatever the locale is.
template <class Number>
std::optional<Number> ParseNumber(std::string_view text) {
    text = Trim(text);
    if (text.starts_with('+') && text.size() > 1 && text[1] != '-') text.remove_prefix(1);
    Number number{};
    const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (status != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

template <class Number>
std::string NumberText(Number number) {
    std::array<char, 64> buffer;
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
    return std::string(buffer.data(), result.ptr);
}

// TinyXML joins blanks into one and drops those at the ends, and leaves "&#x" alone when it writes: such a
// text goes into a CDATA section.
bool NeedsSection(std::string_view text) {
    return text.starts_with(' ') || text.ends_with(' ') || text.find("  ") != std::string_view::npos ||
           text.find("&#x") != std::string_view::npos;
}

void AddText(TiXmlElement& element, std::string_view text, bool asSection) {
    TiXmlText node(std::string(text).c_str());
    node.SetCDATA(asSection);
    element.InsertEndChild(node);
}

void SetText(TiXmlElement& element, const std::string& text) {
    element.Clear();
    std::string_view rest = text;
    if (!NeedsSection(rest)) {
        if (!rest.empty()) AddText(element, rest, false);
        return;
    }
    constexpr std::string_view kEnd = "]]>";
    for (std::size_t end = rest.find(kEnd); end != std::string_view::npos; end = rest.find(kEnd)) {
        AddText(element, rest.substr(0, end + 2), true);
        rest.remove_prefix(end + 2);
    }
    AddText(element, rest, true);
}

// What the file can hold of a text.
std::string Storable(const std::string& text) {
    return RepairUtf8(std::string_view(text).substr(0, text.find('\0')));
}

// ---- one overload for each kind of field: Parse gives nothing when the text is no good ----

bool Parse(const TiXmlElement& element, std::int32_t& value) {
    const auto number = ParseNumber<std::int32_t>(TextOf(element));
    if (number) value = *number;
    return number.has_value();
}

bool Parse(const TiXmlElement& element, bool& flag) {
    const std::string text = TextOf(element);
    const std::string_view digit = Trim(text);
    if (digit != "0" && digit != "1") return false;
    flag = digit == "1";
    return true;
}

bool Parse(const TiXmlElement& element, float& real) {
    const auto number = ParseNumber<float>(TextOf(element));
    if (!number || !std::isfinite(*number)) return false;
    real = *number;
    return true;
}

bool Parse(const TiXmlElement& element, std::string& text) {
    text = TextOf(element);
    return true;
}

bool Parse(const TiXmlElement& element, std::vector<std::string>& texts) {
    texts.clear();
    for (auto* item = element.FirstChildElement(kItem); item != nullptr;
         item = item->NextSiblingElement(kItem)) {
        texts.push_back(TextOf(*item));
    }
    return true;
}

bool Parse(const TiXmlElement& element, std::vector<std::uint16_t>& ports) {
    ports.clear();
    for (auto* item = element.FirstChildElement(kItem); item != nullptr;
         item = item->NextSiblingElement(kItem)) {
        const auto port = ParseNumber<std::uint16_t>(TextOf(*item));
        if (!port) return false;
        ports.push_back(*port);
    }
    return true;
}

void Store(TiXmlElement& element, std::int32_t value) {
    SetText(element, NumberText(value));
}
void Store(TiXmlElement& element, bool flag) {
    SetText(element, flag ? "1" : "0");
}
void Store(TiXmlElement& element, float real) {
    SetText(element, NumberText(real));
}
void Store(TiXmlElement& element, const std::string& text) {
    SetText(element, Storable(text));
}

template <class Entry, class MakeText>
void StoreItems(TiXmlElement& element, const std::vector<Entry>& entries, MakeText makeText) {
    element.Clear();
    for (const Entry& entry : entries) {
        TiXmlElement item(kItem);
        SetText(item, makeText(entry));
        element.InsertEndChild(item);
    }
}

void Store(TiXmlElement& element, const std::vector<std::string>& texts) {
    StoreItems(element, texts, Storable);
}
void Store(TiXmlElement& element, const std::vector<std::uint16_t>& ports) {
    StoreItems(element, ports, NumberText<std::uint16_t>);
}

// The element whose value is the pause of a thread that measures: without one it would never rest.
constexpr const char* kReportInterval = "ProgressReportInterval";

const char* Wanted(const std::string& element, std::int32_t) {
    return element == kReportInterval ? "a whole number from 1 to 2147483647"
                                      : "a whole number from -2147483648 to 2147483647";
}
const char* Wanted(const std::string&, bool) {
    return "0 or 1";
}
const char* Wanted(const std::string&, float) {
    return "a number like 1 or 0.5";
}
const char* Wanted(const std::string&, const std::string&) {
    return "a text";
}
const char* Wanted(const std::string&, const std::vector<std::string>&) {
    return "at least one <Item> with a text";
}
const char* Wanted(const std::string&, const std::vector<std::uint16_t>&) {
    return "at least one <Item>, each a number from 0 to 65535";
}

// For a message: the element's texts, its items' too.
std::string Shown(const TiXmlElement& element) {
    std::string text = TextOf(element);
    for (auto* item = element.FirstChildElement(kItem); item != nullptr;
         item = item->NextSiblingElement(kItem)) {
        text += (text.empty() ? "" : ", ") + TextOf(*item);
    }
    return std::string(CutUtf8(text, 80));
}

// A server list must have an entry for the link's index to point at.
template <class Field>
bool IsUsable(const std::string&, const Field&) {
    return true;
}
bool IsUsable(const std::string& element, std::int32_t value) {
    return value >= 1 || element != kReportInterval;
}
template <class Entry>
bool IsUsable(const std::string& element, const std::vector<Entry>& list) {
    return !list.empty() || (element != "ServerAddresses" && element != "ServerPorts");
}

template <class Field>
void ReadField(const TiXmlElement& root, const char* name, Field& field, ReadReport& report) {
    const TiXmlElement* element = root.FirstChildElement(name);
    if (element == nullptr) {
        report.missing.emplace_back(name);
        return;
    }
    Field read{};
    if (Parse(*element, read) && IsUsable(name, read)) {
        field = std::move(read);
        return;
    }
    TiXmlElement sample(name);
    Store(sample, field);
    report.bad.push_back({name, element->Row(), Shown(*element), Wanted(name, field), Shown(sample)});
}

template <class Field>
void WriteField(TiXmlElement& root, const char* name, const Field& field, const Field& fallback) {
    TiXmlElement* element = root.FirstChildElement(name);
    if (element == nullptr) {
        TiXmlNode* added = root.InsertEndChild(TiXmlElement(name));
        Store(*added->ToElement(), field);
        return;
    }
    Field there{};
    const bool isGood = Parse(*element, there) && IsUsable(name, there);
    if (isGood ? there == field : field == fallback) return;
    Store(*element, field);
}

}  // namespace

// All fields that have an element: every kind but INDEX.
#define RQ_PARAM_VALUE(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_FLAG(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_REAL(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_TEXT(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_TEXTS(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_PORTS(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_INDEX(...)

ReadReport ReadFields(const TiXmlElement& root, tagOVLCommunicationParam& parameter) {
    parameter = tagOVLCommunicationParam();
    ReadReport report;
#define RQ_FIELD(position, member, element, ...) ReadField(root, element, parameter.member, report);
#include "records/running_parameter_table.inc"
#undef RQ_FIELD
    return report;
}

void WriteFields(const tagOVLCommunicationParam& parameter, TiXmlElement& root) {
    const tagOVLCommunicationParam defaults;
#define RQ_FIELD(position, member, element, ...) WriteField(root, element, parameter.member, defaults.member);
#include "records/running_parameter_table.inc"
#undef RQ_FIELD
}

}  // namespace rq

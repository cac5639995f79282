#include "plugin_common/task_xml.h"

#include <algorithm>

namespace rq::task {
namespace {

std::string Tag(std::string_view name) {
    return "<" + std::string(name) + ">";
}

std::string List(std::initializer_list<std::string_view> names) {
    std::string list;
    for (const std::string_view name : names) list += (list.empty() ? "" : ", ") + Tag(name);
    return list;
}

bool IsSchemaHint(const std::string& attribute) {
    return attribute == "xmlns:xsi" || attribute == "xsi:noNamespaceSchemaLocation";
}

void CheckAttributes(const XmlElement& element, XmlError& error) {
    if (!element.attributes.empty())
        error.Set(element.line, Tag(element.name) + " has the attribute \"" + element.attributes.front() +
                                    "\"; attributes are not used here");
}

bool ContinuesUtf8(char c) {
    return (static_cast<unsigned char>(c) & 0xC0u) == 0x80u;
}

// A refusal quotes what it refuses, which may be of any length: its middle is left out then, at whole
// characters. Line breaks and other control characters become blanks.
std::string OneLine(std::string_view text) {
    constexpr std::size_t kBegin_bytes = 1500;
    constexpr std::size_t kEnd_bytes = 500;
    std::string line(text);
    if (text.size() > kBegin_bytes + kEnd_bytes) {
        std::size_t begin = kBegin_bytes;
        while (ContinuesUtf8(text[begin])) --begin;
        std::size_t end = text.size() - kEnd_bytes;
        while (ContinuesUtf8(text[end])) ++end;
        line = std::string(text.substr(0, begin)) + " ... " + std::string(text.substr(end));
    }
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    return line;
}

// The text of an element that holds nothing else.
std::string PlainText(const XmlElement& element, std::string_view hint, XmlError& error) {
    CheckAttributes(element, error);
    if (!element.children.empty()) {
        const XmlElement& inner = element.children.front();
        error.Set(inner.line, Tag(inner.name) + " in " + Tag(element.name) + ", which holds text only");
    } else if (TrimXml(element.text).empty()) {
        error.Set(element.line, Tag(element.name) + " is empty; " + std::string(hint));
    }
    return error.Failed() ? std::string() : element.text;
}

}  // namespace

void XmlError::Set(std::size_t line, std::string_view text) {
    if (!Failed()) m_text = "line " + std::to_string(line) + ": " + OneLine(text);
}

std::string_view TrimXml(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

bool CheckRoot(XmlElement& root, std::string_view name, XmlError& error) {
    if (error.Failed()) return false;
    if (root.name != name) {
        error.Set(root.line, "the root element is " + Tag(root.name) + "; it must be " + Tag(name));
        return false;
    }
    root.attributes.erase(std::remove_if(root.attributes.begin(), root.attributes.end(), IsSchemaHint),
                          root.attributes.end());
    return true;
}

XmlFields::XmlFields(const XmlElement& element, std::initializer_list<std::string_view> allowed,
                     XmlError& error)
    : m_element(element), m_error(error) {
    CheckAttributes(element, error);
    if (element.textLine != 0)
        error.Set(element.textLine,
                  "text in " + Tag(element.name) + ", which holds elements only: " + List(allowed));
    for (const XmlElement& child : element.children) {
        if (std::find(allowed.begin(), allowed.end(), child.name) == allowed.end())
            error.Set(child.line, Tag(child.name) + " is not known in " + Tag(element.name) +
                                      "; allowed are: " + List(allowed));
    }
}

const XmlElement* XmlFields::Find(std::string_view name, std::string_view hint, bool required) {
    const XmlElement* found = nullptr;
    for (const XmlElement& child : m_element.children) {
        if (child.name != name) continue;
        if (found != nullptr) {
            m_error.Set(child.line, Tag(name) + " stands twice in " + Tag(m_element.name) +
                                        ", first in line " + std::to_string(found->line));
            return nullptr;
        }
        found = &child;
    }
    if (found == nullptr && required)
        m_error.Set(m_element.line, Tag(m_element.name) + " has no " + Tag(name) + "; " + std::string(hint));
    return found;
}

std::string XmlFields::Required(std::string_view name, std::string_view hint) {
    const XmlElement* child = Find(name, hint, true);
    return child == nullptr ? std::string() : PlainText(*child, hint, m_error);
}

std::optional<std::string> XmlFields::Optional(std::string_view name, std::string_view hint) {
    const XmlElement* child = Find(name, hint, false);
    if (child == nullptr) return std::nullopt;
    return PlainText(*child, hint, m_error);
}

const XmlElement* XmlFields::Only(std::string_view name, std::string_view hint) {
    return Find(name, hint, true);
}

const XmlElement* XmlFields::OptionalOnly(std::string_view name) {
    return Find(name, {}, false);
}

std::vector<const XmlElement*> XmlFields::Repeated(std::string_view name, std::string_view hint) {
    std::vector<const XmlElement*> found;
    for (const XmlElement& child : m_element.children)
        if (child.name == name) found.push_back(&child);
    if (found.empty())
        m_error.Set(m_element.line, Tag(m_element.name) + " has no " + Tag(name) + "; " + std::string(hint));
    return found;
}

std::size_t XmlFields::LineOf(std::string_view name) const {
    for (const XmlElement& child : m_element.children)
        if (child.name == name) return child.line;
    return m_element.line;
}

}  // namespace rq::task

// Reads task texts: XML in UTF-8, turned into a small tree whose every element knows its line, and typed
// getters whose errors name the element and the line. One reader for all plug-ins, so that a wrong task is
// refused in the same words everywhere.
//
// Refused: more than kMaxTaskText_bytes, nesting over kMaxNesting, more than kMaxElements elements, a tag
// over kMaxTag_bytes (a million attributes would take many seconds), a DOCTYPE (and so every entity but the
// five of XML), another encoding than UTF-8, anything that is not well-formed. A byte order mark is skipped.
// Texts are taken as they stand, blanks and line ends included. Pure functions over values; any thread.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rq::task {

constexpr std::size_t kMaxTaskText_bytes = 16u << 20;
constexpr std::size_t kMaxNesting = 64;
constexpr std::size_t kMaxElements = 500'000;
constexpr std::size_t kMaxTag_bytes = 64u << 10;

// The first thing wrong; later ones are not kept. One of these is shared by all getters of a reading, so that
// a plug-in reads every field first and asks once.
class XmlError {
  public:
    bool Failed() const { return !m_text.empty(); }
    // "line 7: <Path> is empty; give the absolute path of a file". One line of some 2000 bytes at most.
    const std::string& Text() const { return m_text; }
    void Set(std::size_t line, std::string_view text);

  private:
    std::string m_text;
};

struct XmlElement {
    std::string name;
    std::string text;                     // all text directly in it, CDATA included
    std::size_t line = 0;                 // of its start tag, from 1
    std::size_t textLine = 0;             // of the first text in it that is not blank; 0 when there is none
    std::vector<std::string> attributes;  // names only
    std::vector<XmlElement> children;
};

// False, with `error` set, when the text is refused; `root` then holds what had been read.
bool ParseTaskXml(std::string_view text, XmlElement& root, XmlError& error);

// The children of one element, read against what is allowed in it. The constructor refuses attributes, text
// between the children, and unknown elements, naming what is allowed.
class XmlFields {
  public:
    XmlFields(const XmlElement& element, std::initializer_list<std::string_view> allowed, XmlError& error);

    // The text of the only child `name`. Missing, repeated, blank, or with elements in it: an error that ends
    // with `hint`
    // ("give the absolute path of a file"), and an empty text.
    std::string Required(std::string_view name, std::string_view hint);
    // The same, but it may be missing.
    std::optional<std::string> Optional(std::string_view name, std::string_view hint);
    // The only child `name`; null with an error when it is missing or repeated.
    const XmlElement* Only(std::string_view name, std::string_view hint);
    // The same, but it may be missing: null without an error.
    const XmlElement* OptionalOnly(std::string_view name);
    // All children `name`, in order; an error when there is none.
    std::vector<const XmlElement*> Repeated(std::string_view name, std::string_view hint);
    // The line of the first child `name`, or the element's own.
    std::size_t LineOf(std::string_view name) const;

    const XmlElement& Element() const { return m_element; }

  private:
    const XmlElement* Find(std::string_view name, std::string_view hint, bool required);

    const XmlElement& m_element;
    XmlError& m_error;
};

// An error when the root's name is another one. Attributes that only tell an editor where the schema is are
// allowed in it.
bool CheckRoot(XmlElement& root, std::string_view name, XmlError& error);

// Without the blanks, tabs and line ends at both ends.
std::string_view TrimXml(std::string_view text);

}  // namespace rq::task

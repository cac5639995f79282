// Bounds on an XML text, checked before the XML library parses it: its parser and its destructors call
// themselves for each level of nesting. Pure; any thread; no recursion, one pass.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace rq {

struct XmlBounds {
    std::size_t size_bytes = 1024 * 1024;
    std::size_t depth = 32;  // levels of elements, the root is the first
};

enum class XmlTagKind { Open, Empty, Close, Other };  // Other: comment, character data, declaration, "<!...>"

// One tag of a text; `begin` is at its "<", `end` behind its last byte.
struct XmlTag {
    XmlTagKind kind = XmlTagKind::Other;
    std::size_t begin = 0;
    std::size_t end = 0;
};

// The first tag at or behind `from`; nothing when there is none, or when it does not end (its `begin` is then
// in `*unended`).
std::optional<XmlTag> NextXmlTag(std::string_view xml, std::size_t from, std::size_t* unended = nullptr);

// What is wrong, in words with a line number; nothing when the text may be parsed. Also refused is a "<"
// inside a tag or an attribute's value (no XML has that): it is what makes the count exact.
std::optional<std::string> FindXmlBoundsProblem(std::string_view xml, const XmlBounds& bounds = {});

}  // namespace rq

#include "util/xml_bounds.h"

#include <fmt/format.h>

#include <algorithm>

namespace rq {
namespace {

constexpr std::size_t kNowhere = std::string_view::npos;

// Position after the ">" that ends the tag which begins at `begin`; npos when it does not end or holds
// another "<". A ">" inside a quoted value does not end an element's tag; it does end a declaration or
// "<!...>".
std::size_t EndOfTag(std::string_view xml, std::size_t begin, bool minded) {
    char quote = '\0';
    for (std::size_t i = begin + 1; i < xml.size(); ++i) {
        const char c = xml[i];
        if (c == '<') return kNowhere;
        if (quote != '\0') {
            if (c == quote) quote = '\0';
        } else if (minded && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return kNowhere;
}

// Position after `mark`, npos when it does not come.
std::size_t After(std::string_view xml, std::size_t begin, std::string_view mark) {
    const std::size_t at = xml.find(mark, begin);
    return at == kNowhere ? kNowhere : at + mark.size();
}

std::string At(std::string_view xml, std::size_t position, std::string_view problem) {
    const auto lines = std::count(xml.begin(), xml.begin() + static_cast<std::ptrdiff_t>(position), '\n');
    return fmt::format("line {}: {}", lines + 1, problem);
}

}  // namespace

std::optional<XmlTag> NextXmlTag(std::string_view xml, std::size_t from, std::size_t* unended) {
    XmlTag tag;
    tag.begin = xml.find('<', from);
    if (tag.begin == kNowhere) return std::nullopt;
    const std::string_view rest = xml.substr(tag.begin);
    if (rest.starts_with("<!--")) {
        tag.end = After(xml, tag.begin + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
        tag.end = After(xml, tag.begin + 9, "]]>");
    } else if (rest.starts_with("<?") || rest.starts_with("<!")) {
        tag.end = EndOfTag(xml, tag.begin, false);
    } else if (rest.starts_with("</")) {
        tag.kind = XmlTagKind::Close;
        tag.end = EndOfTag(xml, tag.begin, false);
    } else {
        tag.end = EndOfTag(xml, tag.begin, true);
        const bool isEmpty = tag.end != kNowhere && xml[tag.end - 2] == '/';
        tag.kind = isEmpty ? XmlTagKind::Empty : XmlTagKind::Open;
    }
    if (tag.end != kNowhere) return tag;
    if (unended != nullptr) *unended = tag.begin;
    return std::nullopt;
}

std::optional<std::string> FindXmlBoundsProblem(std::string_view xml, const XmlBounds& bounds) {
    if (xml.size() > bounds.size_bytes) {
        return fmt::format("it has {} bytes, {} are allowed", xml.size(), bounds.size_bytes);
    }
    if (const std::size_t zero = xml.find('\0'); zero != kNowhere) return At(xml, zero, "a zero byte");
    std::size_t depth = 0;
    std::size_t unended = kNowhere;
    std::size_t at = 0;
    while (const std::optional<XmlTag> tag = NextXmlTag(xml, at, &unended)) {
        at = tag->end;
        if (tag->kind == XmlTagKind::Open && ++depth > bounds.depth) {
            return At(xml, tag->begin, fmt::format("elements nest deeper than {} levels", bounds.depth));
        }
        if (tag->kind == XmlTagKind::Close && depth > 0) --depth;
    }
    if (unended != kNowhere) return At(xml, unended, "a \"<\" whose tag does not end");
    return std::nullopt;
}

}  // namespace rq

// Expat does the parsing: it does not recurse, keeps every blank of a text, and knows its line. What is
// refused beyond XML's own rules is refused in its handlers, which stop it.
#include <expat.h>

#include <array>
#include <cstdio>
#include <exception>
#include <memory>

#include "plugin_common/task_xml.h"
#include "plugin_common/utf8.h"

namespace rq::task {
namespace {

std::size_t LineAt(std::string_view text, std::size_t offset) {
    std::size_t line = 1;
    for (const char c : text.substr(0, offset)) line += c == '\n' ? 1 : 0;
    return line;
}

bool CheckBytes(std::string_view text, XmlError& error) {
    if (text.size() > kMaxTaskText_bytes) {
        error.Set(1, "the task text has " + std::to_string(text.size()) + " bytes; at most " +
                         std::to_string(kMaxTaskText_bytes) + " are read");
        return false;
    }
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = Utf8Length(text.substr(i));
        if (length == 0) {
            std::array<char, 8> hex{};
            std::snprintf(hex.data(), hex.size(), "0x%02X", static_cast<unsigned char>(text[i]));
            error.Set(LineAt(text, i),
                      std::string("the byte ") + hex.data() +
                          " is not UTF-8; write the task text in UTF-8, not in GBK or another encoding");
            return false;
        }
        i += length;
    }
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    if (TrimXml(text).empty()) {
        error.Set(1, "the task text is empty");
        return false;
    }
    return true;
}

// Where what begins at `begin` ends: behind the next `end`, or at the end of the text.
std::size_t Behind(std::string_view text, std::size_t begin, std::string_view end) {
    const std::size_t at = text.find(end, begin);
    return at == std::string_view::npos ? text.size() : at + end.size();
}

// Behind the tag that begins at `begin`: its '>' stands outside of quotes.
std::size_t BehindTag(std::string_view text, std::size_t begin) {
    std::size_t i = begin + 1;
    while (i < text.size() && text[i] != '>')
        i = text[i] == '"' || text[i] == '\'' ? Behind(text, i + 1, text.substr(i, 1)) : i + 1;
    return i;
}

bool CheckTags(std::string_view text, XmlError& error) {
    const auto stands = [&](std::size_t at, std::string_view word) {
        return text.substr(at, word.size()) == word;
    };
    for (std::size_t i = text.find('<'); i < text.size(); i = text.find('<', i)) {
        if (stands(i, "<!--")) {
            i = Behind(text, i + 4, "-->");
        } else if (stands(i, "<![CDATA[")) {
            i = Behind(text, i, "]]>");
        } else if (stands(i, "<?")) {
            i = Behind(text, i, "?>");
        } else {
            const std::size_t end = BehindTag(text, i);
            if (end - i > kMaxTag_bytes) {
                error.Set(LineAt(text, i),
                          "a tag is longer than " + std::to_string(kMaxTag_bytes) + " bytes, or has no end");
                return false;
            }
            i = end;
        }
    }
    return true;
}

bool IsUtf8Name(std::string_view encoding) {
    std::string lower;
    for (const char c : encoding) lower += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return lower == "utf-8";
}

class TreeBuilder {
  public:
    TreeBuilder(XmlElement& root, XmlError& error) : m_root(root), m_error(error) {}

    bool Parse(std::string_view text) {
        const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
            XML_ParserCreate("UTF-8"), &XML_ParserFree);
        m_parser = parser.get();
        if (m_parser == nullptr) {
            m_error.Set(1, "not enough memory to read the task text");
            return false;
        }
        XML_SetUserData(m_parser, this);
        XML_SetElementHandler(m_parser, &OnStart, &OnEnd);
        XML_SetCharacterDataHandler(m_parser, &OnText);
        XML_SetXmlDeclHandler(m_parser, &OnDeclaration);
        XML_SetStartDoctypeDeclHandler(m_parser, &OnDoctype);
        if (XML_Parse(m_parser, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK)
            ReportExpat();
        return !m_error.Failed();
    }

  private:
    static TreeBuilder& Of(void* self) { return *static_cast<TreeBuilder*>(self); }
    static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
        Of(self).Guarded([&] { Of(self).Start(name, attributes); });
    }
    static void XMLCALL OnEnd(void* self, const XML_Char*) {
        Of(self).Guarded([&] { Of(self).m_open.pop_back(); });
    }
    static void XMLCALL OnText(void* self, const XML_Char* text, int length) {
        Of(self).Guarded([&] { Of(self).Text({text, static_cast<std::size_t>(length)}); });
    }
    static void XMLCALL OnDeclaration(void* self, const XML_Char*, const XML_Char* encoding, int) {
        if (encoding == nullptr || IsUtf8Name(encoding)) return;
        Of(self).Guarded([&] {
            Of(self).Refuse(std::string("the encoding is given as \"") + encoding +
                            "\"; write the task text in UTF-8 and say so, or say nothing");
        });
    }
    static void XMLCALL OnDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
        Of(self).Guarded([&] { Of(self).Refuse("a DOCTYPE is not read; leave it out"); });
    }

    // Nothing may throw through the parser.
    template <class Work>
    void Guarded(Work work) {
        try {
            if (!m_error.Failed()) work();
        } catch (const std::exception& e) {
            m_error.Set(Line(), e.what());
            XML_StopParser(m_parser, XML_FALSE);
        }
    }

    std::size_t Line() const { return XML_GetCurrentLineNumber(m_parser); }

    void Refuse(const std::string& text) {
        m_error.Set(Line(), text);
        XML_StopParser(m_parser, XML_FALSE);
    }

    void Start(const char* name, const char** attributes) {
        if (m_open.size() == kMaxNesting)
            return Refuse("elements are nested more than " + std::to_string(kMaxNesting) + " deep");
        if (++m_count > kMaxElements)
            return Refuse("more than " + std::to_string(kMaxElements) + " elements");
        // A growing list of children moves only elements that are complete: those still open are its parents.
        XmlElement& element = m_open.empty() ? m_root : m_open.back()->children.emplace_back();
        element.name = name;
        element.line = Line();
        for (; *attributes != nullptr; attributes += 2) element.attributes.emplace_back(*attributes);
        m_open.push_back(&element);
    }

    void Text(std::string_view text) {
        XmlElement& element = *m_open.back();
        if (element.textLine == 0 && !TrimXml(text).empty()) element.textLine = Line();
        element.text += text;
    }

    void ReportExpat() {
        if (m_error.Failed()) return;  // a handler said why it stopped
        std::string text = std::string("not well-formed XML: ") + XML_ErrorString(XML_GetErrorCode(m_parser));
        if (!m_open.empty())
            text += "; <" + m_open.back()->name + "> of line " + std::to_string(m_open.back()->line) +
                    " is still open";
        m_error.Set(Line(), text);
    }

    XmlElement& m_root;
    XmlError& m_error;
    XML_Parser m_parser = nullptr;
    std::vector<XmlElement*> m_open;
    std::size_t m_count = 0;
};

}  // namespace

bool ParseTaskXml(std::string_view text, XmlElement& root, XmlError& error) {
    root = {};
    return CheckBytes(text, error) && CheckTags(text, error) && TreeBuilder(root, error).Parse(text);
}

}  // namespace rq::task

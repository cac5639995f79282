#include "records/generate_text.h"

#include <cstdio>
#include <string_view>

namespace rq {
namespace {

enum class Kind { Value, Flag, Real, Text, Texts, Ports, Index };

struct Field {
    Kind kind;
    int position;
    std::string_view member;
    std::string_view element;
    std::string defaultText;
    std::string_view unit;
    std::string_view meaning;
};

std::string DefaultText(const char* text) {
    return text;
}
std::string DefaultText(int value) {
    return std::to_string(value);
}
std::string DefaultText(float value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(value));
    return text;
}

const std::vector<Field>& Fields() {
    static const std::vector<Field> fields = {
#define RQ_FIELD(kind, position, member, element, def, unit, meaning) \
    {Kind::kind, position, #member, element, DefaultText(def), unit, meaning},
#define RQ_PARAM_VALUE(...) RQ_FIELD(Value, __VA_ARGS__)
#define RQ_PARAM_FLAG(...) RQ_FIELD(Flag, __VA_ARGS__)
#define RQ_PARAM_REAL(...) RQ_FIELD(Real, __VA_ARGS__)
#define RQ_PARAM_TEXT(...) RQ_FIELD(Text, __VA_ARGS__)
#define RQ_PARAM_TEXTS(...) RQ_FIELD(Texts, __VA_ARGS__)
#define RQ_PARAM_PORTS(...) RQ_FIELD(Ports, __VA_ARGS__)
#define RQ_PARAM_INDEX(...) RQ_FIELD(Index, __VA_ARGS__)
#include "records/running_parameter_table.inc"
#undef RQ_PARAM_VALUE
#undef RQ_PARAM_FLAG
#undef RQ_PARAM_REAL
#undef RQ_PARAM_TEXT
#undef RQ_PARAM_TEXTS
#undef RQ_PARAM_PORTS
#undef RQ_PARAM_INDEX
#undef RQ_FIELD
    };
    return fields;
}

bool IsList(Kind kind) {
    return kind == Kind::Texts || kind == Kind::Ports;
}

const char* CType(Kind kind) {
    switch (kind) {
        case Kind::Flag:
            return "uint8_t";
        case Kind::Real:
            return "float";
        case Kind::Text:
            return "RQText";
        case Kind::Texts:
            return "RQTextList";
        case Kind::Ports:
            return "RQPortList";
        case Kind::Value:
        case Kind::Index:
            break;
    }
    return "int32_t";
}

const char* KindText(Kind kind) {
    switch (kind) {
        case Kind::Value:
            return "whole number";
        case Kind::Flag:
            return "flag";
        case Kind::Real:
            return "number";
        case Kind::Text:
            return "text";
        case Kind::Texts:
            return "list of texts";
        case Kind::Ports:
            return "list of ports";
        case Kind::Index:
            break;
    }
    return "whole number";
}

// The default as a reader of the header or the page sees it.
std::string ShownDefault(const Field& field) {
    const bool isText = field.kind == Kind::Text || field.kind == Kind::Texts;
    if (!isText) return field.defaultText;
    if (field.defaultText.empty()) return IsList(field.kind) ? "no item" : "empty";
    return '"' + field.defaultText + '"';
}

std::string HeaderComment(const Field& field) {
    std::string text = field.element.empty() ? "no element" : std::string(field.element);
    text += "; default " + ShownDefault(field);
    if (!field.unit.empty()) text += ' ' + std::string(field.unit);
    return text + "; " + std::string(field.meaning);
}

// "<" and "&" have a meaning in XML, "|" in the page's tables; no default or meaning needs them so far, and
// one that does must not break the file silently.
std::string XmlText(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '<')
            escaped += "&lt;";
        else if (c == '>')
            escaped += "&gt;";
        else if (c == '&')
            escaped += "&amp;";
        else
            escaped += c;
    }
    return escaped;
}

std::string TableCell(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '|') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string XmlElement(const Field& field) {
    const std::string name(field.element);
    if (field.defaultText.empty()) return "    <" + name + " />\n";
    if (!IsList(field.kind)) return "    <" + name + ">" + XmlText(field.defaultText) + "</" + name + ">\n";
    return "    <" + name + ">\n        <Item>" + XmlText(field.defaultText) + "</Item>\n    </" + name +
           ">\n";
}

constexpr const char* kHeaderBegin =
    R"(/* rqworker/running_parameter.h: the running parameters as a plug-in receives them. Made by rq_generate
 * from src/records/running_parameter_table.inc: change the table and build the target `generate`.
 *
 * The record and everything it points to belong to the worker. The one given to RQWorkerInit lives until
 * RQWorkerRelease, the one given to RQWorkerPerformTask until that call returns. A plug-in that keeps
 * something longer copies it. Any thread may read.
 *
 * `size` is what the worker knows of the record, in bytes. A field lies inside it when
 * offsetof(RQRunningParameter, field) + sizeof(field) <= size. Fields are only ever added at the end.
 *
 * Each comment gives the element in "actor.xml", the default with its unit, and the meaning. Flags are 0 or
 * 1, texts UTF-8. */
/* clang-format off */
#ifndef RQWORKER_RUNNING_PARAMETER_H
#define RQWORKER_RUNNING_PARAMETER_H

#include <stdint.h>

#include "rqworker/text.h"

typedef struct RQRunningParameter {
    uint32_t size; /* bytes of this record that are there */
)";

constexpr const char* kHeaderEnd = R"(} RQRunningParameter;

#endif /* RQWORKER_RUNNING_PARAMETER_H */
)";

constexpr const char* kDocumentBegin = R"(# Running parameters

Made by `rq_generate` from `src/records/running_parameter_table.inc`: change the table and build the target `generate`.

A worker reads its running parameters from `actor.xml`, copies them into its record `tagOVLCommunicationParam` and hands
them to its plug-in as an `RQRunningParameter` (`sdk/include/rqworker/running_parameter.h`).

## The file

```xml
<?xml version="1.0" encoding="UTF-8" ?>
<RunningParameters>
    <HeartbeatInterval>60</HeartbeatInterval>
    <ServerAddresses>
        <Item>127.0.0.1</Item>
    </ServerAddresses>
</RunningParameters>
```

- The file is UTF-8. The root element is `RunningParameters`; each parameter is a child element of the name below, in any
  order.
- A whole number is decimal with an optional sign and 32 bits wide. A flag is `0` or `1`. A number has an optional decimal
  point and exponent. A text is the element's character data. A port is a decimal number from 0 to 65535.
- A list holds one element `Item` for each of its entries; a list element without items is an empty list.
- A text keeps its blanks inside a CDATA section only; outside of one, blanks at its ends are dropped and several in a row
  become one.
- A parameter that the file lacks, or whose text does not fit its kind, has its default; so has a server list without
  items, and a `ProgressReportInterval` below 1, with which the reporting thread would never rest. The worker's log says what did not fit. Elements that are not listed are kept when the file is written.

## The parameters

| No. | Element | Kind | Default | Unit | Member | Meaning |
| ---: | --- | --- | --- | --- | --- | --- |
)";

constexpr const char* kDocumentEnd = R"(
`nextServerIndex` lives in memory only. Parameters without a meaning of their own are carried for the plug-ins: the
worker reads them, writes them and hands them on, and nothing else.
)";

}  // namespace

std::string RunningParameterHeader() {
    std::string text = kHeaderBegin;
    for (const Field& field : Fields()) {
        text += "    " + std::string(CType(field.kind)) + ' ' + std::string(field.member) + "; /* " +
                HeaderComment(field) + " */\n";
    }
    return text + kHeaderEnd;
}

std::string RunningParameterDocument() {
    std::string text = kDocumentBegin;
    for (const Field& field : Fields()) {
        const std::string element = field.element.empty() ? "none" : '`' + std::string(field.element) + '`';
        text += "| " + std::to_string(field.position) + " | " + element + " | " + KindText(field.kind) +
                " | " + TableCell(ShownDefault(field)) + " | " + std::string(field.unit) + " | `" +
                std::string(field.member) + "` | " + TableCell(field.meaning) + " |\n";
    }
    return text + kDocumentEnd;
}

std::string RunningParameterXml() {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<RunningParameters>\n";
    for (const Field& field : Fields()) {
        if (field.kind != Kind::Index) text += XmlElement(field);
    }
    return text + "</RunningParameters>\n";
}

std::vector<GeneratedFile> GeneratedFiles() {
    return {{"sdk/include/rqworker/running_parameter.h", RunningParameterHeader()},
            {"docs/running-parameters.md", RunningParameterDocument()},
            {"data/actor.xml", RunningParameterXml()}};
}

}  // namespace rq

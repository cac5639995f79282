// The reader of task texts, and its getters, on any bytes.
#include "fuzz/checks.h"
#include "plugin_common/task_xml.h"

namespace {

using rq::fuzz::Require;

void CheckTree(const rq::task::XmlElement& element, std::size_t depth, std::size_t& count) {
    Require(depth <= rq::task::kMaxNesting && ++count <= rq::task::kMaxElements, "the bounds", element.name);
    Require(element.line >= 1 && !element.name.empty() && rq::fuzz::IsUtf8(element.text), "an element",
            element.name);
    Require((element.textLine != 0) == !rq::task::TrimXml(element.text).empty(), "the line of a text",
            element.text);
    for (const rq::task::XmlElement& child : element.children) CheckTree(child, depth + 1, count);
}

// Asks for what may be there, in every way.
void CheckFields(const rq::task::XmlElement& root, std::string_view text) {
    rq::task::XmlError error;
    rq::task::XmlFields fields(root, {"a", "b", "c"}, error);
    const std::string a = fields.Required("a", "hint");
    const auto b = fields.Optional("b", "hint");
    const auto* only = fields.Only("c", "hint");
    const auto* maybe = fields.OptionalOnly("c");
    const auto repeated = fields.Repeated("c", "hint");
    Require(fields.LineOf("b") >= 1, "the line of a child", text);
    if (error.Failed()) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return;
    }
    Require(!a.empty() && (!b || !b->empty()), "texts that were not refused", text);
    Require(only != nullptr && only == maybe && repeated.size() == 1, "children that were not refused", text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    rq::task::XmlElement root;
    rq::task::XmlError error;
    const bool isRead = rq::task::ParseTaskXml(text, root, error);
    Require(isRead == !error.Failed(), "a text is read or refused", error.Text());
    if (!isRead) {
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
        return 0;
    }
    std::size_t elements = 0;
    CheckTree(root, 1, elements);
    if (rq::task::CheckRoot(root, "r", error))
        CheckFields(root, text);
    else
        rq::fuzz::RequireGoodRefusal(error.Text(), text);
    return 0;
}

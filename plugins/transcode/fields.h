// Typed values of a task text's elements: whole numbers, seconds, frame rates, words from a list. Each
// refusal names the element, its line, what stands there and what may. Pure; any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "plugin_common/task_xml.h"

namespace rq::transcode {

struct Rational;

class TypedFields {
  public:
    TypedFields(const task::XmlElement& element, std::initializer_list<std::string_view> allowed,
                task::XmlError& error)
        : m_fields(element, allowed, error), m_error(error) {}

    task::XmlFields& Plain() { return m_fields; }

    std::optional<int> Whole(std::string_view name, int least, int most);
    // Seconds with at most six decimals, as microseconds.
    std::optional<std::int64_t> Seconds(std::string_view name);
    // "25", "23.976", "30000/1001".
    std::optional<Rational> FrameRate(std::string_view name);
    std::optional<bool> Flag(std::string_view name);
    // One of the words, which is also what the refusal lists.
    std::optional<std::string> Word(std::string_view name, std::initializer_list<std::string_view> words);
    std::string RequiredWord(std::string_view name, std::initializer_list<std::string_view> words);
    // The absolute path of a file, taken as it stands.
    std::string Path();

    // Refuses `name` when it is there, for the reason given.
    void Forbid(std::string_view name, std::string_view reason);
    // "<name> ..." in the line of the element, or of its parent.
    void Refuse(std::string_view name, std::string_view text);

  private:
    std::optional<std::string> Trimmed(std::string_view name, std::string_view hint);

    task::XmlFields m_fields;
    task::XmlError& m_error;
};

}  // namespace rq::transcode

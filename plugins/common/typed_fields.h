// Typed values of a task text's elements: whole numbers, seconds, flags, words from a list, absolute paths.
// Each refusal names the element, its line, what stands there and what may. Pure; any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "plugin_common/task_xml.h"

namespace rq::task {

class TypedFields {
  public:
    TypedFields(const XmlElement& element, std::initializer_list<std::string_view> allowed, XmlError& error)
        : m_fields(element, allowed, error), m_error(error) {}

    XmlFields& Plain() { return m_fields; }

    // `least` is 0 or more.
    std::optional<std::int64_t> Whole(std::string_view name, std::int64_t least, std::int64_t most);
    // Seconds with at most six decimals, as microseconds.
    std::optional<std::int64_t> Seconds(std::string_view name);
    std::optional<bool> Flag(std::string_view name);
    // One of the words, which is also what the refusal lists.
    std::optional<std::string> Word(std::string_view name, std::initializer_list<std::string_view> words);
    std::string RequiredWord(std::string_view name, std::initializer_list<std::string_view> words);
    // An absolute path, taken as it stands; `hint` says of what ("give the absolute path of a file").
    std::string AbsolutePath(std::string_view name, std::string_view hint);
    // The same, but one that ends with a separator, as only a folder's does, is refused.
    std::string FilePath(std::string_view name, std::string_view hint = "give the absolute path of a file");
    // The same as AbsolutePath, but it may be missing.
    std::optional<std::string> OptionalPath(std::string_view name, std::string_view hint);

    // Refuses `name` when it is there, for the reason given.
    void Forbid(std::string_view name, std::string_view reason);
    // "<name> ..." in the line of the element, or of its parent.
    void Refuse(std::string_view name, std::string_view text);

  protected:
    std::optional<std::string> Trimmed(std::string_view name, std::string_view hint);

  private:
    XmlFields m_fields;
    XmlError& m_error;
};

// Parts of values. Digits with or without decimals, in units of 10^-decimals.
std::optional<std::int64_t> ParseDecimal(std::string_view text, std::size_t decimals);
bool IsDigits(std::string_view text, std::size_t most);
// At most 18 digits.
std::int64_t NumberOf(std::string_view digits);

}  // namespace rq::task

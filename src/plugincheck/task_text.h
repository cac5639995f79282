// The memory of one task text as it is lent to the plug-in for an analyse call. Main or link thread, one at a
// time.
#pragma once

#include <rqworker/text.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string_view>

namespace rq::plugincheck {

class TaskText {
  public:
    // With a zero behind it, as texts in C have it, or with bytes that belong to no text.
    TaskText(std::string_view text, bool hasZero)
        : m_bytes(new char[text.size() + kBehind]), m_size(text.size()) {
        std::copy(text.begin(), text.end(), m_bytes.get());
        std::fill_n(m_bytes.get() + m_size, kBehind, hasZero ? '\0' : kPoison);
        m_bytes[m_size + kBehind - 1] = '\0';
    }

    RQText Text() const { return {m_bytes.get(), m_size}; }
    // It is still `text`, as it was lent.
    bool Is(std::string_view text) const { return std::string_view(m_bytes.get(), m_size) == text; }
    // Whoever kept the text now reads bytes that are no UTF-8.
    void Poison() { std::fill_n(m_bytes.get(), m_size, kPoison); }
    bool Holds(const char* pointer) const {
        const std::less<const char*> isBefore;
        return pointer != nullptr && !isBefore(pointer, m_bytes.get()) &&
               isBefore(pointer, m_bytes.get() + m_size + kBehind);
    }

  private:
    static constexpr std::size_t kBehind = 16;
    static constexpr char kPoison = '\xFE';

    std::unique_ptr<char[]> m_bytes;
    std::size_t m_size;
};

}  // namespace rq::plugincheck

// Random: the one source of chance in a schedule. The same seed gives the same numbers on every machine (the
// standard library's distributions would not).
#pragma once

#include <cstdint>
#include <initializer_list>

namespace rq::sim {

class Random {
  public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t Next() {
        m_state += 0x9E3779B97F4A7C15ull;
        std::uint64_t mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
        return mixed ^ (mixed >> 31);
    }
    // 0 to below `end`; `end` is at least 1.
    std::uint64_t Below(std::uint64_t end) { return Next() % end; }
    std::int64_t Between(std::int64_t first, std::int64_t last) {
        return first + static_cast<std::int64_t>(Below(static_cast<std::uint64_t>(last - first) + 1));
    }
    // True once in `in` times; never for 0.
    bool OneIn(std::uint64_t in) { return in != 0 && Below(in) == 0; }
    template <class T>
    T Of(std::initializer_list<T> values) {
        return values.begin()[Below(values.size())];
    }

  private:
    std::uint64_t m_state;
};

}  // namespace rq::sim

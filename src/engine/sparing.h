// Sparing: what strangers bring about again and again gets ten lines of the log in ten seconds, so that it
// does not push everything else out of it. One thread.
#pragma once

#include <cstdint>
#include <optional>

#include "base/clock.h"

namespace rq::engine {

class Sparing {
  public:
    // How many lines were left out since the last one; nothing when this one is to be left out, too.
    std::optional<std::uint64_t> Next(SteadyTime now) {
        if (m_lines == 0 || now - m_began >= std::chrono::seconds(10)) {
            m_began = now;
            m_lines = 0;
        }
        if (m_lines == 10) {
            ++m_leftOut;
            return std::nullopt;
        }
        ++m_lines;
        const auto leftOut = m_leftOut;
        m_leftOut = 0;
        return leftOut;
    }

  private:
    SteadyTime m_began{};
    int m_lines = 0;
    std::uint64_t m_leftOut = 0;
};

}  // namespace rq::engine

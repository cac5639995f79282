#include "watch.h"

#include <algorithm>
#include <cmath>

namespace rq::transcode {

void Watch::Begin(std::int64_t length_us, double units_per_s) {
    m_unitsPerSecond = units_per_s;
    m_total = length_us < 1 ? 0
                            : std::max<std::int64_t>(
                                  1, std::llround(static_cast<double>(length_us) * 1e-6 * units_per_s));
    if (m_total > 0) Tell(m_total, 0);
}

void Watch::Fraction(double fraction) {
    m_fraction = std::clamp(fraction, m_fraction, 1.0);
}

void Watch::At(std::int64_t position_us) {
    m_positionUs = std::max(m_positionUs, position_us);
}

void Watch::Tick() {
    const auto now = std::chrono::steady_clock::now();
    if (now - m_toldAt < kReport_ms) return;
    const std::int64_t done = std::llround(static_cast<double>(m_positionUs) * 1e-6 * m_unitsPerSecond);
    std::int64_t total = m_total;
    if (total == 0) {
        if (m_fraction <= 0 || done < 1) {
            m_toldAt = now;
            m_run.QuietFor(1);
            return;
        }
        total = std::max(done + 1, static_cast<std::int64_t>(static_cast<double>(done) / m_fraction));
        // Rounding must not take the percentage back.
        if (m_toldDone > 0) total = std::min(total, std::max(done + 1, done * m_toldTotal / m_toldDone));
    }
    // The last unit is told when the target has its name.
    Tell(total, std::clamp(done, m_toldDone, std::max(m_toldDone, total - 1)));
}

void Watch::Complete() {
    const std::int64_t done = std::llround(static_cast<double>(m_positionUs) * 1e-6 * m_unitsPerSecond);
    const std::int64_t total = m_total > 0 ? m_total : std::max<std::int64_t>({done, m_toldDone, 1});
    Tell(total, total);
}

void Watch::Tell(std::int64_t total, std::int64_t done) {
    m_toldTotal = total;
    m_toldDone = done;
    m_run.Progress(total, done);
    m_toldAt = std::chrono::steady_clock::now();
}

}  // namespace rq::transcode

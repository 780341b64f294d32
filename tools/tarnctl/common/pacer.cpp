#include "tarnctl/common/pacer.h"

namespace tarnctl {

Pacer::Pacer(double perSecond) : m_interval(perSecond > 0 ? 1.0 / perSecond : 0.0) {}

Pacer::Clock::duration Pacer::DelayBeforeNext(Clock::time_point now) {
    if (m_interval.count() == 0) {
        return Clock::duration::zero();
    }
    if (!m_started) {
        m_started = true;
        m_start = now;
    }
    Clock::time_point due = m_start + std::chrono::duration_cast<Clock::duration>(m_elapsed);
    if (now - due > kCatchUp) {
        m_start = now;
        m_elapsed = m_elapsed.zero();
        due = now;
    }
    m_elapsed += m_interval;
    return due > now ? due - now : Clock::duration::zero();
}

}  // namespace tarnctl

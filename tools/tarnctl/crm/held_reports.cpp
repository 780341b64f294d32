#include "tarnctl/crm/held_reports.h"

#include <optional>

#include "tarnctl/rings/message_length.h"

namespace tarnctl {

HeldReports::HeldReports(int channel, const char* queueName)
    : m_number(channel), m_channel(channel, queueName) {}

bool HeldReports::Open() {
    if (!m_channel.Open()) {
        m_error = m_channel.Error();
        return false;
    }
    for (int ring = 0; ring < 2; ++ring) {
        RingWalker& walker = m_walkers[static_cast<size_t>(ring)];
        if (!walker.Open(m_channel.RingPath(ring))) {
            m_error = walker.Error();
            return false;
        }
    }
    return true;
}

bool HeldReports::Collect(size_t most, const Look& look) {
    const size_t end = Held() + most;
    return CollectFrom(0, end, look) && CollectFrom(1, end, look);
}

bool HeldReports::CollectFrom(int ring, size_t most, const Look& look) {
    RingWalker& walker = m_walkers[static_cast<size_t>(ring)];
    while (Held() < most) {
        switch (walker.Next()) {
            case WalkResult::kMessage:
                m_held.push_back({ring, walker.BodyAt()});
                look({m_number, ring}, walker.Body());
                break;
            case WalkResult::kEnd:
                return true;
            case WalkResult::kOvertaken:
                break;  // another reader is at work; what it took is not here any more
            case WalkResult::kHole:
                if (PutBackLength(ring)) {
                    break;
                }
                [[fallthrough]];
            case WalkResult::kTooLong:
                m_error = walker.Path() + ": the ring is damaged at offset " +
                          std::to_string(walker.At()) +
                          "; what is behind that stays there; see 'tarnctl ring check'";
                return false;
        }
    }
    return true;
}

// Only the message at the read index can have lost its length to a reader.
bool HeldReports::PutBackLength(int ring) {
    const RingWalker& walker = m_walkers[static_cast<size_t>(ring)];
    const uint32_t at = walker.At();
    const std::optional<uint32_t> length = ReportLength(walker.BytesAt(at));
    if (walker.Look().readIndex != at || !length) {
        return false;
    }
    m_channel.PutBackLength(ring, at, *length);
    ++m_putBack;
    return true;
}

void HeldReports::Release(size_t count) {
    for (; count > 0 && !m_held.empty(); --count) {
        // What another reader has taken is out of the ring already.
        (void)m_channel.Drop(m_held.front().ring, m_held.front().at);
        m_held.pop_front();
    }
}

void HeldReports::Wait(std::chrono::milliseconds time) {
    m_channel.ForgetPost();
    m_channel.Wait(time);
}

bool HeldReports::IsCurrent() const {
    return m_walkers[0].IsCurrent() && m_walkers[1].IsCurrent();
}

}  // namespace tarnctl

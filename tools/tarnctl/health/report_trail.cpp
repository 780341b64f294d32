#include "tarnctl/health/report_trail.h"

#include <unistd.h>

#include <span>

#include "tarnctl/rings/message_length.h"

namespace tarnctl {

bool ReportTrail::Follow(const Take& take) {
    if (!m_isOpen || !m_ring.IsCurrent()) {
        const bool wasOpen = m_isOpen;
        m_isOpen = access(m_path.c_str(), R_OK) == 0 && m_ring.Open(m_path);
        m_at = m_isOpen ? m_ring.Look().writeIndex : 0;
        return !wasOpen;
    }
    const RingLook look = m_ring.Look();
    while (m_at != look.writeIndex) {
        const RingBytes bytes = m_ring.BytesAt(m_at);
        const std::optional<uint32_t> length = ReportLength(bytes);
        EventReport report;
        if (!length ||
            !bytes.Copy(sizeof(ReportChunkHeader), std::as_writable_bytes(std::span(&report, 1)))) {
            m_at = look.writeIndex;
            return false;
        }
        take(report);
        m_at = static_cast<uint32_t>(ShmRingRoundUp(uint64_t{m_at} + kShmRingWordSize + *length) %
                                     look.size);
    }
    return true;
}

}  // namespace tarnctl

#include "tarnctl/feed/report_watch.h"

#include <sys/stat.h>

#include <cerrno>
#include <span>
#include <utility>

#include "crm/event_report_format.h"
#include "ring/shm_ring_format.h"
#include "tarnctl/common/failure_text.h"
#include "tarnctl/rings/message_length.h"

namespace tarnctl {

ReportWatch::ReportWatch(std::string path) : m_path(std::move(path)) {}

std::string ReportWatch::Attach() {
    m_isAttached = false;
    struct stat status = {};
    if (stat(m_path.c_str(), &status) != 0) {
        return FailureText(m_path, errno);
    }
    if (!m_ring.Open(m_path)) {
        return m_ring.Error();
    }
    m_isAttached = true;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_size = m_ring.Look().size;
    m_at = WriteIndex();
    return "";
}

bool ReportWatch::GoTo(const RingMark& place) {
    if (!m_isAttached || place.device != m_device || place.inode != m_inode ||
        place.index >= m_size || place.index % kShmRingWordSize != 0) {
        return false;
    }
    m_at = place.index;
    return true;
}

bool ReportWatch::IsReplaced() const {
    return !m_ring.IsCurrent();
}

uint32_t ReportWatch::WriteIndex() const {
    return m_ring.Look().writeIndex;
}

uint32_t ReportWatch::Free() const {
    const RingLook look = m_ring.Look();
    return look.size - look.used;
}

ReportWatch::Look ReportWatch::Next(AlertKey& key) {
    if (!m_isAttached) {
        return Look::kNothing;
    }
    const uint32_t write = WriteIndex();
    if (write == m_at) {
        return Look::kNothing;
    }
    // The length comes from the report and not from its length word, which a reader clears.
    const RingBytes body = m_ring.BytesAt(m_at);
    const uint32_t length = ReportLength(body).value_or(0);
    EventReport report;
    if (length == 0 || !body.Copy(sizeof(ReportChunkHeader),
                                  std::as_writable_bytes(std::span<EventReport, 1>(&report, 1)))) {
        m_at = write;
        return Look::kUnsure;
    }
    key = KeyOf(report);
    m_at = ShmRingRoundUp(m_at + kShmRingWordSize + length) % m_size;
    return Look::kReport;
}

}  // namespace tarnctl

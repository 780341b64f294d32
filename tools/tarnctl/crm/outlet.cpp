#include "tarnctl/crm/outlet.h"

#include <algorithm>
#include <utility>

namespace tarnctl {

Outlet::Outlet(std::unique_ptr<ReportSink> sink, std::unique_ptr<SpillFile> spill)
    : m_sink(std::move(sink)), m_spill(std::move(spill)) {}

std::string Outlet::Open() {
    std::string obstacle = m_spill != nullptr ? m_spill->Open() : "";
    if (obstacle.empty()) {
        obstacle = m_sink->Open();
    }
    m_lost = m_spill != nullptr ? m_spill->Lost() : 0;
    return obstacle;
}

size_t Outlet::Offer(std::string_view lines) {
    const size_t taken = m_sink->Take(lines);
    const std::string_view front = lines.substr(0, taken);
    m_taken += static_cast<uint64_t>(std::count(front.begin(), front.end(), '\n'));
    return taken;
}

// Brings on what waits in the spill file, a few parts of it at a time, so that news is not held up.
bool Outlet::Drain() {
    constexpr int kParts = 8;
    bool isMoving = false;
    for (int i = 0; i < kParts && m_spill != nullptr && !m_spill->IsEmpty(); ++i) {
        const std::string_view front = m_spill->Front();
        const size_t taken = front.empty() ? 0 : Offer(front);
        if (taken == 0) {
            break;
        }
        m_spill->Take(taken);
        isMoving = true;
    }
    return isMoving;
}

// What the sink was in the middle of is at the front of the spill file, unless nothing has room.
bool Outlet::Keep(std::string_view lines) {
    if (m_spill == nullptr || m_sink->IsOver() || !m_spill->Append(lines)) {
        return false;
    }
    if (m_spill->IsEmpty()) {
        m_sink->Forget();
    }
    m_done += lines.size();
    return true;
}

bool Outlet::Bring(std::string_view lines) {
    const bool isMoving = Drain();
    lines.remove_prefix(m_done);
    if (lines.empty()) {
        return isMoving;
    }
    size_t taken = 0;
    if (m_spill == nullptr || m_spill->IsEmpty()) {
        taken = Offer(lines);
        m_done += taken;
        lines.remove_prefix(taken);
    }
    return (!lines.empty() && Keep(lines)) || taken != 0 || isMoving;
}

std::string Outlet::News() {
    if (m_spill != nullptr && m_spill->Lost() != m_lost) {
        m_lost = m_spill->Lost();
        if (!std::exchange(m_isLossTold, true)) {
            return m_sink->Target() + ": the spill file is full, and reports are lost";
        }
    }
    const std::string& spillError = m_spill != nullptr ? m_spill->Error() : m_sink->Error();
    const std::string& error = spillError.empty() ? m_sink->Error() : spillError;
    if (error == m_told) {
        return "";
    }
    m_told = error;
    m_isLossTold = m_isLossTold && !error.empty();
    return error.empty() ? m_sink->Target() + ": takes reports again" : error;
}

}  // namespace tarnctl

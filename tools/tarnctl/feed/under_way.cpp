#include "tarnctl/feed/under_way.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarnctl {

void UnderWay::Add(FedAlert alert) {
    m_reportBytes += alert.reportBytes;
    m_alerts.push_back(std::move(alert));
}

bool UnderWay::Append(uint32_t eventId, std::span<const std::byte> record, uint64_t reportBytes) {
    const auto found = std::find_if(m_alerts.rbegin(), m_alerts.rend(), [&](const FedAlert& alert) {
        return alert.eventId == eventId;
    });
    if (found == m_alerts.rend()) {
        return false;
    }
    found->records.emplace_back(record.begin(), record.end());
    found->reportBytes += reportBytes;
    m_reportBytes += reportBytes;
    return true;
}

void UnderWay::Remember(const AlertKey& key) {
    m_reported.push_back(key);
    ++m_reportedCounts[key];
    if (m_reported.size() > kRemembered) {
        const auto oldest = m_reportedCounts.find(m_reported.front());
        if (--oldest->second == 0) {
            m_reportedCounts.erase(oldest);
        }
        m_reported.pop_front();
    }
}

UnderWay::Match UnderWay::Report(const AlertKey& key, std::vector<FedAlert>& lost) {
    const auto found = std::find_if(m_alerts.begin(), m_alerts.end(),
                                    [&](const FedAlert& alert) { return alert.key == key; });
    if (found == m_alerts.end()) {
        return m_reportedCounts.contains(key) ? Match::kDuplicate : Match::kForeign;
    }
    Remember(key);
    for (auto alert = m_alerts.begin(); alert != std::next(found); ++alert) {
        m_reportBytes -= alert->reportBytes;
        if (alert != found) {
            ++alert->losses;
            lost.push_back(std::move(*alert));
        }
    }
    m_alerts.erase(m_alerts.begin(), std::next(found));
    return Match::kOurs;
}

std::vector<FedAlert> UnderWay::TakeAll() {
    std::vector<FedAlert> all(std::make_move_iterator(m_alerts.begin()),
                              std::make_move_iterator(m_alerts.end()));
    m_alerts.clear();
    m_reportBytes = 0;
    return all;
}

void UnderWay::Settle() {
    for (const FedAlert& alert : m_alerts) {
        Remember(alert.key);
    }
    (void)TakeAll();
}

std::optional<SpoolPosition> UnderWay::Earliest() const {
    if (m_alerts.empty()) {
        return std::nullopt;
    }
    return std::min_element(
               m_alerts.begin(), m_alerts.end(),
               [](const FedAlert& a, const FedAlert& b) { return a.position < b.position; })
        ->position;
}

}  // namespace tarnctl

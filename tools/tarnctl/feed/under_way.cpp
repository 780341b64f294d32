#include "tarnctl/feed/under_way.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "unified2/unified2_format.h"

namespace tarnctl {

void FedRecords::Add(std::span<const std::byte> record) {
    m_bytes.insert(m_bytes.end(), record.begin(), record.end());
}

std::vector<std::span<const std::byte>> FedRecords::All() const {
    std::vector<std::span<const std::byte>> records;
    unified2::RecordHeader header;
    for (std::span<const std::byte> rest = m_bytes; !rest.empty();) {
        std::memcpy(&header, rest.data(), sizeof(header));
        const size_t length = sizeof(header) + header.length.HostOrder();
        records.push_back(rest.first(length));
        rest = rest.subspan(length);
    }
    return records;
}

FedAlert UnderWay::Blank() {
    FedAlert alert;
    if (!m_spare.empty()) {
        alert.records = std::move(m_spare.back());
        m_spare.pop_back();
        alert.records.Clear();
    }
    return alert;
}

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
    found->records.Add(record);
    found->reportBytes += reportBytes;
    m_reportBytes += reportBytes;
    return true;
}

void UnderWay::Remember(const AlertKey& key) {
    if (m_reported.size() < kRemembered) {
        m_reported.push_back(key);
        return;
    }
    m_reported[m_oldest] = key;
    m_oldest = (m_oldest + 1) % kRemembered;
}

UnderWay::Match UnderWay::Report(const AlertKey& key, std::vector<FedAlert>& lost) {
    const auto found = std::find_if(m_alerts.begin(), m_alerts.end(),
                                    [&](const FedAlert& alert) { return alert.key == key; });
    if (found == m_alerts.end()) {
        const bool isKnown =
            std::find(m_reported.begin(), m_reported.end(), key) != m_reported.end();
        return isKnown ? Match::kDuplicate : Match::kForeign;
    }
    Remember(key);
    for (auto alert = m_alerts.begin(); alert != std::next(found); ++alert) {
        m_reportBytes -= alert->reportBytes;
        if (alert != found) {
            ++alert->losses;
            lost.push_back(std::move(*alert));
        }
    }
    m_spare.push_back(std::move(found->records));
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

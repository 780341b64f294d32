#pragma once

// The alerts that are under way: fed, and not yet seen in the ring of reports.
//
// The daemon keeps the order of its alerts in both thread modes and makes exactly one report of
// each. So a report of a later alert means that those before it will not come any more: a hangup
// has dropped them, or somebody else has filled the daemon's queue. They are to be fed again. What
// is not seen because the daemon ended is fed again likewise.
//
// Each alert is kept with its records, so that it can be fed again whatever has become of its file.
//
// Threads: one at a time.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "tarnctl/feed/alert_key.h"
#include "tarnctl/feed/spool_reader.h"

namespace tarnctl {

// Records as the sensor wrote them, header included, one behind the other.
class FedRecords {
  public:
    void Add(std::span<const std::byte> record);
    // The records in their order, as long as this object does not change.
    [[nodiscard]] std::vector<std::span<const std::byte>> All() const;
    void Clear() { m_bytes.clear(); }

  private:
    std::vector<std::byte> m_bytes;
};

struct FedAlert {
    AlertKey key;
    uint32_t eventId = 0;
    SpoolPosition position;    // of its first record
    uint64_t reportBytes = 0;  // at most what its report takes in the ring
    uint32_t losses = 0;       // times that a daemon that went on has made no report of it
    FedRecords records;        // the alert, then what belongs to it
};

class UnderWay {
  public:
    enum class Match {
        kOurs,       // the report of an alert under way, which is that no more
        kDuplicate,  // of an alert that had its report already
        kForeign,    // of an alert that somebody else has fed
    };

    // An alert with nothing in it. It has the memory of one that is done with.
    [[nodiscard]] FedAlert Blank();
    void Add(FedAlert alert);
    // Adds a record to the newest alert of this event id. False when there is none.
    bool Append(uint32_t eventId, std::span<const std::byte> record, uint64_t reportBytes);

    // Takes note of a report. Alerts that it shows to be lost are moved to the end of `lost`.
    Match Report(const AlertKey& key, std::vector<FedAlert>& lost);

    // All of them, oldest first; none are under way then.
    [[nodiscard]] std::vector<FedAlert> TakeAll();
    // All of them count as reported.
    void Settle();

    [[nodiscard]] size_t Size() const { return m_alerts.size(); }
    [[nodiscard]] bool IsEmpty() const { return m_alerts.empty(); }
    [[nodiscard]] uint64_t ReportBytes() const { return m_reportBytes; }
    // The earliest position of all; empty when there is none.
    [[nodiscard]] std::optional<SpoolPosition> Earliest() const;
    // True when the newest alert has this event id.
    [[nodiscard]] bool IsNewest(uint32_t eventId) const {
        return !m_alerts.empty() && m_alerts.back().eventId == eventId;
    }

  private:
    // Alerts that had their report, as long as a second one can still come.
    static constexpr size_t kRemembered = 4096;

    void Remember(const AlertKey& key);

    std::deque<FedAlert> m_alerts;  // in the order in which they were fed
    uint64_t m_reportBytes = 0;
    std::vector<AlertKey> m_reported;  // at most kRemembered, a ring of them when there are so many
    size_t m_oldest = 0;               // of the ring
    std::vector<FedRecords> m_spare;   // memory of alerts that are done with
};

}  // namespace tarnctl

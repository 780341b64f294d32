#pragma once

// Which records are shown: events by their signature, address and time, and with each event the
// packets and extra data that belong to it.
//
// Threads: one at a time.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarnctl/quarantine/ip_network.h"
#include "tarnctl/show/record_content.h"

namespace tarnctl {

// What is asked for; what is empty asks for nothing.
struct RecordQuery {
    std::vector<uint32_t> signatures;
    std::vector<uint32_t> generators;
    std::vector<IpNetwork> networks;  // of the source or the destination
    std::optional<uint64_t> since;    // seconds since the epoch
    std::optional<uint64_t> until;    // the first second that is too late

    [[nodiscard]] bool IsEmpty() const {
        return signatures.empty() && generators.empty() && networks.empty() && !since && !until;
    }
};

class RecordFilter {
  public:
    explicit RecordFilter(const RecordQuery& query);

    // Whether a record is shown. Records come in the order of the file: a packet belongs to the
    // event of its number that came last. With a query, a record that belongs to no event is shown
    // only if it is one of statistics within the time.
    [[nodiscard]] bool Passes(const RecordContent& content);

  private:
    // The newest event of each number, by the lower 16 bits of the number, which is where a
    // sensor's numbers begin anew.
    struct Seen {
        uint32_t eventId = 0;
        bool isShown = false;
    };

    [[nodiscard]] bool IsInTime(uint32_t second) const;
    [[nodiscard]] bool IsWanted(const EventContent& event) const;
    [[nodiscard]] bool BelongsToShown(uint32_t eventId) const;

    const RecordQuery& m_query;
    std::vector<Seen> m_seen;
};

// Reads a time: seconds since the epoch, or "YYYY-MM-DD", with "HH:MM" or "HH:MM:SS" after a blank
// or a T, in local time. Nothing for any other text.
[[nodiscard]] std::optional<uint64_t> ParseTime(const std::string& text);

}  // namespace tarnctl

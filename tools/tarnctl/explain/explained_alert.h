#pragma once

// The alert that is explained: one of a unified2 file, one that the options describe, or the one
// of a report of `tarnctl crm --json`. The first two become records and go through the daemon's
// own record classes, so that the daemon's reading of them is what is explained.
//
// Threads: one at a time.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "crm/crm_event_source.h"
#include "unified2/unified2_events.h"

namespace tarnctl {

// An alert in the words of the command line. What is not given is filled in.
struct AlertDescription {
    std::string protocol;     // a name or a number; empty is TCP
    std::string source;       // an address; empty is one of the documentation's
    std::string destination;  // likewise
    std::optional<uint16_t> sourcePort;
    std::optional<uint16_t> destinationPort;
    std::optional<uint8_t> icmpType;
    std::optional<uint8_t> icmpCode;
    std::optional<uint32_t> time;  // seconds since the epoch; now unless it is given

    // True when nothing but the time is given.
    [[nodiscard]] bool IsExample() const;
};

class ExplainedAlert {
  public:
    // Each returns an empty text, or why there is no such alert.
    [[nodiscard]] std::string Describe(uint32_t signature, const AlertDescription& description);
    // The first alert of the signature in a unified2 file, with what the sensor attached to it.
    [[nodiscard]] std::string TakeFromFile(uint32_t signature, const std::string& path);
    // A line of `tarnctl crm --json`.
    [[nodiscard]] std::string TakeFromReport(const std::string& line);

    // What the daemon makes of it. Only after one of the above has succeeded.
    [[nodiscard]] const CrmEventSource& Source() const { return *m_source; }
    // Alerts of the same signature that follow in the file.
    [[nodiscard]] uint64_t Further() const { return m_further; }
    // Of a report: whether it says that something was blocked, and its event name.
    [[nodiscard]] bool WasBlocked() const { return m_wasBlocked; }
    [[nodiscard]] const std::string& ReportedName() const { return m_reportedName; }

  private:
    std::unique_ptr<U2AlertEvent> m_alert;     // owns the packet's bytes
    std::vector<uint8_t> m_packet;             // likewise, of a report
    std::unique_ptr<CrmEventSource> m_source;  // borrows them
    uint64_t m_further = 0;
    bool m_wasBlocked = false;
    std::string m_reportedName;
};

}  // namespace tarnctl

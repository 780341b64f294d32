#pragma once

// A report as a line of EVE JSON, the form of alerts that log collectors read.
//
// The members at the top are those that the form names, with its types: timestamp, event_type,
// src_ip, src_port, dest_ip, dest_port, proto, vlan, icmp_type, icmp_code, alert, http, packet and
// packet_info. All else of the report is in the object `tarn`, under the names that `crm --json`
// gives them. A field of `tarn` is left out when it is 0, empty, or shown at the top already, so
// that nothing of a report is lost in its line. docs/schemas/eve.json has every member.
//
// Threads: pure functions.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tarnctl/rings/crm_report.h"
#include "tarnctl/rings/crm_report_text.h"

namespace tarnctl {

// Appends the line of a report with its line end. `withPacket` adds the packet's bytes.
void AppendEveLine(const CrmOrigin& origin, const CrmReport& message, bool withPacket,
                   std::string& to);

// Appends the line of a message that could not be decoded: event_type "malformed", the time
// `seconds` at which it was met, the reason, and all its bytes in base64.
void AppendMalformedEveLine(const CrmOrigin& origin, const std::string& reason,
                            std::span<const std::byte> bytes, uint64_t seconds, std::string& to);

}  // namespace tarnctl

#pragma once

// The events of tests/golden/event_report_*.txt.
//
// Threads: plain functions; each result is a value of its own.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>

#include "crm/crm_event_source.h"

namespace samples {

inline CrmEventSource Minimal() {
    CrmEventSource source(4);
    source.SetIssueId(1);
    source.SetEventTime(1700000000);
    source.SetEventName("X");
    source.SetSeverity(2);
    return source;
}

inline CrmEventSource Ipv4() {
    static constexpr uint8_t kPacket[20] = {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6,
                                            0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad,
                                            0xae, 0xaf, 0xb0, 0xb1, 0xb2, 0xb3};
    CrmEventSource source(4);
    source.SetIssueId(2019401);
    source.SetEventTime(1762956721);
    source.SetProtocol(IPPROTO_TCP);
    source.SetSourceIp(inet_addr("10.1.2.3"));
    source.SetDestinationIp(inet_addr("192.168.1.20"));
    source.SetSourcePort(51234);
    source.SetDestinationPort(80);
    source.SetVlanId(100);
    source.SetPacket(kPacket, sizeof(kPacket), 1762956721, 250001);
    source.AddNameValue("URL", "/login?user=root");
    source.AddNameValue("server", "www.example.com");
    source.SetEventName("Suspicious Login");
    source.SetUserResponse(0x02, "DISPLAY:WithRaw");
    source.SetSeverity(3);
    source.SetBlockedStatus(5);
    source.AddNameValue("Rule", "alert tcp any any -> any 80 (sid:2019401;)");
    return source;
}

inline CrmEventSource Ipv6() {
    static constexpr uint8_t kPacket[5] = {0x60, 0, 0, 0, 0};
    static constexpr uint8_t kFrom[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0,
                                          0,    0,    0,    0,    0, 0, 0, 1};
    static constexpr uint8_t kTo[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0,
                                        0,    0,    0,    0,    0, 0, 0, 0xfe};
    CrmEventSource source(4);
    source.SetIssueId(3000000000u);
    source.SetEventTime(1762956800);
    source.SetIpVersion(6);
    source.SetProtocol(IPPROTO_ICMPV6);
    source.SetSourceIpv6(kFrom);
    source.SetDestinationIpv6(kTo);
    source.SetIcmp(128, 1);
    source.SetPacket(kPacket, sizeof(kPacket), 1762956800, 7);
    source.AddNameValue("URL", "/");
    source.AddNameValue("server", "v6.example.com");
    source.SetEventName("Echo, large");
    source.SetUserResponse(0x02, "DISPLAY:WithRaw");
    source.SetSeverity(1);
    source.AddNameValue("Rule", "alert icmp any any -> any any (sid:3000000000;)");
    return source;
}

}  // namespace samples

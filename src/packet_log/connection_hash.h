#pragma once

// The 64-bit number by which the packet logging interface and its daemon call a connection. Key and
// hash are described in docs/formats/connection_hash.md.
//
// Threads: any; nothing is shared.

#include <cstddef>
#include <cstdint>

#include "crm/event_report_format.h"

inline constexpr uint64_t kConnectionHashSeed = 0xffcf5faf5181815;

// A connection as a capturing engine describes it; addresses and ports in host order.
struct ConnectionRecord {
    uint32_t uSourceIp = 0;
    uint32_t uDestinationIp = 0;
    uint32_t uSourcePort = 0;
    uint32_t uDestinationPort = 0;
    uint32_t uProtocol = 0;
    uint32_t uVlanId = 0;
    uint8_t aSourceIpv6[16] = {};
    uint8_t aDestinationIpv6[16] = {};
    uint16_t uEtherType = 0;
};

// The hash of a connection, the same for both directions unless their ports are equal. 0 when the
// EtherType is neither IPv4's nor IPv6's.
[[nodiscard]] uint64_t ConnectionHash(const EventReport& report);
[[nodiscard]] uint64_t ConnectionHash(const ConnectionRecord& record);

// The hash of a 64-bit capture identifier.
[[nodiscard]] uint64_t CaptureIdHash(uint64_t uCaptureId);

// The published functions. Words of the key are taken in host byte order.
[[nodiscard]] uint64_t MurmurHash64B(const void* key, size_t length, uint64_t seed);
[[nodiscard]] uint32_t MurmurHash2(const void* key, size_t length, uint32_t seed);

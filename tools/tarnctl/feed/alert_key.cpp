#include "tarnctl/feed/alert_key.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "crm/crm_event_source.h"
#include "unified2/unified2_events.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

constexpr size_t kHeader = sizeof(unified2::RecordHeader);

// The fixed part of a record. What a short record lacks is zeros, as in the daemon.
template <typename Record>
Record FixedPart(std::span<const std::byte> record) {
    Record fixed = {};
    const size_t held = record.size() - std::min(record.size(), kHeader);
    if (held != 0) {
        std::memcpy(&fixed, record.data() + kHeader, std::min(held, sizeof fixed));
    }
    return fixed;
}

}  // namespace

AlertKey KeyOf(const EventReport& report) {
    AlertKey key;
    key.second = report.startTime;
    key.signature = report.issueId;
    key.vlan = report.vlanId;
    key.source = report.intruderIp;
    key.destination = report.victimIp;
    std::copy_n(report.intruderIpv6, key.sourceIpv6.size(), key.sourceIpv6.begin());
    std::copy_n(report.victimIpv6, key.destinationIpv6.size(), key.destinationIpv6.begin());
    key.sourcePort = report.intruderPort;
    key.destinationPort = report.victimPort;
    key.etherType = report.etherType;
    key.protocol = report.ipProtocol;
    key.icmpType = report.icmpType;
    key.icmpCode = report.icmpCode;
    return key;
}

size_t AlertKeyHash::operator()(const AlertKey& key) const {
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;
    uint64_t ends = 0;
    std::memcpy(&ends, key.sourceIpv6.data() + 8, sizeof ends);
    uint64_t hash = key.second;
    for (const uint64_t word :
         {uint64_t{key.signature} << 32 | key.source, uint64_t{key.destination} << 32 | key.vlan,
          uint64_t{key.sourcePort} << 16 | key.destinationPort, ends}) {
        hash = (hash ^ word) * kFactor;
        hash ^= hash >> 29;
    }
    return static_cast<size_t>(hash);
}

AlertRead ReadAlert(uint32_t type, std::span<const std::byte> record) {
    const bool isIpv4 = type == unified2::kAlertIpv4;
    const size_t held = record.size() - std::min(record.size(), kHeader);
    const size_t needed = std::max<size_t>(held, unified2::FixedSize(type));
    // The alert takes the bytes over and gives them back with free().
    auto* const bytes = static_cast<uint8_t*>(std::calloc(1, needed));
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    if (held != 0) {
        std::memcpy(bytes, record.data() + kHeader, held);
    }
    std::unique_ptr<U2AlertEvent> alert;
    if (isIpv4) {
        alert = std::make_unique<U2AlertEventIpv4>(bytes);
    } else {
        alert = std::make_unique<U2AlertEventIpv6>(bytes);
    }
    const std::unique_ptr<CrmEventSource> source(alert->CreateCrmEventSource(false));
    return {alert->m_eventId, KeyOf(source->GetReport())};
}

uint32_t AttachmentEventId(uint32_t type, std::span<const std::byte> record) {
    return type == unified2::kPacket ? FixedPart<unified2::Packet>(record).eventId.HostOrder()
                                     : FixedPart<unified2::ExtraData>(record).eventId.HostOrder();
}

uint64_t AttachmentReportBytes(uint32_t type, std::span<const std::byte> record) {
    return type == unified2::kPacket
               ? sizeof(PacketChunk) +
                     uint64_t{FixedPart<unified2::Packet>(record).packetLength.HostOrder()}
               : uint64_t{FixedPart<unified2::ExtraData>(record).blobLength.HostOrder()};
}

bool EndsTheDaemon(uint32_t type, std::span<const std::byte> record) {
    return type == unified2::kExtraData &&
           FixedPart<unified2::ExtraData>(record).blobLength.HostOrder() < unified2::kBlobOverhead;
}

}  // namespace tarnctl

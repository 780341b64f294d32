#include "unified2/unified2_events.h"

#include <netinet/in.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "crm/crm_event_source.h"
#include "logging/log.h"
#include "unified2/unified2_format.h"

using vald::Log;

namespace {

template <typename Record>
struct AlertTraits;

template <>
struct AlertTraits<unified2::AlertIpv4> {
    static constexpr int kIpVersion = 4;
    // Deliberate: ICMP of the other family gives neither ports nor a type, in both records.
    static constexpr uint8_t kIcmp = IPPROTO_ICMP;
};

template <>
struct AlertTraits<unified2::AlertIpv6> {
    static constexpr int kIpVersion = 6;
    static constexpr uint8_t kIcmp = IPPROTO_ICMPV6;
};

uint32_t BytesAfter(size_t fixedSize, uint32_t recordLength) {
    return recordLength > fixedSize ? static_cast<uint32_t>(recordLength - fixedSize) : 0;
}

void SetAddresses(CrmEventSource& source, const unified2::AlertIpv4& record) {
    source.SetSourceIp(std::bit_cast<uint32_t>(record.ipSource));
    source.SetDestinationIp(std::bit_cast<uint32_t>(record.ipDestination));
}

void SetAddresses(CrmEventSource& source, const unified2::AlertIpv6& record) {
    source.SetSourceIpv6(record.ipSource.data());
    source.SetDestinationIpv6(record.ipDestination.data());
}

template <typename Record>
std::unique_ptr<CrmEventSource> MakeSource(const Record& record) {
    auto source = std::make_unique<CrmEventSource>(AlertTraits<Record>::kIpVersion);
    source->SetIssueId(record.signatureId.HostOrder());
    source->SetEventTime(record.eventSecond.HostOrder());
    source->SetProtocol(record.ipProtocol);
    SetAddresses(*source, record);
    switch (record.ipProtocol) {
        case IPPROTO_TCP:
        case IPPROTO_UDP:
            source->SetSourcePort(record.sportItype.HostOrder());
            source->SetDestinationPort(record.dportIcode.HostOrder());
            break;
        case AlertTraits<Record>::kIcmp:
            source->SetIcmp(static_cast<uint8_t>(record.sportItype.HostOrder()),
                            static_cast<uint8_t>(record.dportIcode.HostOrder()));
            break;
        default:
            break;
    }
    if (record.vlanId.HostOrder() != 0) {
        source->SetVlanId(record.vlanId.HostOrder());
    }
    return source;
}

// Both alert records begin alike, as far as the signature, so the fields read here are the same.
uint32_t EventIdOf(const void* alertBytes) {
    return unified2::Load<unified2::AlertIpv4>(static_cast<const uint8_t*>(alertBytes))
        .eventId.HostOrder();
}

uint32_t SignatureIdOf(const void* alertBytes) {
    return unified2::Load<unified2::AlertIpv4>(static_cast<const uint8_t*>(alertBytes))
        .signatureId.HostOrder();
}

static_assert(offsetof(unified2::AlertIpv4, eventId) == offsetof(unified2::AlertIpv6, eventId));
static_assert(offsetof(unified2::AlertIpv4, signatureId) ==
              offsetof(unified2::AlertIpv6, signatureId));
static_assert(sizeof(unified2::AlertIpv4) <= sizeof(unified2::AlertIpv6));

}  // namespace

U2PacketEvent::U2PacketEvent(void* recordBytes, uint32_t recordLength)
    : raw(static_cast<uint8_t*>(recordBytes)) {
    const auto record = unified2::Load<unified2::Packet>(raw.get());
    const uint32_t claimed = record.packetLength.HostOrder();
    eventId = record.eventId.HostOrder();
    second = record.packetSecond.HostOrder();
    microsecond = record.packetMicrosecond.HostOrder();

    // The difference wraps for a record shorter than its fixed part, which then never matches.
    if (recordLength - static_cast<uint32_t>(sizeof(record)) != claimed) {
        Log::GetInstance()->Write(Log::kWarning,
                                  "Packet length doesn't match to the receive payload");
    }
    // Deliberate: the claim is kept, whatever the record holds. The peers count on the sensor's
    // number.
    length = claimed;
    held = std::min(claimed, BytesAfter(sizeof(record), recordLength));
    data = raw.get() + sizeof(record);
}

U2ExtraDataEvent::U2ExtraDataEvent(void* recordBytes)
    : U2ExtraDataEvent(recordBytes, std::numeric_limits<uint32_t>::max()) {}

U2ExtraDataEvent::U2ExtraDataEvent(void* recordBytes, uint32_t recordLength)
    : raw(static_cast<uint8_t*>(recordBytes)) {
    const auto record = unified2::Load<unified2::ExtraData>(raw.get());
    eventId = record.eventId.HostOrder();
    type = record.type.HostOrder();

    const uint32_t blobLength = record.blobLength.HostOrder();
    // Deliberate: nothing catches this, and the daemon ends. A sensor that cannot count its own
    // fields writes nothing that may be acted on.
    if (blobLength < unified2::kBlobOverhead) {
        throw std::length_error("extra data with a blob_length below 8");
    }
    const uint32_t claimed = blobLength - unified2::kBlobOverhead;
    const uint32_t held = std::min(claimed, BytesAfter(sizeof(record), recordLength));
    text.assign(reinterpret_cast<const char*>(raw.get()) + sizeof(record), held);
    zeros = claimed - held;
}

U2AlertEvent::U2AlertEvent(void* recordBytes)
    : m_eventId(EventIdOf(recordBytes)),
      m_signatureId(SignatureIdOf(recordBytes)),
      m_pRaw(static_cast<uint8_t*>(recordBytes)) {}

U2AlertEvent::~U2AlertEvent() = default;

bool U2AlertEvent::SetPacket(U2PacketEvent* packet) {
    m_pPacket.reset(packet);
    return true;
}

bool U2AlertEvent::SetExtraData(U2ExtraDataEvent* extra) {
    switch (extra->type) {
        case unified2::kHttpUri:
            m_pUri.reset(extra);
            return true;
        case unified2::kHttpHostname:
            m_pHostname.reset(extra);
            return true;
        default:
            Log::GetInstance()->Write(Log::kInfo, "Unsupported ExtraData type receive from Snort");
            return false;
    }
}

void U2AlertEvent::ApplyAttachments(CrmEventSource& source, bool withPacket) const {
    if (withPacket && m_pPacket != nullptr) {
        source.SetPacket(m_pPacket->data, m_pPacket->length, m_pPacket->second,
                         m_pPacket->microsecond, m_pPacket->held);
    }
    if (m_pUri != nullptr) {
        source.AddNameValue("URL", ReportText::Borrow(m_pUri->text), m_pUri->zeros);
    }
    if (m_pHostname != nullptr) {
        source.AddNameValue("server", ReportText::Borrow(m_pHostname->text), m_pHostname->zeros);
    }
}

U2AlertEventIpv4::U2AlertEventIpv4(void* recordBytes) : U2AlertEvent(recordBytes) {}

CrmEventSource* U2AlertEventIpv4::CreateCrmEventSource(bool withPacket) {
    auto source = MakeSource(unified2::Load<unified2::AlertIpv4>(m_pRaw.get()));
    ApplyAttachments(*source, withPacket);
    return source.release();
}

U2AlertEventIpv6::U2AlertEventIpv6(void* recordBytes) : U2AlertEvent(recordBytes) {}

CrmEventSource* U2AlertEventIpv6::CreateCrmEventSource(bool withPacket) {
    auto source = MakeSource(unified2::Load<unified2::AlertIpv6>(m_pRaw.get()));
    ApplyAttachments(*source, withPacket);
    return source.release();
}

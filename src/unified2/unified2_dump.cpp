// How the records show in the log: one line per field, with the labels that operators search for.

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cstring>
#include <string>

#include "logging/log.h"
#include "quarantine/address_text.h"
#include "unified2/unified2_events.h"
#include "unified2/unified2_format.h"

using vald::Log;

namespace {

constexpr int kDebug = Log::kDebug;
constexpr uint32_t kBytesPerLine = 16;
constexpr size_t kHexWidth = 3;  // two digits and a blank

// A packet's dump goes on for at most this many of the bytes that the packet claims and its record
// lacks. Deliberate: a claim of gibibytes would hold the reader's thread for minutes.
constexpr uint32_t kMostDumpedZeros = 0x100000;

std::string TextOf(const std::array<uint8_t, 4>& address) {
    return Ipv4Text(std::bit_cast<in_addr_t>(address));
}

std::string TextOf(const std::array<uint8_t, 16>& address) {
    return Ipv6Text(address);
}

template <typename Record>
void DumpAlert(const Record& record) {
    Log* const log = Log::GetInstance();
    const uint32_t eventId = record.eventId.HostOrder();
    log->Write(kDebug, "Type: Event %u -------------------------------------------", eventId);
    log->Write(kDebug, "  sensor_id          = %u", record.sensorId.HostOrder());
    log->Write(kDebug, "  event_id           = %u", eventId);
    log->Write(kDebug, "  event_second       = %u", record.eventSecond.HostOrder());
    log->Write(kDebug, "  event_microsecond  = %u", record.eventMicrosecond.HostOrder());
    // Deliberate: the generator comes ahead of the signature, as in older logs.
    log->Write(kDebug, "  generator_id       = %u", record.generatorId.HostOrder());
    log->Write(kDebug, "  signature_id       = %u", record.signatureId.HostOrder());
    log->Write(kDebug, "  signature_revision = %u", record.signatureRevision.HostOrder());
    log->Write(kDebug, "  classification_id  = %u", record.classificationId.HostOrder());
    log->Write(kDebug, "  priority_id        = %u", record.priorityId.HostOrder());
    log->Write(kDebug, "  ip_source          = %s", TextOf(record.ipSource).c_str());
    log->Write(kDebug, "  sport_itype        = %u", unsigned{record.sportItype.HostOrder()});
    log->Write(kDebug, "  ip_destination     = %s", TextOf(record.ipDestination).c_str());
    log->Write(kDebug, "  dport_icode        = %u", unsigned{record.dportIcode.HostOrder()});
    log->Write(kDebug, "  ip_protocol        = %u", unsigned{record.ipProtocol});
    log->Write(kDebug, "  impact             = %u", unsigned{record.impactFlag});
    log->Write(kDebug, "  blocked            = %u", unsigned{record.blocked});
    // Deliberate: the first two bytes of the field, and the low half of the label is kept out of
    // this line. Lines of older logs compare with it.
    log->Write(kDebug, "  mpls_label         = %u", record.mplsLabel.HostOrder() >> 16);
    log->Write(kDebug, "  vlanId             = %u", unsigned{record.vlanId.HostOrder()});
    log->Write(kDebug, "  policy id          = %u", unsigned{record.policyId.HostOrder()});
}

// Sixteen bytes of a packet as two columns of text, of `count` bytes each.
struct DumpLine {
    std::array<char, kBytesPerLine * kHexWidth + 1> hex;
    std::array<char, kBytesPerLine + 1> printable;

    DumpLine(const uint8_t* bytes, uint32_t count) {
        constexpr std::array kDigits = std::to_array("0123456789ABCDEF");
        char* hexEnd = hex.data();
        char* printableEnd = printable.data();
        for (uint32_t i = 0; i < count; ++i) {
            *hexEnd++ = kDigits[bytes[i] >> 4];
            *hexEnd++ = kDigits[bytes[i] & 0x0F];
            *hexEnd++ = ' ';
            *printableEnd++ = std::isprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
        }
        *hexEnd = '\0';
        *printableEnd = '\0';
    }
};

// The bytes at `offset` of a packet that holds `held` of its `length` bytes; the others are zeros.
DumpLine LineAt(const U2PacketEvent& packet, uint32_t offset, uint32_t count) {
    std::array<uint8_t, kBytesPerLine> bytes{};
    if (offset < packet.held) {
        std::memcpy(bytes.data(), packet.data + offset, std::min(count, packet.held - offset));
    }
    return {bytes.data(), count};
}

void DumpBytes(const U2PacketEvent& packet) {
    Log* const log = Log::GetInstance();
    const uint32_t length = packet.held + std::min(packet.length - packet.held, kMostDumpedZeros);
    const uint32_t rest = length % kBytesPerLine;
    const uint32_t full = length - rest;
    for (uint32_t offset = 0; offset < full; offset += kBytesPerLine) {
        const DumpLine line = LineAt(packet, offset, kBytesPerLine);
        log->Write(kDebug, "%5u: %s %s", offset, line.hex.data(), line.printable.data());
    }
    if (rest > 0) {
        const DumpLine line = LineAt(packet, full, rest);
        log->Write(kDebug, "%5u: %-48.48s %s", full, line.hex.data(), line.printable.data());
    }
}

}  // namespace

void U2AlertEventIpv4::Dump() {
    if (!Log::Passes(kDebug)) {
        return;
    }
    DumpAlert(unified2::Load<unified2::AlertIpv4>(m_pRaw.get()));
    DumpAttachments();
}

void U2AlertEventIpv6::Dump() {
    if (!Log::Passes(kDebug)) {
        return;
    }
    DumpAlert(unified2::Load<unified2::AlertIpv6>(m_pRaw.get()));
    DumpAttachments();
}

void U2AlertEvent::DumpAttachments() const {
    if (m_pPacket != nullptr) {
        m_pPacket->Dump();
    }
    if (m_pHostname != nullptr) {
        m_pHostname->Dump();
    }
    if (m_pUri != nullptr) {
        m_pUri->Dump();
    }
}

void U2PacketEvent::Dump() const {
    if (!Log::Passes(kDebug)) {
        return;
    }
    const auto record = unified2::Load<unified2::Packet>(raw.get());
    Log* const log = Log::GetInstance();
    log->Write(kDebug, "Type: Packet %u -------------------------------------------", eventId);
    log->Write(kDebug, "  sensor_id           = %u", record.sensorId.HostOrder());
    log->Write(kDebug, "  event_id            = %u", record.eventId.HostOrder());
    log->Write(kDebug, "  event_second        = %u", record.eventSecond.HostOrder());
    log->Write(kDebug, "  packet_second       = %u", record.packetSecond.HostOrder());
    log->Write(kDebug, "  packet_microsecond  = %u", record.packetMicrosecond.HostOrder());
    log->Write(kDebug, "  linktype            = %u", record.linktype.HostOrder());
    log->Write(kDebug, "  packet_length       = %u", record.packetLength.HostOrder());
    log->Write(kDebug, "---- Packet Dump ----");
    DumpBytes(*this);
}

void U2ExtraDataEvent::Dump() const {
    if (!Log::Passes(kDebug)) {
        return;
    }
    const auto record = unified2::Load<unified2::ExtraData>(raw.get());
    Log* const log = Log::GetInstance();
    log->Write(kDebug, "Type: Extra Data %u -------------------------------------------", eventId);
    log->Write(kDebug, "  sensor_id           = %u", record.sensorId.HostOrder());
    log->Write(kDebug, "  event_id            = %u", record.eventId.HostOrder());
    log->Write(kDebug, "  event_second        = %u", record.eventSecond.HostOrder());
    log->Write(kDebug, "  type                = %u", record.type.HostOrder());
    log->Write(kDebug, "  data_type           = %u", record.dataType.HostOrder());
    log->Write(kDebug, "  blob_length         = %u", record.blobLength.HostOrder());
    log->Write(kDebug, "  Data                = %s", text.c_str());
}

#include "crm/crm_event_source.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "config/event_rule_node.h"
#include "crm/crm_event_message.h"
#include "crm/crm_event_producer.h"
#include "logging/log.h"
#include "quarantine/address_text.h"

using vald::Log;

namespace {

// The memory of the thread's last event.
struct Spare {
    ~Spare() { ::operator delete(memory); }

    void* memory = nullptr;  // owned; null when there is none
};

thread_local Spare t_spare;

int AddressText(const EventReport& report, uint32_t ip, std::span<const uint8_t, 16> ipv6,
                std::string& text) {
    if (report.etherType == kEtherTypeIpv4) {
        text = Ipv4Text(htonl(ip));
        return 0;
    }
    if (report.etherType == kEtherTypeIpv6) {
        text = Ipv6Text(ipv6);
        return 0;
    }
    return -1;
}

// 0, or 1 for an address of another family. The copies keep clear of the address's alignment.
int TakeEndpoint(CrmEventSource& source, const sockaddr* address,
                 int (CrmEventSource::*setIp)(uint32_t),
                 int (CrmEventSource::*setIpv6)(const uint8_t*),
                 int (CrmEventSource::*setPort)(unsigned short)) {
    if (address->sa_family == AF_INET) {
        sockaddr_in ipv4;
        memcpy(&ipv4, address, sizeof(ipv4));
        (source.*setIp)(ipv4.sin_addr.s_addr);
        return (source.*setPort)(ntohs(ipv4.sin_port));
    }
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 ipv6;
        memcpy(&ipv6, address, sizeof(ipv6));
        (source.*setIpv6)(ipv6.sin6_addr.s6_addr);
        return (source.*setPort)(ntohs(ipv6.sin6_port));
    }
    return 1;
}

}  // namespace

const std::string CrmEventSource::s_unnamed = "Unnamed Snort Event";

void* CrmEventSource::operator new(size_t size) {
    if (size == sizeof(CrmEventSource) && t_spare.memory != nullptr) {
        return std::exchange(t_spare.memory, nullptr);
    }
    return ::operator new(size);
}

void CrmEventSource::operator delete(void* memory) {
    if (memory != nullptr && t_spare.memory == nullptr) {
        t_spare.memory = memory;
    } else {
        ::operator delete(memory);
    }
}

CrmEventSource::CrmEventSource(int ipVersion) {
    SetIpVersion(ipVersion);
}

CrmEventSource::CrmEventSource(const CrmEventSource& other)
    : m_report(other.m_report),
      m_eventName(other.m_eventName),
      m_userResponse(other.m_userResponse),
      m_severity(other.m_severity),
      m_blockedStatus(other.m_blockedStatus),
      m_sendRaw(other.m_sendRaw),
      m_packet(other.m_packet),
      m_heldBytes(other.m_heldBytes),
      m_rawChunk(other.m_rawChunk),
      m_nameValues(other.m_nameValues, &m_arena) {}

int CrmEventSource::SetIpVersion(int version) {
    m_report.etherType = version == 6 ? kEtherTypeIpv6 : kEtherTypeIpv4;
    return 0;
}

int CrmEventSource::GetIpVersion() const {
    return m_report.etherType == kEtherTypeIpv6 ? 6 : 4;
}

int CrmEventSource::SetProtocol(unsigned short protocol) {
    m_report.ipProtocol = protocol;
    return 0;
}

int CrmEventSource::SetIcmp(uint8_t type, uint8_t code) {
    m_report.icmpType = type;
    m_report.icmpCode = code;
    return 0;
}

int CrmEventSource::SetSourcePort(unsigned short port) {
    m_report.intruderPort = port;
    m_report.sourcePort = port;
    return 0;
}

int CrmEventSource::SetDestinationPort(unsigned short port) {
    m_report.victimPort = port;
    m_report.destinationPort = port;
    return 0;
}

int CrmEventSource::SetSourceIp(uint32_t networkOrder) {
    m_report.intruderIp = ntohl(networkOrder);
    m_report.sourceIp = m_report.intruderIp;
    return 0;
}

int CrmEventSource::SetDestinationIp(uint32_t networkOrder) {
    m_report.victimIp = ntohl(networkOrder);
    m_report.destinationIp = m_report.victimIp;
    return 0;
}

int CrmEventSource::SetSourceIpv6(const uint8_t* address) {
    memcpy(m_report.intruderIpv6, address, sizeof(m_report.intruderIpv6));
    memcpy(m_report.sourceIpv6, address, sizeof(m_report.sourceIpv6));
    return 0;
}

int CrmEventSource::SetDestinationIpv6(const uint8_t* address) {
    memcpy(m_report.victimIpv6, address, sizeof(m_report.victimIpv6));
    memcpy(m_report.destinationIpv6, address, sizeof(m_report.destinationIpv6));
    return 0;
}

int CrmEventSource::SetSource(const sockaddr* address) {
    return TakeEndpoint(*this, address, &CrmEventSource::SetSourceIp,
                        &CrmEventSource::SetSourceIpv6, &CrmEventSource::SetSourcePort);
}

int CrmEventSource::SetDestination(const sockaddr* address) {
    return TakeEndpoint(*this, address, &CrmEventSource::SetDestinationIp,
                        &CrmEventSource::SetDestinationIpv6, &CrmEventSource::SetDestinationPort);
}

int CrmEventSource::SetIssueId(uint32_t issueId) {
    m_report.issueId = issueId;
    return 0;
}

int CrmEventSource::SetVlanId(uint32_t vlanId) {
    m_report.vlanId = vlanId;
    return 0;
}

int CrmEventSource::SetEventTime(uint64_t seconds) {
    m_report.startTime = seconds;
    m_report.endTime = seconds;
    return 0;
}

int CrmEventSource::SetSeverity(uint32_t severity) {
    m_severity = severity;
    return 0;
}

int CrmEventSource::SetBlockedStatus(uint32_t status) {
    m_blockedStatus = status;
    return 0;
}

int CrmEventSource::SetEventName(std::string name) {
    return SetEventName(ReportText(std::move(name)));
}

int CrmEventSource::SetEventName(ReportText name) {
    m_eventName = std::move(name);
    return 0;
}

int CrmEventSource::SetUserResponse(uint32_t flags, std::string text) {
    return SetUserResponse(flags, ReportText(std::move(text)));
}

int CrmEventSource::SetUserResponse(uint32_t flags, ReportText text) {
    m_userResponse = std::move(text);
    m_sendRaw = (flags & kUserResponseWithRaw) != 0;
    return 0;
}

int CrmEventSource::SetPacket(const uint8_t* data, uint32_t length, uint32_t seconds,
                              uint32_t microseconds, uint32_t held) {
    m_ownedPacket.reset();
    if (data == nullptr || length == 0) {
        data = nullptr;
        length = 0;
    }
    m_packet.uPacketLength = length;
    m_packet.iCapturedSize = static_cast<int32_t>(length);
    m_packet.uSeconds = seconds;
    m_packet.uMicroseconds = microseconds;
    m_packet.pData = data;
    m_heldBytes = std::min(length, held);

    m_rawChunk.chunkLength = static_cast<uint32_t>(sizeof(m_rawChunk)) + length;
    m_rawChunk.packet.uPacketLength = m_packet.uPacketLength;
    m_rawChunk.packet.iCapturedSize = m_packet.iCapturedSize;
    m_rawChunk.packet.uSeconds = seconds;
    m_rawChunk.packet.uMicroseconds = microseconds;
    return 0;
}

int CrmEventSource::CopyPacket() {
    if (m_packet.pData == nullptr || m_packet.pData == m_ownedPacket.get()) {
        return 0;
    }
    auto copy = std::make_unique_for_overwrite<uint8_t[]>(m_heldBytes);
    memcpy(copy.get(), m_packet.pData, m_heldBytes);
    m_ownedPacket = std::move(copy);
    m_packet.pData = m_ownedPacket.get();
    return 0;
}

int CrmEventSource::AddNameValue(const std::string& key, const std::string& value, uint32_t zeros) {
    return AddNameValue(key, ReportText(value), zeros);
}

int CrmEventSource::AddNameValue(std::string key, ReportText value, uint32_t zeros) {
    m_nameValues.reserve(kUsualPairs);
    const auto place = std::lower_bound(
        m_nameValues.begin(), m_nameValues.end(), key,
        [](const NameValue& pair, const std::string& name) { return pair.key < name; });
    if (place != m_nameValues.end() && place->key == key) {
        place->value = std::move(value);
        place->zeros = zeros;
    } else {
        m_nameValues.insert(place, NameValue{std::move(key), std::move(value), zeros});
    }
    return 0;
}

int CrmEventSource::ClearNameValues() {
    m_nameValues.clear();
    return 0;
}

int CrmEventSource::GetIntruderAddressText(std::string& text) const {
    return AddressText(m_report, m_report.intruderIp, m_report.intruderIpv6, text);
}

int CrmEventSource::GetVictimAddressText(std::string& text) const {
    return AddressText(m_report, m_report.victimIp, m_report.victimIpv6, text);
}

int CrmEventSource::Dispatch(CrmEventProducer* producer) const {
    const CrmEventMessage message(*this);
    // Deliberate: a log level above 5 shows no more than level 5 does, and not even this dump.
    if (Log::GetLevel() == Log::kDebug) {
        LogReport(message);
    }
    return producer->Send(message.Pieces(), message.PieceCount(), CrmEventProducer::kReportRing);
}

void CrmEventSource::LogReport(const CrmEventMessage& message) const {
    Log& log = *Log::GetInstance();
    const EventReport& report = m_report;
    log.Write(Log::kDebug, "Dispatching CRM event - header.blockedStatus: %d", m_blockedStatus);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.icmpType: %d", report.icmpType);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.icmpCode: %d", report.icmpCode);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.intruderIpv6: %s",
              Ipv6Text(report.intruderIpv6).c_str());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.intruderIp: %08x",
              report.intruderIp);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.sensorId: %d", report.sensorId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.issueId: %d", report.issueId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.filterId: %d", report.filterId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.vlanId: %d", report.vlanId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.victimIp: %08x", report.victimIp);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.victimIpv6: %s",
              Ipv6Text(report.victimIpv6).c_str());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.victimPort: %hu",
              report.victimPort);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.intruderPort: %hu",
              report.intruderPort);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.lastVictimIp: %08x",
              report.lastVictimIp);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.sourceIp: %08x", report.sourceIp);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.destinationIp: %08x",
              report.destinationIp);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.destinationPort: %hu",
              report.destinationPort);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.sourcePort: %hu",
              report.sourcePort);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.sourceIpv6: %s",
              Ipv6Text(report.sourceIpv6).c_str());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.destinationIpv6: %s",
              Ipv6Text(report.destinationIpv6).c_str());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.lastVictimIpv6: %s",
              Ipv6Text(report.lastVictimIpv6).c_str());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.startTime: %lu", report.startTime);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.endTime: %lu", report.endTime);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.count: %d", report.count);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.result: %d", report.result);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.eventType: %d", report.eventType);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.reportType: %d", report.reportType);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.adapterId: %d", report.adapterId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.eventId: %d", report.eventId);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.throttleEventCount: %d",
              report.throttleEventCount);
    // Deliberate: the throttle count is shown under this name too. The readers of debug logs count
    // lines.
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.resultFlags: %d",
              report.throttleEventCount);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.validFields: %d",
              report.validFields);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.packetFlags: %d",
              report.packetFlags);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.frameNumber: %lu",
              report.frameNumber);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.flow_id: %lu", report.flow_id);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.etherType: %hu", report.etherType);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.ipProtocol: %hu",
              report.ipProtocol);
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.priority: %d", report.priority);
    log.Write(Log::kDebug,
              "Dispatching CRM event - eventReport.nameValues (leading comma excluded): %s",
              CrmEventMessage::NameValues());
    // Deliberate: both texts are shown with their leading comma, whatever the label says. Only the
    // wire goes without it.
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.userResponse: %s",
              m_userResponse.Text().c_str());
    log.Write(Log::kDebug,
              "Dispatching CRM event - eventReport.userDataStr (leading comma excluded): %s",
              message.UserData());
    log.Write(Log::kDebug, "Dispatching CRM event - eventReport.sensorName: %s",
              CrmEventMessage::SensorName());
}

#pragma once

// CrmEventSource: one event on its way to the CRM - the fixed report, the strings, the packet and
// the name-value pairs that go with it.
//
// A U2AlertEvent makes it and fills in what the record says, EventBridge adds what the rule table
// says, and Dispatch sends it. crm/event_report_format.h describes the message's bytes.
//
// Owner: EventBridge::ProcessOneEvent, for the processing of one event. The packet's bytes belong
// to the alert, which outlives the report, unless CopyPacket made a private copy. The texts may be
// borrowed as well: from the alert, and from the rule table's entry, which its holder keeps alive.
//
// Threads: one thread from beginning to end.

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <memory_resource>
#include <string>
#include <vector>

#include "crm/event_report_format.h"
#include "crm/packet_info_format.h"
#include "crm/report_text.h"

class CrmEventMessage;
class CrmEventProducer;

class CrmEventSource {
  public:
    // A value may claim more bytes than its text has; they go out as zeros after the text.
    struct NameValue {
        std::string key;
        ReportText value;
        uint32_t zeros = 0;  // bytes
    };
    using NameValues = std::pmr::vector<NameValue>;  // ordered by the key's bytes, each key once

    static constexpr uint32_t kAllHeld = std::numeric_limits<uint32_t>::max();

    explicit CrmEventSource(int ipVersion);
    // Copies strings and pairs. The copy owns no packet: its packet data stays the borrowed
    // pointer of the original, and must not be used beyond what that pointer lives for.
    CrmEventSource(const CrmEventSource& other);
    CrmEventSource& operator=(const CrmEventSource&) = delete;
    ~CrmEventSource() = default;

    // Each thread keeps the memory of its last event for the next one.
    static void* operator new(size_t size);
    static void operator delete(void* memory);

    // The setters return 0, except where a result is described.

    // 6 means IPv6, any other number IPv4.
    int SetIpVersion(int version);
    int SetProtocol(unsigned short protocol);
    int SetIcmp(uint8_t type, uint8_t code);

    // The source is the intruder and the destination the victim, in all of these. Ports are in host
    // order; an IPv4 address is in network order, an IPv6 address sixteen bytes in network order.
    int SetSourcePort(unsigned short port);
    int SetDestinationPort(unsigned short port);
    int SetSourceIp(uint32_t networkOrder);
    int SetDestinationIp(uint32_t networkOrder);
    int SetSourceIpv6(const uint8_t* address);
    int SetDestinationIpv6(const uint8_t* address);
    // Address and port of an AF_INET or AF_INET6 socket address: 0. Any other family: 1, and
    // nothing changes. The IP version is left to SetIpVersion.
    int SetSource(const sockaddr* address);
    int SetDestination(const sockaddr* address);

    int SetIssueId(uint32_t issueId);
    int SetVlanId(uint32_t vlanId);
    int SetEventTime(uint64_t seconds);  // since the epoch
    int SetSeverity(uint32_t severity);  // EventSeverity
    int SetBlockedStatus(uint32_t status);
    int SetEventName(std::string name);
    int SetEventName(ReportText name);
    // Takes over the text, and from the bit kUserResponseWithRaw of the flags whether the packet
    // goes into the message.
    int SetUserResponse(uint32_t flags, std::string text);
    int SetUserResponse(uint32_t flags, ReportText text);

    // Borrows the packet at `data`. A null pointer or a length of 0 means no packet; the time is
    // stored all the same. Releases an earlier private copy. `length` is the length that the packet
    // claims; when it is above `held`, only that many bytes are read at `data` and the report has
    // zeros after them.
    int SetPacket(const uint8_t* data, uint32_t length, uint32_t seconds, uint32_t microseconds,
                  uint32_t held = kAllHeld);
    // Makes a private copy of the packet, if there is one and it isn't private already.
    int CopyPacket();

    // Inserts the pair, or replaces the value of an existing key. The report has `zeros` zero bytes
    // after the value's own.
    int AddNameValue(const std::string& key, const std::string& value, uint32_t zeros = 0);
    int AddNameValue(std::string key, ReportText value, uint32_t zeros = 0);
    int ClearNameValues();

    [[nodiscard]] int GetIpVersion() const;  // 4 or 6
    [[nodiscard]] unsigned short GetProtocol() const { return m_report.ipProtocol; }
    [[nodiscard]] uint8_t GetIcmpType() const { return m_report.icmpType; }
    [[nodiscard]] uint8_t GetIcmpCode() const { return m_report.icmpCode; }
    [[nodiscard]] unsigned short GetIntruderPort() const { return m_report.intruderPort; }
    [[nodiscard]] unsigned short GetVictimPort() const { return m_report.victimPort; }
    [[nodiscard]] uint32_t GetIssueId() const { return m_report.issueId; }
    [[nodiscard]] uint32_t GetVlanId() const { return m_report.vlanId; }
    [[nodiscard]] uint64_t GetStartTime() const { return m_report.startTime; }
    [[nodiscard]] const std::string& GetEventName() const { return m_eventName.Text(); }
    // The address in text form: 0, or -1 when there is no text for it; `text` then stays.
    [[nodiscard]] int GetIntruderAddressText(std::string& text) const;
    [[nodiscard]] int GetVictimAddressText(std::string& text) const;

    [[nodiscard]] const EventReport& GetReport() const { return m_report; }
    // Only GetHeldBytes() of the packet's bytes exist, however many it claims.
    [[nodiscard]] const PacketInfo& GetPacket() const { return m_packet; }
    [[nodiscard]] const NameValues& GetNameValues() const { return m_nameValues; }
    [[nodiscard]] uint32_t GetHeldBytes() const { return m_heldBytes; }

    // Builds the message and sends it on ring 0: the result of CrmEventProducer::Send. Copies
    // neither the packet nor the strings; the message is a list of pointers into this object.
    [[nodiscard]] int Dispatch(CrmEventProducer* producer) const;

  private:
    friend class CrmEventMessage;

    void LogReport(const CrmEventMessage& message) const;

    static const std::string s_unnamed;

    EventReport m_report;
    ReportText m_eventName = ReportText::Borrow(s_unnamed);
    ReportText m_userResponse;
    uint32_t m_severity = 0;
    uint32_t m_blockedStatus = 0;
    bool m_sendRaw = false;    // the packet goes into the message
    PacketInfo m_packet;       // what the packet logging interface gets
    uint32_t m_heldBytes = 0;  // bytes that exist at m_packet.pData, at most the length it claims
    PacketChunk m_rawChunk;    // the same fields in the form of the wire
    std::unique_ptr<uint8_t[]> m_ownedPacket;
    // Room for the pairs of the usual event; only an unusual one takes more from the heap.
    static constexpr size_t kUsualPairs = 3;
    alignas(NameValue) std::array<std::byte, kUsualPairs * sizeof(NameValue)> m_room;
    std::pmr::monotonic_buffer_resource m_arena{m_room.data(), m_room.size()};
    NameValues m_nameValues{&m_arena};
};

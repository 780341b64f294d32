#pragma once

// The parts of one blocking rule and the line of text that the security manager takes for it. The
// event policy makes one on the stack for each block rule, fills it, asks for the text and throws
// it away. docs/formats/quarantine_rule.md describes the text piece by piece.
//
// Threads: not shared; each rule belongs to the thread that processes the event.

#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <span>
#include <string>

class QuarantineRule {
  public:
    using Ipv6Bytes = std::span<const uint8_t, 16>;

    // Why a rule cannot be written.
    enum class TextFault {
        kNone,            // it can
        kIpVersion,       // neither 4 nor 6
        kProtocol,        // ICMP of the other IP version
        kNoExpiration,    // no time was set
        kExpirationTime,  // the time has no calendar date
        kExpirationForm,  // the date has no text
    };

    // 4 or 6. Returns 0, or -1 for any other number, which leaves the version as it was.
    [[nodiscard]] int SetIpVersion(int version);

    // Seconds since the epoch. Returns 0, or -1 for the time 0, which leaves the field as it was.
    [[nodiscard]] int SetExpiration(time_t expiration);

    // An address as text, which is stored unchanged; empty or null means none. Returns 0.
    int SetIntruderAddress(std::string address);
    int SetVictimAddress(std::string address);
    int SetIntruderAddress(const char* address);
    int SetVictimAddress(const char* address);

    // An IPv4 address in network byte order; 0 means none. Returns 0.
    int SetIntruderAddress(in_addr_t networkOrder);
    int SetVictimAddress(in_addr_t networkOrder);

    // An IPv6 address in network byte order; all zero means none. Returns 0.
    int SetIntruderAddress(Ipv6Bytes address);
    int SetVictimAddress(Ipv6Bytes address);

    // Plain stores that take any value. Each returns 0.
    int SetProtocol(int protocol);  // IP protocol number, 0 for none
    int SetIcmpType(uint16_t type);
    int SetIcmpCode(uint16_t code);
    int SetSourcePort(uint16_t port);
    int SetDestinationPort(uint16_t port);
    int SetCounter(uint32_t counter);  // rate limit, 0 for none

    // Builds the text. Returns 0 with the text in out, or -1 for a rule that cannot be written,
    // which is logged and leaves out as it was. The rule itself never changes.
    [[nodiscard]] int ToString(std::string& out) const;

    // The two halves of ToString, for those who decide before they act. MakeText logs nothing: None
    // with the text in out, or the fault, which leaves out as it was. LogText logs the lines that
    // belong to such a result.
    [[nodiscard]] TextFault MakeText(std::string& out) const;
    void LogText(TextFault fault, const std::string& text) const;

  private:
    static constexpr uint16_t kIcmpFieldNotSet = 0xFFFF;
    static constexpr uint16_t kIcmpFieldMax = 0xFF;  // whatever is above counts as not set

    // Each appends its piece, or says why the rule cannot have it.
    TextFault AppendFamily(std::string& text) const;
    TextFault AppendProtocol(std::string& text) const;
    TextFault AppendExpiration(std::string& text) const;
    void AppendIcmpFields(std::string& text) const;
    void AppendPorts(std::string& text) const;

    int32_t m_ipVersion = 0;
    std::string m_intruderAddress;
    std::string m_victimAddress;
    int32_t m_protocol = 0;
    uint16_t m_icmpType = kIcmpFieldNotSet;
    uint16_t m_icmpCode = kIcmpFieldNotSet;
    uint16_t m_sourcePort = 0;
    uint16_t m_destinationPort = 0;
    uint32_t m_counter = 0;
    time_t m_expiration = 0;  // 0 means not set
};

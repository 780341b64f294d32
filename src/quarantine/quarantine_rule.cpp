#include "quarantine/quarantine_rule.h"

#include <algorithm>
#include <utility>

#include "logging/log.h"
#include "quarantine/address_text.h"

using vald::Log;

namespace {

constexpr int kIpv4 = 4;
constexpr int kIpv6 = 6;

// The text of an address; an address of zeros counts as none.
std::string TextOf(in_addr_t networkOrder) {
    return networkOrder != 0 ? Ipv4Text(networkOrder) : "";
}

std::string TextOf(QuarantineRule::Ipv6Bytes address) {
    const bool isSet =
        std::any_of(address.begin(), address.end(), [](uint8_t byte) { return byte != 0; });
    return isSet ? Ipv6Text(address) : "";
}

std::string TextOf(const char* address) {
    return address == nullptr ? "" : address;
}

bool IsNamedProtocol(int protocol) {
    return protocol == 0 || protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6 ||
           protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
}

// The lower half of a time. The messages show no more of it.
int Lower32(time_t time) {
    return static_cast<int>(static_cast<uint32_t>(time));
}

}  // namespace

int QuarantineRule::SetIpVersion(int version) {
    if (version != kIpv4 && version != kIpv6) {
        Log::GetInstance()->Write(Log::kError, "Invalid IP version: %d", version);
        return -1;
    }
    m_ipVersion = version;
    return 0;
}

int QuarantineRule::SetExpiration(time_t expiration) {
    if (expiration == 0) {
        Log::GetInstance()->Write(Log::kWarning, "Expiration time must not be zero.");
        return -1;
    }
    m_expiration = expiration;
    return 0;
}

int QuarantineRule::SetIntruderAddress(std::string address) {
    m_intruderAddress = std::move(address);
    return 0;
}

int QuarantineRule::SetVictimAddress(std::string address) {
    m_victimAddress = std::move(address);
    return 0;
}

int QuarantineRule::SetIntruderAddress(const char* address) {
    return SetIntruderAddress(TextOf(address));
}

int QuarantineRule::SetVictimAddress(const char* address) {
    return SetVictimAddress(TextOf(address));
}

int QuarantineRule::SetIntruderAddress(in_addr_t networkOrder) {
    return SetIntruderAddress(TextOf(networkOrder));
}

int QuarantineRule::SetVictimAddress(in_addr_t networkOrder) {
    return SetVictimAddress(TextOf(networkOrder));
}

int QuarantineRule::SetIntruderAddress(Ipv6Bytes address) {
    return SetIntruderAddress(TextOf(address));
}

int QuarantineRule::SetVictimAddress(Ipv6Bytes address) {
    return SetVictimAddress(TextOf(address));
}

int QuarantineRule::SetProtocol(int protocol) {
    m_protocol = protocol;
    return 0;
}

int QuarantineRule::SetIcmpType(uint16_t type) {
    m_icmpType = type;
    return 0;
}

int QuarantineRule::SetIcmpCode(uint16_t code) {
    m_icmpCode = code;
    return 0;
}

int QuarantineRule::SetSourcePort(uint16_t port) {
    m_sourcePort = port;
    return 0;
}

int QuarantineRule::SetDestinationPort(uint16_t port) {
    m_destinationPort = port;
    return 0;
}

int QuarantineRule::SetCounter(uint32_t counter) {
    m_counter = counter;
    return 0;
}

int QuarantineRule::ToString(std::string& out) const {
    const TextFault fault = MakeText(out);
    LogText(fault, out);
    return fault == TextFault::kNone ? 0 : -1;
}

QuarantineRule::TextFault QuarantineRule::MakeText(std::string& out) const {
    std::string text;
    if (const TextFault fault = AppendFamily(text); fault != TextFault::kNone) {
        return fault;
    }
    if (!m_intruderAddress.empty()) {
        text += " intruder addr " + m_intruderAddress;
    }
    if (!m_victimAddress.empty()) {
        text += " victim addr " + m_victimAddress;
    }
    if (const TextFault fault = AppendProtocol(text); fault != TextFault::kNone) {
        return fault;
    }
    if (m_counter != 0) {
        text += " counter " + std::to_string(m_counter) + "b";
    }
    if (const TextFault fault = AppendExpiration(text); fault != TextFault::kNone) {
        return fault;
    }
    out = std::move(text);
    return TextFault::kNone;
}

void QuarantineRule::LogText(TextFault fault, const std::string& text) const {
    Log* const log = Log::GetInstance();
    // The protocol comes before the expiration in the text, and so in the log.
    if (fault != TextFault::kIpVersion && fault != TextFault::kProtocol &&
        !IsNamedProtocol(m_protocol)) {
        log->Write(Log::kInfo, "Unrecognized protocol number %d.", m_protocol);
    }
    switch (fault) {
        case TextFault::kNone:
            log->Write(Log::kDebug, "Quarantine rule constructed: %s", text.c_str());
            break;
        case TextFault::kIpVersion:
            log->Write(Log::kError, "Unable to produce quarantine rule for IP version %d.",
                       m_ipVersion);
            break;
        case TextFault::kProtocol:
            log->Write(Log::kError, "Invalid IP version (%d) and protocol (%d) combination.",
                       m_ipVersion, m_protocol);
            break;
        case TextFault::kNoExpiration:
            log->Write(Log::kError, "Quarantine rule must have an expiration time.");
            break;
        case TextFault::kExpirationTime:
            log->Write(Log::kError, "Invalid expiration time (%d) for quarantine rule.",
                       Lower32(m_expiration));
            break;
        case TextFault::kExpirationForm:
            log->Write(
                Log::kError,
                "strftime() failed to create expiration time (%d) for quarantine rule in RFC-3339 format.",
                Lower32(m_expiration));
            break;
    }
}

QuarantineRule::TextFault QuarantineRule::AppendFamily(std::string& text) const {
    switch (m_ipVersion) {
        case kIpv4:
            text += "ip";
            return TextFault::kNone;
        case kIpv6:
            text += "ipv6";
            return TextFault::kNone;
        default:
            return TextFault::kIpVersion;
    }
}

QuarantineRule::TextFault QuarantineRule::AppendProtocol(std::string& text) const {
    switch (m_protocol) {
        case 0:
            return TextFault::kNone;
        case IPPROTO_ICMP:
        case IPPROTO_ICMPV6:
            if ((m_protocol == IPPROTO_ICMP) != (m_ipVersion == kIpv4)) {
                return TextFault::kProtocol;
            }
            text += m_protocol == IPPROTO_ICMP ? " icmp" : " icmpv6";
            AppendIcmpFields(text);
            return TextFault::kNone;
        case IPPROTO_TCP:
            text += " tcp";
            AppendPorts(text);
            return TextFault::kNone;
        case IPPROTO_UDP:
            text += " udp";
            AppendPorts(text);
            return TextFault::kNone;
        default:
            // The security manager accepts any protocol by number, so the rule is valid.
            text += " proto " + std::to_string(m_protocol);
            return TextFault::kNone;
    }
}

void QuarantineRule::AppendIcmpFields(std::string& text) const {
    if (m_icmpType <= kIcmpFieldMax) {
        text += " type " + std::to_string(m_icmpType);
    }
    if (m_icmpCode <= kIcmpFieldMax) {
        text += " code " + std::to_string(m_icmpCode);
    }
}

// Deliberate: a port that was never set is written as 0, because the security manager expects both
// port fields with TCP and UDP.
void QuarantineRule::AppendPorts(std::string& text) const {
    text += " src port " + std::to_string(m_sourcePort);
    text += " dst port " + std::to_string(m_destinationPort);
}

QuarantineRule::TextFault QuarantineRule::AppendExpiration(std::string& text) const {
    if (m_expiration == 0) {
        return TextFault::kNoExpiration;
    }
    std::tm utc{};
    if (gmtime_r(&m_expiration, &utc) == nullptr) {
        return TextFault::kExpirationTime;
    }
    char buffer[255];
    if (std::strftime(buffer, sizeof(buffer), "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
        return TextFault::kExpirationForm;
    }
    text += " expires ";
    text += buffer;
    return TextFault::kNone;
}

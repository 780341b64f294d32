#include "tarnctl/crm/eve_line.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "tarnctl/common/json_text.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/crm/rule_numbers.h"

namespace tarnctl {
namespace {

constexpr uint64_t kLastSecond = 253402300799;  // of the year 9999; the form has four digits
constexpr uint32_t kMicroseconds = 1'000'000;   // of a second
constexpr uint64_t kLinkTypeEthernet = 1;       // what a sensor's packets begin with

// The names of the pairs that have a place at the top.
constexpr std::string_view kPairUrl = "URL";
constexpr std::string_view kPairServer = "server";
constexpr std::string_view kPairRule = "Rule";

void AppendPadded(std::string& to, uint64_t value, size_t digits) {
    to.append(digits, '0');
    for (size_t place = to.size(); digits > 0; --digits, value /= 10) {
        to[--place] = static_cast<char>('0' + value % 10);
    }
}

// UTC, which is what the offset says, so that a line does not depend on where it was written.
void AppendTimestamp(std::string& to, uint64_t seconds, uint32_t microseconds) {
    using std::chrono::days;
    using std::chrono::floor;
    const std::chrono::sys_seconds time{std::chrono::seconds(std::min(seconds, kLastSecond))};
    const auto day = floor<days>(time);
    const std::chrono::year_month_day date(day);
    const auto ofDay = static_cast<uint64_t>((time - day).count());
    to += "\"timestamp\":\"";
    AppendPadded(to, static_cast<uint64_t>(static_cast<int>(date.year())), 4);
    to += '-';
    AppendPadded(to, static_cast<unsigned>(date.month()), 2);
    to += '-';
    AppendPadded(to, static_cast<unsigned>(date.day()), 2);
    to += 'T';
    AppendPadded(to, ofDay / 3600, 2);
    to += ':';
    AppendPadded(to, ofDay / 60 % 60, 2);
    to += ':';
    AppendPadded(to, ofDay % 60, 2);
    to += '.';
    AppendPadded(to, microseconds % kMicroseconds, 6);
    to += "+0000\"";
}

bool IsZero(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

// The names that the form has for protocols; a number of three digits for any other.
void AddProtocol(JsonText& json, uint16_t protocol) {
    switch (protocol) {
        case IPPROTO_ICMP:
            return json.Raw("proto", "\"ICMP\"");
        case IPPROTO_IGMP:
            return json.Raw("proto", "\"IGMP\"");
        case IPPROTO_TCP:
            return json.Raw("proto", "\"TCP\"");
        case IPPROTO_UDP:
            return json.Raw("proto", "\"UDP\"");
        case IPPROTO_GRE:
            return json.Raw("proto", "\"GRE\"");
        case IPPROTO_ESP:
            return json.Raw("proto", "\"ESP\"");
        case IPPROTO_AH:
            return json.Raw("proto", "\"AH\"");
        case IPPROTO_ICMPV6:
            return json.Raw("proto", "\"IPv6-ICMP\"");
        case IPPROTO_SCTP:
            return json.Raw("proto", "\"SCTP\"");
        default: {
            std::string number = "\"";
            AppendPadded(number, protocol, protocol > 999 ? 5 : 3);
            json.Raw("proto", number + '"');
        }
    }
}

bool HasPorts(uint16_t protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP || protocol == IPPROTO_SCTP;
}

bool IsIcmp(uint16_t protocol) {
    return protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6;
}

// 1 is the most severe. 0 for a word that is none of the three.
uint64_t SeverityNumber(std::string_view word) {
    return word == "high" ? 1U : word == "medium" ? 2U : word == "low" ? 3U : 0U;
}

const std::string* FindPair(const CrmReport& message, std::string_view name) {
    for (const auto& [key, value] : message.pairs) {
        if (key == name) {
            return &value;
        }
    }
    return nullptr;
}

void AddFlow(JsonText& json, const EventReport& report) {
    const bool isIpv6 = report.etherType == kEtherTypeIpv6;
    const bool hasPorts = HasPorts(report.ipProtocol);
    if (report.vlanId != kReportNoVlan) {
        json.Raw("vlan", "[" + std::to_string(report.vlanId) + "]");
    }
    isIpv6 ? json.Ipv6("src_ip", report.sourceIpv6) : json.Ipv4("src_ip", report.sourceIp);
    if (hasPorts) {
        json.Number("src_port", report.sourcePort);
    }
    isIpv6 ? json.Ipv6("dest_ip", report.destinationIpv6)
           : json.Ipv4("dest_ip", report.destinationIp);
    if (hasPorts) {
        json.Number("dest_port", report.destinationPort);
    }
    AddProtocol(json, report.ipProtocol);
    if (IsIcmp(report.ipProtocol)) {
        json.Number("icmp_type", report.icmpType);
        json.Number("icmp_code", report.icmpCode);
    }
}

void AddAlert(JsonText& json, const CrmReport& message) {
    constexpr uint64_t kLow = 3;
    const std::string* const rule = FindPair(message, kPairRule);
    const RuleNumbers numbers = rule != nullptr ? NumbersOfRule(*rule) : RuleNumbers();
    const uint64_t severity = SeverityNumber(message.Severity());
    json.Open("alert");
    json.Raw("action", message.IsBlocked() ? "\"blocked\"" : "\"allowed\"");
    json.Number("gid", numbers.generator);
    json.Number("signature_id", message.report.issueId);
    json.Number("rev", numbers.revision);
    json.Text("signature", message.EventName());
    json.Number("severity", severity == 0 ? kLow : severity);
    json.Close();
}

void AddHttp(JsonText& json, const CrmReport& message) {
    const std::string* const host = FindPair(message, kPairServer);
    const std::string* const url = FindPair(message, kPairUrl);
    if (host == nullptr && url == nullptr) {
        return;
    }
    json.Open("http");
    if (host != nullptr) {
        json.Text("hostname", *host);
    }
    if (url != nullptr) {
        json.Text("url", *url);
    }
    json.Close();
}

void AddIpv4UnlessZero(JsonText& json, std::string_view name, uint32_t address) {
    if (address != 0) {
        json.Ipv4(name, address);
    }
}

void AddIpv6UnlessZero(JsonText& json, std::string_view name, const uint8_t (&address)[16]) {
    if (!IsZero(address)) {
        json.Ipv6(name, address);
    }
}

// Of intruder and victim only what differs from source and destination; of those only the family
// that is not at the top.
void AddOtherAddresses(JsonText& json, const EventReport& report) {
    const bool isIpv6 = report.etherType == kEtherTypeIpv6;
    if (isIpv6) {
        AddIpv4UnlessZero(json, "sourceIp", report.sourceIp);
        AddIpv4UnlessZero(json, "destinationIp", report.destinationIp);
    } else {
        AddIpv6UnlessZero(json, "sourceIpv6", report.sourceIpv6);
        AddIpv6UnlessZero(json, "destinationIpv6", report.destinationIpv6);
    }
    if (report.intruderIp != report.sourceIp) {
        json.Ipv4("intruderIp", report.intruderIp);
    }
    if (std::memcmp(report.intruderIpv6, report.sourceIpv6, sizeof report.sourceIpv6) != 0) {
        json.Ipv6("intruderIpv6", report.intruderIpv6);
    }
    if (report.victimIp != report.destinationIp) {
        json.Ipv4("victimIp", report.victimIp);
    }
    if (std::memcmp(report.victimIpv6, report.destinationIpv6, sizeof report.victimIpv6) != 0) {
        json.Ipv6("victimIpv6", report.victimIpv6);
    }
    AddIpv4UnlessZero(json, "lastVictimIp", report.lastVictimIp);
    AddIpv6UnlessZero(json, "lastVictimIpv6", report.lastVictimIpv6);
}

void AddOtherPorts(JsonText& json, const EventReport& report) {
    if (!HasPorts(report.ipProtocol)) {
        json.NumberUnlessZero("sourcePort", report.sourcePort);
        json.NumberUnlessZero("destinationPort", report.destinationPort);
    }
    if (report.intruderPort != report.sourcePort) {
        json.Number("intruderPort", report.intruderPort);
    }
    if (report.victimPort != report.destinationPort) {
        json.Number("victimPort", report.victimPort);
    }
    if (!IsIcmp(report.ipProtocol)) {
        json.NumberUnlessZero("icmpType", report.icmpType);
        json.NumberUnlessZero("icmpCode", report.icmpCode);
    }
}

void AddOtherFields(JsonText& json, const EventReport& report) {
    json.NumberUnlessZero("reportVersion", report.reportVersion);
    json.NumberUnlessZero("sensorId", report.sensorId);
    json.NumberUnlessZero("filterId", report.filterId);
    AddOtherAddresses(json, report);
    AddOtherPorts(json, report);
    if (report.startTime > kLastSecond) {
        json.Number("startTime", report.startTime);
    }
    if (report.endTime != report.startTime) {
        json.Number("endTime", report.endTime);
    }
    json.NumberUnlessZero("count", report.count);
    json.NumberUnlessZero("result", report.result);
    json.NumberUnlessZero("eventType", report.eventType);
    json.NumberUnlessZero("reportType", report.reportType);
    json.NumberUnlessZero("adapterId", report.adapterId);
    json.NumberUnlessZero("eventId", report.eventId);
    json.NumberUnlessZero("throttleEventCount", report.throttleEventCount);
    json.NumberUnlessZero("reserved172", report.reserved172);
    json.NumberUnlessZero("validFields", report.validFields);
    json.NumberUnlessZero("packetFlags", report.packetFlags);
    json.NumberUnlessZero("frameNumber", report.frameNumber);
    json.NumberUnlessZero("etherType", report.etherType);
    json.NumberUnlessZero("priority", report.priority);
    json.HexUnlessZero("reserved197", report.reserved197);
    json.NumberUnlessZero("flow_id", report.flow_id);
    json.HexUnlessZero("reserved208", report.reserved208);
    json.HexUnlessZero("reserved232", report.reserved232);
}

// A pair at the top is there as it came, unless its value is no UTF-8.
bool IsShownAtTop(const std::pair<std::string, std::string>& pair) {
    return (pair.first == kPairUrl || pair.first == kPairServer) && IsUtf8(pair.second);
}

// An object by name; a list where a name is no UTF-8 and cannot be the name of a member.
void AddOtherPairs(JsonText& json, const CrmReport& message, std::string& to) {
    if (std::all_of(message.pairs.begin(), message.pairs.end(), IsShownAtTop)) {
        return;
    }
    const auto& pairs = message.pairs;
    const bool isObject = std::all_of(pairs.begin(), pairs.end(),
                                      [](const auto& pair) { return IsUtf8(pair.first); });
    json.Raw("pairs", isObject ? "{" : "[");
    bool isFirst = true;
    for (const auto& pair : pairs) {
        if (IsShownAtTop(pair)) {
            continue;
        }
        to += isFirst ? "" : ",";
        isFirst = false;
        to += isObject ? "" : R"({"name":)";
        AppendTextAsJson(to, pair.first);
        to += isObject ? ":" : R"(,"value":)";
        AppendTextAsJson(to, pair.second);
        to += isObject ? "" : "}";
    }
    to += isObject ? '}' : ']';
}

void AddPacketFields(JsonText& json, const PacketInfo& info) {
    json.Open("packet");
    json.Number("length", info.uPacketLength);
    json.Number("capturedSize", static_cast<uint64_t>(info.iCapturedSize));
    std::string time = std::to_string(info.uSeconds) + ".";
    AppendPadded(time, info.uMicroseconds % kMicroseconds, 6);
    json.Raw("time", time);
    json.NumberUnlessZero("frameNumber", info.uFrameNumber);
    json.NumberUnlessZero("reserved", info.uReserved);
    json.NumberUnlessZero("flags", info.uFlags);
    json.NumberUnlessZero("adapterId", info.uAdapterID);
    json.Close();
}

void AddTarn(JsonText& json, const CrmOrigin& origin, const CrmReport& message, std::string& to) {
    json.Open("tarn");
    json.Number("channel", static_cast<uint64_t>(origin.channel));
    json.Number("ring", static_cast<uint64_t>(origin.ring));
    json.NumberUnlessZero("blockedStatus", message.blockedStatus);
    AddOtherFields(json, message.report);
    json.NumberUnlessZero("userString", message.userString);
    json.TextUnlessEmpty("nameValues", message.nameValues);
    json.TextUnlessEmpty("userResponse", message.userResponse);
    if (SeverityNumber(message.Severity()) == 0 || !IsUtf8(message.userData)) {
        json.TextUnlessEmpty("userData", message.userData);
    }
    json.TextUnlessEmpty("sensorName", message.sensorName);
    AddOtherPairs(json, message, to);
    if (message.packet) {
        AddPacketFields(json, message.packet->info);
    }
    json.Close();
}

}  // namespace

void AppendEveLine(const CrmOrigin& origin, const CrmReport& message, bool withPacket,
                   std::string& to) {
    const EventReport& report = message.report;
    // A report knows its second. Its packet, when it is of that second, knows more.
    const bool hasFraction = message.packet && message.packet->info.uSeconds == report.startTime;
    to += '{';
    AppendTimestamp(to, report.startTime, hasFraction ? message.packet->info.uMicroseconds : 0);
    JsonText json(to);
    json.Raw("event_type", "\"alert\"");
    AddFlow(json, report);
    AddAlert(json, message);
    AddHttp(json, message);
    if (withPacket && message.packet) {
        json.Raw("packet", '"' + Base64(message.packet->bytes) + '"');
        json.Open("packet_info");
        json.Number("linktype", kLinkTypeEthernet);
        json.Close();
    }
    AddTarn(json, origin, message, to);
    to += "}\n";
}

void AppendMalformedEveLine(const CrmOrigin& origin, const std::string& reason,
                            std::span<const std::byte> bytes, uint64_t seconds, std::string& to) {
    to += '{';
    AppendTimestamp(to, seconds, 0);
    JsonText json(to);
    json.Raw("event_type", "\"malformed\"");
    json.Open("tarn");
    json.Number("channel", static_cast<uint64_t>(origin.channel));
    json.Number("ring", static_cast<uint64_t>(origin.ring));
    json.Text("malformed", reason);
    json.Text("bytes", Base64(bytes));
    json.Close();
    to += "}\n";
}

}  // namespace tarnctl

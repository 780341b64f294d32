#include "tarnctl/rings/crm_report_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "quarantine/address_text.h"
#include "tarnctl/common/protocol_name.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

std::string EndpointText(const EventReport& report, uint32_t ip, const uint8_t (&ipv6)[16],
                         uint16_t port) {
    const bool isIpv6 = report.etherType == kEtherTypeIpv6;
    std::string text = isIpv6 ? Ipv6Text(ipv6) : Ipv4Text(htonl(ip));
    if (report.ipProtocol != IPPROTO_TCP && report.ipProtocol != IPPROTO_UDP) {
        return text;
    }
    if (isIpv6) {
        text = "[" + text + "]";
    }
    return text + ":" + std::to_string(port);
}

bool IsIcmp(const EventReport& report) {
    return report.etherType == kEtherTypeIpv6 ? report.ipProtocol == IPPROTO_ICMPV6
                                              : report.ipProtocol == IPPROTO_ICMP;
}

Json HexAsJson(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        std::array<char, 4> digits = {};
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        text += digits.data();
    }
    return text;
}

Json FieldsAsJson(const CrmReport& message) {
    const EventReport& report = message.report;
    return Json{
        {"reportVersion", report.reportVersion},
        {"icmpType", report.icmpType},
        {"icmpCode", report.icmpCode},
        {"intruderIpv6", Ipv6Text(report.intruderIpv6)},
        {"intruderIp", Ipv4Text(htonl(report.intruderIp))},
        {"sensorId", report.sensorId},
        {"issueId", report.issueId},
        {"filterId", report.filterId},
        {"vlanId", report.vlanId},
        {"victimIp", Ipv4Text(htonl(report.victimIp))},
        {"victimIpv6", Ipv6Text(report.victimIpv6)},
        {"victimPort", report.victimPort},
        {"intruderPort", report.intruderPort},
        {"lastVictimIp", Ipv4Text(htonl(report.lastVictimIp))},
        {"sourceIp", Ipv4Text(htonl(report.sourceIp))},
        {"destinationIp", Ipv4Text(htonl(report.destinationIp))},
        {"destinationPort", report.destinationPort},
        {"sourcePort", report.sourcePort},
        {"sourceIpv6", Ipv6Text(report.sourceIpv6)},
        {"destinationIpv6", Ipv6Text(report.destinationIpv6)},
        {"lastVictimIpv6", Ipv6Text(report.lastVictimIpv6)},
        {"startTime", report.startTime},
        {"endTime", report.endTime},
        {"count", report.count},
        {"result", report.result},
        {"eventType", report.eventType},
        {"reportType", report.reportType},
        {"adapterId", report.adapterId},
        {"eventId", report.eventId},
        {"throttleEventCount", report.throttleEventCount},
        {"reserved172", report.reserved172},
        {"validFields", report.validFields},
        {"packetFlags", report.packetFlags},
        {"frameNumber", report.frameNumber},
        {"etherType", report.etherType},
        {"ipProtocol", report.ipProtocol},
        {"priority", report.priority},
        {"reserved197", HexAsJson(report.reserved197)},
        {"flow_id", report.flow_id},
        {"reserved208", HexAsJson(report.reserved208)},
        {"userString", message.userString},
        {"reserved232", HexAsJson(report.reserved232)},
    };
}

Json PacketAsJson(const std::optional<CrmPacket>& packet) {
    if (!packet) {
        return nullptr;
    }
    return Json{
        {"length", packet->info.uPacketLength},
        {"capturedSize", packet->info.iCapturedSize},
        {"time", TimeAsJson(packet->info.uSeconds, packet->info.uMicroseconds)},
        {"frameNumber", packet->info.uFrameNumber},
        {"reserved", packet->info.uReserved},
        {"flags", packet->info.uFlags},
        {"adapterId", packet->info.uAdapterID},
        {"bytes", Base64(packet->bytes)},
    };
}

// Pairs whose names are Unicode are an object that one can ask by name; a name that is not has no
// place among JSON's names, and then all of them are listed.
Json PairsAsJson(const CrmReport& message) {
    Json object = Json::object();
    Json list = Json::array();
    bool allNamed = true;
    for (const auto& [name, value] : message.pairs) {
        const Json key = TextAsJson(name);
        const Json text = TextAsJson(value);
        list.push_back(Json{{"name", key}, {"value", text}});
        allNamed = allNamed && key.is_string();
        if (key.is_string()) {
            object[name] = text;
        }
    }
    return allNamed ? object : list;
}

Color ColorOf(std::string_view severity) {
    return severity == "high" ? Color::kRed : severity == "medium" ? Color::kYellow : Color::kGreen;
}

}  // namespace

std::string ReportAsLine(const CrmReport& message, const Display& display) {
    const EventReport& report = message.report;
    std::string protocol = ProtocolName(report.ipProtocol);
    if (IsIcmp(report)) {
        protocol += " type " + std::to_string(report.icmpType);
        protocol += " code " + std::to_string(report.icmpCode);
    }
    const std::string endpoints =
        EndpointText(report, report.intruderIp, report.intruderIpv6, report.intruderPort) + " -> " +
        EndpointText(report, report.victimIp, report.victimIpv6, report.victimPort);
    const std::string vlan =
        report.vlanId == kReportNoVlan ? "" : "VLAN " + std::to_string(report.vlanId);
    const std::string packet =
        message.packet ? "packet " + std::to_string(message.packet->bytes.size()) + " bytes"
                       : std::string("no packet");
    std::vector<Cell> cells = {
        {TimeText(report.startTime), Color::kNone, 19},
        {ForTerminal(message.userData), ColorOf(message.Severity()), 32},
        {endpoints, Color::kNone, 41},
        {protocol, Color::kNone, 4},
        {vlan, Color::kNone, 9},
        {"SID " + std::to_string(report.issueId), Color::kNone, 11},
        {message.IsBlocked() ? "blocked" : "not blocked",
         message.IsBlocked() ? Color::kRed : Color::kNone, 11},
        {packet, Color::kNone, 17},
    };
    // On a terminal, where the end of a line may be cut off, the outcome comes early.
    constexpr ptrdiff_t kOutcome = 6;
    if (display.isTerminal) {
        std::rotate(cells.begin() + 1, cells.begin() + kOutcome, cells.begin() + kOutcome + 1);
    }
    for (const auto& [name, value] : message.pairs) {
        cells.push_back({ForTerminal(name) + "=" + ForTerminal(value)});
    }
    return LineOf(cells, display);
}

std::string ReportAsJson(const CrmOrigin& origin, const CrmReport& message) {
    return Json{
        {"channel", origin.channel},
        {"ring", origin.ring},
        {"time", TimeAsJson(message.report.startTime)},
        {"name", TextAsJson(message.EventName())},
        {"severity", TextAsJson(message.Severity())},
        {"blocked", message.IsBlocked()},
        {"blockedStatus", message.blockedStatus},
        {"report", FieldsAsJson(message)},
        {"nameValues", TextAsJson(message.nameValues)},
        {"userResponse", TextAsJson(message.userResponse)},
        {"userData", TextAsJson(message.userData)},
        {"sensorName", TextAsJson(message.sensorName)},
        {"pairs", PairsAsJson(message)},
        {"packet", PacketAsJson(message.packet)},
    }
        .dump();
}

std::string MalformedReportAsJson(const CrmOrigin& origin, const std::string& reason,
                                  std::span<const std::byte> bytes) {
    return Json{
        {"channel", origin.channel},
        {"ring", origin.ring},
        {"malformed", reason},
        {"bytes", Base64(bytes)},
    }
        .dump();
}

}  // namespace tarnctl

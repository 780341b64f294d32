#include "tarnctl/rings/crm_report_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "quarantine/address_text.h"
#include "tarnctl/common/json_text.h"
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

void AddHex(JsonText& json, std::string_view name, std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text = "\"";
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    json.Raw(name, text + '"');
}

void AddFields(JsonText& json, const CrmReport& message) {
    const EventReport& report = message.report;
    json.Open("report");
    json.Number("reportVersion", report.reportVersion);
    json.Number("icmpType", report.icmpType);
    json.Number("icmpCode", report.icmpCode);
    json.Ipv6("intruderIpv6", report.intruderIpv6);
    json.Ipv4("intruderIp", report.intruderIp);
    json.Number("sensorId", report.sensorId);
    json.Number("issueId", report.issueId);
    json.Number("filterId", report.filterId);
    json.Number("vlanId", report.vlanId);
    json.Ipv4("victimIp", report.victimIp);
    json.Ipv6("victimIpv6", report.victimIpv6);
    json.Number("victimPort", report.victimPort);
    json.Number("intruderPort", report.intruderPort);
    json.Ipv4("lastVictimIp", report.lastVictimIp);
    json.Ipv4("sourceIp", report.sourceIp);
    json.Ipv4("destinationIp", report.destinationIp);
    json.Number("destinationPort", report.destinationPort);
    json.Number("sourcePort", report.sourcePort);
    json.Ipv6("sourceIpv6", report.sourceIpv6);
    json.Ipv6("destinationIpv6", report.destinationIpv6);
    json.Ipv6("lastVictimIpv6", report.lastVictimIpv6);
    json.Number("startTime", report.startTime);
    json.Number("endTime", report.endTime);
    json.Number("count", report.count);
    json.Number("result", report.result);
    json.Number("eventType", report.eventType);
    json.Number("reportType", report.reportType);
    json.Number("adapterId", report.adapterId);
    json.Number("eventId", report.eventId);
    json.Number("throttleEventCount", report.throttleEventCount);
    json.Number("reserved172", report.reserved172);
    json.Number("validFields", report.validFields);
    json.Number("packetFlags", report.packetFlags);
    json.Number("frameNumber", report.frameNumber);
    json.Number("etherType", report.etherType);
    json.Number("ipProtocol", report.ipProtocol);
    json.Number("priority", report.priority);
    AddHex(json, "reserved197", report.reserved197);
    json.Number("flow_id", report.flow_id);
    AddHex(json, "reserved208", report.reserved208);
    json.Number("userString", message.userString);
    AddHex(json, "reserved232", report.reserved232);
    json.Close();
}

void AddPacket(JsonText& json, const std::optional<CrmPacket>& packet) {
    if (!packet) {
        json.Raw("packet", "null");
        return;
    }
    json.Open("packet");
    json.Number("length", packet->info.uPacketLength);
    json.Raw("capturedSize", std::to_string(packet->info.iCapturedSize));
    json.Raw("time", TimeAsJson(packet->info.uSeconds, packet->info.uMicroseconds).dump());
    json.Number("frameNumber", packet->info.uFrameNumber);
    json.Number("reserved", packet->info.uReserved);
    json.Number("flags", packet->info.uFlags);
    json.Number("adapterId", packet->info.uAdapterID);
    json.Raw("bytes", '"' + Base64(packet->bytes) + '"');
    json.Close();
}

// Pairs whose names are Unicode are an object that one can ask by name; a name that is not has no
// place among JSON's names, and then all of them are listed.
void AddPairs(JsonText& json, const CrmReport& message, std::string& to) {
    const auto& pairs = message.pairs;
    const bool isObject = std::all_of(pairs.begin(), pairs.end(),
                                      [](const auto& pair) { return IsUtf8(pair.first); });
    json.Raw("pairs", isObject ? "{" : "[");
    bool isFirst = true;
    for (const auto& [name, value] : pairs) {
        to += isFirst ? "" : ",";
        isFirst = false;
        to += isObject ? "" : R"({"name":)";
        AppendTextAsJson(to, name);
        to += isObject ? ":" : R"(,"value":)";
        AppendTextAsJson(to, value);
        to += isObject ? "" : "}";
    }
    to += isObject ? '}' : ']';
}

void AddText(JsonText& json, std::string_view name, std::string_view text, std::string& to) {
    json.Raw(name, "");
    AppendTextAsJson(to, text);
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
    constexpr size_t kUsual = 4096;  // bytes, for a packet of a usual size
    std::string text;
    text.reserve(kUsual);
    JsonText json(text);
    json.Open();
    json.Raw("channel", std::to_string(origin.channel));
    json.Raw("ring", std::to_string(origin.ring));
    json.Raw("time", TimeAsJson(message.report.startTime).dump());
    AddText(json, "name", message.EventName(), text);
    AddText(json, "severity", message.Severity(), text);
    json.Raw("blocked", message.IsBlocked() ? "true" : "false");
    json.Number("blockedStatus", message.blockedStatus);
    AddFields(json, message);
    AddText(json, "nameValues", message.nameValues, text);
    AddText(json, "userResponse", message.userResponse, text);
    AddText(json, "userData", message.userData, text);
    AddText(json, "sensorName", message.sensorName, text);
    AddPairs(json, message, text);
    AddPacket(json, message.packet);
    json.Close();
    return text;
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

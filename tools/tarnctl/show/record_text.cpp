#include "tarnctl/show/record_text.h"

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/packet_summary.h"
#include "tarnctl/common/protocol_name.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/show/json_line.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;
using Bytes = std::span<const std::byte>;

constexpr size_t kBytesPerLine = 16;
constexpr size_t kTimeColumns = 26;
constexpr size_t kNameColumns = 14;

template <typename... Functions>
struct Visitor : Functions... {
    using Functions::operator()...;
};
template <typename... Functions>
Visitor(Functions...) -> Visitor<Functions...>;

bool IsIcmp(const EventContent& event) {
    return event.source.family == AF_INET ? event.protocol == IPPROTO_ICMP
                                          : event.protocol == IPPROTO_ICMPV6;
}

// A kind that does not say its protocol has its numbers shown as ports, which they mostly are.
bool HasPorts(const EventContent& event) {
    return !event.protocol || event.protocol == IPPROTO_TCP || event.protocol == IPPROTO_UDP;
}

std::string EventLine(const EventContent& event, const Display& display) {
    const auto port = [&event](uint16_t number) {
        return HasPorts(event) ? std::optional(number) : std::nullopt;
    };
    std::string protocol = event.protocol ? ProtocolName(*event.protocol) : "";
    if (IsIcmp(event)) {
        protocol += " type " + std::to_string(event.sourcePort) + " code " +
                    std::to_string(event.destinationPort);
    }
    const Cell cells[] = {
        {TimeText(event.second, event.microsecond), Color::kNone, kTimeColumns},
        {"event " + std::to_string(event.eventId), Color::kBold, kNameColumns},
        {"SID " + std::to_string(event.generatorId) + ":" + std::to_string(event.signatureId) +
             ":" + std::to_string(event.revision),
         Color::kNone, 15},
        {EndpointName(AddressText(event.source), port(event.sourcePort)) + " -> " +
             EndpointName(AddressText(event.destination), port(event.destinationPort)),
         Color::kNone, 41},
        {protocol, Color::kNone, 4},
        {"priority " + std::to_string(event.priority)},
        {event.blocked.value_or(0) != 0 ? "blocked " + std::to_string(*event.blocked) : "",
         Color::kRed},
        {event.vlanId.value_or(0) != 0 ? "VLAN " + std::to_string(*event.vlanId) : ""},
        {event.application.empty() ? "" : "application " + ForTerminal(event.application)},
    };
    return LineOf(cells, display);
}

std::string PacketLine(const char* kind, const PacketContent& packet, const Display& display) {
    std::string size = Counted(packet.length, "byte");
    if (packet.bytes.size() < packet.length) {
        size = std::to_string(packet.bytes.size()) + " of " + size;
    }
    const Cell cells[] = {
        {TimeText(packet.second, packet.microsecond), Color::kNone, kTimeColumns},
        {std::string(kind) + " " + std::to_string(packet.eventId), Color::kNone, kNameColumns},
        {SummaryOf(packet.bytes, packet.linkType).line},
        {size},
    };
    return LineOf(cells, display);
}

std::string ExtraLine(const ExtraContent& extra, const Display& display) {
    const std::string kind = KindOfExtraData(extra.type);
    const std::string_view text(reinterpret_cast<const char*>(extra.bytes.data()),
                                extra.bytes.size());
    const Cell cells[] = {
        {TimeText(extra.eventSecond), Color::kNone, kTimeColumns},
        {"extra data " + std::to_string(extra.eventId), Color::kNone, kNameColumns},
        {kind.empty() ? "kind " + std::to_string(extra.type) : kind},
        {ForTerminal(text)},
    };
    return LineOf(cells, display);
}

std::string StatisticsLine(const StatisticsContent& statistics, const Display& display) {
    std::vector<Cell> cells = {
        {TimeText(statistics.second), Color::kNone, kTimeColumns},
        {"application statistics", Color::kNone, kNameColumns},
    };
    for (const ApplicationTraffic& one : statistics.applications) {
        cells.push_back({ForTerminal(one.name) + " " + std::to_string(one.fromInitiator) + "/" +
                         std::to_string(one.fromResponder)});
    }
    return LineOf(cells, display);
}

JsonLine Head(const RecordPlace& place) {
    JsonLine line;
    line.Add("offset", place.offset);
    line.Add("type", place.type);
    line.AddText("kind", KindOfRecord(place.type));
    line.Add("length", place.length);
    return line;
}

void Add(JsonLine& line, const EventContent& event) {
    const auto optional = [](bool isGiven, uint16_t number) {
        return isGiven ? std::optional(number) : std::nullopt;
    };
    const bool isIcmp = IsIcmp(event);
    const bool hasPorts = HasPorts(event);
    line.Add("sensorId", event.sensorId);
    line.Add("eventId", event.eventId);
    line.AddTime("time", event.second, event.microsecond);
    line.Add("generatorId", event.generatorId);
    line.Add("signatureId", event.signatureId);
    line.Add("signatureRevision", event.revision);
    line.Add("classificationId", event.classification);
    line.Add("priorityId", event.priority);
    line.AddText("source", AddressText(event.source));
    line.AddText("destination", AddressText(event.destination));
    line.Add("protocol", event.protocol);
    line.Add("sourcePort", optional(hasPorts, event.sourcePort));
    line.Add("destinationPort", optional(hasPorts, event.destinationPort));
    line.Add("icmpType", optional(isIcmp, event.sourcePort));
    line.Add("icmpCode", optional(isIcmp, event.destinationPort));
    line.Add("impactFlag", event.impactFlag);
    line.Add("impact", event.impact);
    line.Add("blocked", event.blocked);
    line.Add("mplsLabel", event.mplsLabel);
    line.Add("vlanId", event.vlanId);
    std::string policies;
    for (const uint32_t policy : event.policies) {
        policies += (policies.empty() ? "[" : ",") + std::to_string(policy);
    }
    line.AddRaw("policies", policies.empty() ? "[]" : policies + "]");
    line.AddTextOrNull("application", event.application);
}

void Add(JsonLine& line, const PacketContent& packet) {
    const PacketSummary summary = SummaryOf(packet.bytes, packet.linkType);
    line.Add("sensorId", packet.sensorId);
    line.Add("eventId", packet.eventId);
    line.AddTime("eventTime", packet.eventSecond);
    line.AddTime("time", packet.second, packet.microsecond);
    line.Add("linkType", packet.linkType);
    line.Add("packetLength", packet.length);
    line.AddTextOrNull("source", summary.source);
    line.AddTextOrNull("destination", summary.destination);
    line.Add("protocol", summary.protocol);
    line.Add("sourcePort", summary.sourcePort);
    line.Add("destinationPort", summary.destinationPort);
    line.AddTextOrNull("flags", summary.flags);
    line.AddBytes("bytes", packet.bytes);
}

void Add(JsonLine& line, const ExtraContent& extra) {
    line.Add("sensorId", extra.sensorId);
    line.Add("eventId", extra.eventId);
    line.AddTime("eventTime", extra.eventSecond);
    line.Add("extraType", extra.type);
    line.AddTextOrNull("extraKind", KindOfExtraData(extra.type));
    line.Add("dataType", extra.dataType);
    line.AddText("data", {reinterpret_cast<const char*>(extra.bytes.data()), extra.bytes.size()});
}

void Add(JsonLine& line, const StatisticsContent& statistics) {
    line.AddTime("time", statistics.second);
    Json applications = Json::array();
    for (const ApplicationTraffic& one : statistics.applications) {
        applications.push_back(Json{{"name", TextAsJson(one.name)},
                                    {"fromInitiator", one.fromInitiator},
                                    {"fromResponder", one.fromResponder}});
    }
    line.AddRaw("applications", applications.dump());
}

void Add(JsonLine& /*line*/, const OtherContent& /*other*/) {}

}  // namespace

std::string RecordAsLine(const RecordPlace& place, const RecordContent& content,
                         const Display& display) {
    return std::visit(Visitor{
                          [&](const EventContent& event) { return EventLine(event, display); },
                          [&](const PacketContent& packet) {
                              return PacketLine(KindOfRecord(place.type), packet, display);
                          },
                          [&](const ExtraContent& extra) { return ExtraLine(extra, display); },
                          [&](const StatisticsContent& statistics) {
                              return StatisticsLine(statistics, display);
                          },
                          [&](const OtherContent&) {
                              const Cell cells[] = {
                                  {std::string(KindOfRecord(place.type)) + " record of type " +
                                   std::to_string(place.type)},
                                  {Counted(place.length, "byte")},
                              };
                              return LineOf(cells, display);
                          },
                      },
                      content);
}

Bytes CarriedBytes(const RecordContent& content) {
    if (const auto* const packet = std::get_if<PacketContent>(&content)) {
        return packet->bytes;
    }
    if (const auto* const extra = std::get_if<ExtraContent>(&content)) {
        return extra->bytes;
    }
    return {};
}

std::string HexLines(Bytes bytes) {
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += kBytesPerLine) {
        const Bytes part = bytes.subspan(at, std::min(kBytesPerLine, bytes.size() - at));
        std::array<char, 16> offset = {};
        std::snprintf(offset.data(), offset.size(), "  %06zx ", at);
        std::string digits = HexDigits(part);
        digits.resize(kBytesPerLine * 3, ' ');
        text += offset.data() + digits + "  ";
        for (const std::byte byte : part) {
            const auto letter = std::to_integer<unsigned char>(byte);
            text += letter >= 0x20 && letter < 0x7F ? static_cast<char>(letter) : '.';
        }
        text += '\n';
    }
    return text;
}

std::string RecordAsJson(const RecordPlace& place, const RecordContent& content) {
    JsonLine line = Head(place);
    std::visit([&line](const auto& one) { Add(line, one); }, content);
    return line.Finish();
}

std::string MalformedRecordAsJson(const RecordPlace& place, const std::string& reason,
                                  Bytes payload) {
    JsonLine line = Head(place);
    line.AddText("malformed", reason);
    line.AddBytes("bytes", payload);
    return line.Finish();
}

}  // namespace tarnctl

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

std::string TimeWithFraction(uint32_t second, uint32_t microsecond) {
    std::array<char, 16> fraction = {};
    std::snprintf(fraction.data(), fraction.size(), ".%06u", microsecond);
    return TimeText(second) + fraction.data();
}

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
    const std::vector<Cell> cells = {
        {TimeWithFraction(event.second, event.microsecond), Color::kNone, kTimeColumns},
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
        {TimeWithFraction(packet.second, packet.microsecond), Color::kNone, kTimeColumns},
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

template <typename T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json Head(const RecordPlace& place) {
    return Json{{"offset", place.offset},
                {"type", place.type},
                {"kind", KindOfRecord(place.type)},
                {"length", place.length}};
}

void Add(Json& object, const EventContent& event) {
    const auto optional = [](bool isGiven, uint16_t number) {
        return isGiven ? Json(number) : Json(nullptr);
    };
    const bool isIcmp = IsIcmp(event);
    const bool hasPorts = HasPorts(event);
    object["sensorId"] = event.sensorId;
    object["eventId"] = event.eventId;
    object["time"] = TimeAsJson(event.second, event.microsecond);
    object["generatorId"] = event.generatorId;
    object["signatureId"] = event.signatureId;
    object["signatureRevision"] = event.revision;
    object["classificationId"] = event.classification;
    object["priorityId"] = event.priority;
    object["source"] = AddressText(event.source);
    object["destination"] = AddressText(event.destination);
    object["protocol"] = OrNull(event.protocol);
    object["sourcePort"] = optional(hasPorts, event.sourcePort);
    object["destinationPort"] = optional(hasPorts, event.destinationPort);
    object["icmpType"] = optional(isIcmp, event.sourcePort);
    object["icmpCode"] = optional(isIcmp, event.destinationPort);
    object["impactFlag"] = OrNull(event.impactFlag);
    object["impact"] = OrNull(event.impact);
    object["blocked"] = OrNull(event.blocked);
    object["mplsLabel"] = OrNull(event.mplsLabel);
    object["vlanId"] = OrNull(event.vlanId);
    object["policies"] = event.policies;
    object["application"] =
        event.application.empty() ? Json(nullptr) : TextAsJson(event.application);
}

void Add(Json& object, const PacketContent& packet) {
    const PacketSummary summary = SummaryOf(packet.bytes, packet.linkType);
    const auto text = [](const std::string& value) {
        return value.empty() ? Json(nullptr) : Json(value);
    };
    object["sensorId"] = packet.sensorId;
    object["eventId"] = packet.eventId;
    object["eventTime"] = TimeAsJson(packet.eventSecond);
    object["time"] = TimeAsJson(packet.second, packet.microsecond);
    object["linkType"] = packet.linkType;
    object["packetLength"] = packet.length;
    object["source"] = text(summary.source);
    object["destination"] = text(summary.destination);
    object["protocol"] = OrNull(summary.protocol);
    object["sourcePort"] = OrNull(summary.sourcePort);
    object["destinationPort"] = OrNull(summary.destinationPort);
    object["flags"] = text(summary.flags);
    object["bytes"] = Base64(packet.bytes);
}

void Add(Json& object, const ExtraContent& extra) {
    const std::string kind = KindOfExtraData(extra.type);
    object["sensorId"] = extra.sensorId;
    object["eventId"] = extra.eventId;
    object["eventTime"] = TimeAsJson(extra.eventSecond);
    object["extraType"] = extra.type;
    object["extraKind"] = kind.empty() ? Json(nullptr) : Json(kind);
    object["dataType"] = extra.dataType;
    object["data"] = TextAsJson(
        std::string_view(reinterpret_cast<const char*>(extra.bytes.data()), extra.bytes.size()));
}

void Add(Json& object, const StatisticsContent& statistics) {
    object["time"] = TimeAsJson(statistics.second);
    object["applications"] = Json::array();
    for (const ApplicationTraffic& one : statistics.applications) {
        object["applications"].push_back(Json{{"name", TextAsJson(one.name)},
                                              {"fromInitiator", one.fromInitiator},
                                              {"fromResponder", one.fromResponder}});
    }
}

void Add(Json& /*object*/, const OtherContent& /*other*/) {}

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
    Json object = Head(place);
    std::visit([&object](const auto& one) { Add(object, one); }, content);
    return object.dump();
}

std::string MalformedRecordAsJson(const RecordPlace& place, const std::string& reason,
                                  Bytes payload) {
    Json object = Head(place);
    object["malformed"] = reason;
    object["bytes"] = Base64(payload);
    return object.dump();
}

}  // namespace tarnctl

#include "tarnctl/ring/ring_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "packet_log/packet_log_format.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/rings/crm_report.h"
#include "tarnctl/rings/crm_report_text.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kFirstBytes = 16;
constexpr size_t kOffsetColumns = 8;
constexpr size_t kLengthColumns = 12;

std::string FirstBytes(std::span<const std::byte> body) {
    const bool isWhole = body.size() <= kFirstBytes;
    return HexDigits(body.first(std::min(body.size(), kFirstBytes))).substr(1) +
           (isWhole ? "" : " ...");
}

std::string PacketText(std::span<const std::byte> body) {
    PacketLogRecord record;
    std::memcpy(&record, body.data(), sizeof record);
    return TimeText(record.uSeconds) + "  packet " + std::to_string(record.iCapturedSize) + " of " +
           Counted(record.uPacketLength, "byte");
}

// What is in the message, for a person.
std::string ContentText(const RingPlace& place, std::span<const std::byte> body) {
    CrmReport report;
    if (place.kind == RingKind::kReports && DecodeCrmReport(body, report).empty()) {
        return ReportAsLine(report);
    }
    if (place.kind == RingKind::kPackets && body.size() >= sizeof(PacketLogRecord)) {
        return PacketText(body);
    }
    return FirstBytes(body);
}

const char* KindName(RingKind kind) {
    switch (kind) {
        case RingKind::kReports:
            return "reports";
        case RingKind::kPackets:
            return "packets";
        default:
            return "unknown";
    }
}

Json FaultAsJson(const RingState& state) {
    if (state.fault == RingFault::kNone) {
        return nullptr;
    }
    return Json{{"kind", FaultName(state.fault)},
                {"offset", state.at},
                {"isStuck", state.IsStuck()},
                {"reason", FaultText(state)},
                {"meaning", FaultMeaning(state)}};
}

}  // namespace

std::string RingTitle(const RingPlace& place) {
    return place.name == place.path ? ForTerminal(place.path)
                                    : place.name + "  " + ForTerminal(place.path);
}

std::string HeadText(const RingState& state) {
    const RingLook& look = state.look;
    std::array<char, 32> percent = {};
    std::snprintf(percent.data(), percent.size(), " (%.1f %%)",
                  look.size == 0 ? 0.0 : 100.0 * look.used / look.size);
    return Counted(state.messages, "message") + " in " + Counted(look.used, "byte") +
           percent.data() + ", read index " + std::to_string(look.readWord) + ", write index " +
           std::to_string(look.writeWord) + ", ring of " + Counted(look.size, "byte");
}

std::string MessageAsLine(const RingPlace& place, uint32_t offset, std::span<const std::byte> body,
                          const Display& display) {
    const Cell cells[] = {{std::to_string(offset), Color::kNone, kOffsetColumns},
                          {Counted(body.size(), "byte"), Color::kNone, kLengthColumns},
                          {ContentText(place, body)}};
    return "  " + LineOf(cells, display);
}

Json MessageAsJson(uint32_t offset, std::span<const std::byte> body) {
    return Json{{"offset", offset}, {"length", body.size()}, {"bytes", Base64(body)}};
}

Json RingAsJson(const RingPlace& place, const RingState& state) {
    const RingLook& look = state.look;
    return Json{{"name", TextAsJson(place.name)},
                {"path", TextAsJson(place.path)},
                {"kind", KindName(place.kind)},
                {"size", look.size},
                {"readIndex", look.readWord},
                {"writeIndex", look.writeWord},
                {"used", look.used},
                {"messages", state.messages},
                {"fault", FaultAsJson(state)}};
}

}  // namespace tarnctl

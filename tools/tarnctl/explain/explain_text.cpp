#include "tarnctl/explain/explain_text.h"

#include <netinet/in.h>

#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "crm/crm_event_source.h"
#include "tarnctl/common/counted.h"
#include "tarnctl/common/display.h"
#include "tarnctl/common/protocol_name.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kLabelWidth = 12;

bool HasPorts(int protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
}

bool HasIcmpFields(const CrmEventSource& source) {
    return source.GetProtocol() == IcmpProtocol(source.GetIpVersion() == 6);
}

std::string AddressOf(const CrmEventSource& source, bool isIntruder) {
    std::string text;
    const int result =
        isIntruder ? source.GetIntruderAddressText(text) : source.GetVictimAddressText(text);
    return result == 0 ? text : "?";
}

std::string EndpointText(const CrmEventSource& source, bool isIntruder) {
    std::string address = AddressOf(source, isIntruder);
    if (!HasPorts(source.GetProtocol())) {
        return address;
    }
    const unsigned port = isIntruder ? source.GetIntruderPort() : source.GetVictimPort();
    return (source.GetIpVersion() == 6 ? "[" + address + "]" : address) + ":" +
           std::to_string(port);
}

std::string AlertText(const ExplainedEvent& event) {
    const CrmEventSource& source = event.source;
    std::string text = ProtocolName(source.GetProtocol());
    if (HasIcmpFields(source)) {
        text += " type " + std::to_string(source.GetIcmpType()) + " code " +
                std::to_string(source.GetIcmpCode());
    }
    text += " " + EndpointText(source, true) + " -> " + EndpointText(source, false) + ", " +
            TimeText(source.GetStartTime());
    if (std::string_view(event.origin) == "example") {
        text += " (an example; describe another with --proto, --src, --dst or --alert)";
    }
    if (event.further > 0) {
        text += "; " + Counted(event.further, "more alert") + " of this signature in the file";
    }
    return text;
}

// Lines with a label in front of the first one.
class Lines {
  public:
    explicit Lines(bool isColored) : m_isColored(isColored) {}

    void Add(const std::string& label, const std::string& text, Color color = Color::kNone) {
        m_text << std::left << std::setw(kLabelWidth) << label
               << Painted(ForTerminal(text), color, m_isColored) << '\n';
    }
    [[nodiscard]] std::string Text() const { return m_text.str(); }

  private:
    const bool m_isColored;
    std::ostringstream m_text;
};

void AddEntryLines(const ExplainedEvent& event, Lines& lines) {
    std::string label = "entry";
    for (const EntryBlock& block : event.blocks) {
        for (const EntryLine& line : block.lines) {
            lines.Add(std::exchange(label, ""),
                      line.file + ":" + std::to_string(line.line) + ":" +
                          std::to_string(line.column) + ": " + line.name + " = " + line.value +
                          (!line.isApplied    ? "  (dropped: the daemon cannot use it)"
                           : !block.isInForce ? "  (without effect: the entry before it counts)"
                                              : ""));
        }
    }
    if (event.blocks.empty()) {
        lines.Add(label, "none");
    }
}

void AddReport(const Explanation& explanation, Lines& lines) {
    lines.Add("report", "name \"" + explanation.name + "\"");
    lines.Add("", "severity " + explanation.severity +
                      (explanation.isSeveritySet ? "" : ", since the entry has none"));
    lines.Add("", "user response \"" + explanation.userResponse + "\"");
    for (const auto& [name, value] : explanation.pairs) {
        lines.Add("", std::string(name).append(" \"").append(value).append("\""));
    }
    lines.Add("", explanation.withPacket
                      ? "with the packet"
                      : "without the packet, because " + explanation.packetReason);
}

void AddBlocking(const Explanation& explanation, Lines& lines) {
    if (!explanation.blockReason.empty()) {
        lines.Add("blocking", "not blocked, because " + explanation.blockReason, Color::kGreen);
    }
    size_t number = 0;
    for (const BlockExplanation& block : explanation.blockRules) {
        const std::string label = "rule " + std::to_string(++number);
        if (block.isSent) {
            lines.Add(label, "blocked: " + block.text, Color::kRed);
            lines.Add("", "until " + TimeText(static_cast<uint64_t>(block.expiration)) +
                              ", if the security manager adds it");
        } else {
            lines.Add(label, "not blocked, because " + block.reason, Color::kGreen);
        }
        for (const std::string& note : block.notes) {
            lines.Add("", note);
        }
    }
}

std::string CaptureText(const Explanation& explanation) {
    if (!explanation.isCaptured) {
        return "not captured, because " + explanation.captureReason;
    }
    return explanation.capturedBytes > 0
               ? "captured: a request with " + Counted(explanation.capturedBytes, "byte") +
                     " of packet goes to the packet logging daemon"
               : "captured: a request goes to the packet logging daemon; this alert has no packet "
                 "to go with it";
}

Json EntryAsJson(const std::vector<EntryBlock>& blocks) {
    Json lines = Json::array();
    for (const EntryBlock& block : blocks) {
        for (const EntryLine& line : block.lines) {
            lines.push_back(Json{{"file", TextAsJson(line.file)},
                                 {"line", line.line},
                                 {"column", line.column},
                                 {"name", TextAsJson(line.name)},
                                 {"value", TextAsJson(line.value)},
                                 {"inForce", line.isApplied && block.isInForce}});
        }
    }
    return lines;
}

Json AlertAsJson(const ExplainedEvent& event) {
    const CrmEventSource& source = event.source;
    const bool hasPorts = HasPorts(source.GetProtocol());
    const bool hasIcmpFields = HasIcmpFields(source);
    return Json{
        {"origin", event.origin},
        {"ipVersion", source.GetIpVersion()},
        {"protocol", source.GetProtocol()},
        {"source", AddressOf(source, true)},
        {"destination", AddressOf(source, false)},
        {"sourcePort", hasPorts ? Json(source.GetIntruderPort()) : Json()},
        {"destinationPort", hasPorts ? Json(source.GetVictimPort()) : Json()},
        {"icmpType", hasIcmpFields ? Json(source.GetIcmpType()) : Json()},
        {"icmpCode", hasIcmpFields ? Json(source.GetIcmpCode()) : Json()},
        {"time", source.GetStartTime()},
        {"packetBytes", source.GetPacket().uPacketLength},
        {"further", event.further},
    };
}

Json TextOrNull(const std::string& text) {
    return text.empty() ? Json() : TextAsJson(text);
}

Json ReportAsJson(const Explanation& explanation) {
    Json pairs = Json::array();
    for (const auto& [name, value] : explanation.pairs) {
        pairs.push_back(Json{{"name", TextAsJson(name)}, {"value", TextAsJson(value)}});
    }
    return Json{
        {"name", TextAsJson(explanation.name)},
        {"severity", explanation.severity},
        {"severitySet", explanation.isSeveritySet},
        {"userResponse", TextAsJson(explanation.userResponse)},
        {"pairs", std::move(pairs)},
        {"withPacket", explanation.withPacket},
        {"packetReason", TextOrNull(explanation.packetReason)},
    };
}

Json BlockingAsJson(const Explanation& explanation) {
    Json rules = Json::array();
    for (const BlockExplanation& block : explanation.blockRules) {
        rules.push_back(Json{
            {"flags", block.flags},
            {"duration", block.duration},
            {"rateLimit", block.rateLimit},
            {"sent", block.isSent},
            {"reason", TextOrNull(block.reason)},
            {"text", TextOrNull(block.text)},
            {"expirationTime", block.isSent ? Json(block.expiration) : Json()},
            {"notes", block.notes},
        });
    }
    return Json{
        {"asked", explanation.AsksToBlock()},
        {"reason", TextOrNull(explanation.blockReason)},
        {"rules", std::move(rules)},
    };
}

}  // namespace

ReportComparison Compare(const Explanation& explanation, bool wasBlocked,
                         const std::string& reportedName) {
    ReportComparison comparison;
    comparison.wasBlocked = wasBlocked;
    const bool asks = explanation.AsksToBlock();
    comparison.agrees = asks == wasBlocked;
    if (!explanation.hasEntry) {
        comparison.reason =
            "The signature has no entry now, so the entry has been taken out since the report.";
        comparison.agrees = false;
    } else if (wasBlocked) {
        comparison.reason =
            asks ? "The alert was blocked: the security manager added at least one of "
                   "the rules below."
                 : "The alert was blocked, but with this entry nothing would be: the "
                   "entry has changed since.";
    } else if (asks) {
        comparison.reason =
            "The alert was not blocked, although the entry asks for it: the security manager refused "
            "every rule, was away or gave no answer in time, or the entry has changed since. The "
            "daemon's log says which, with \"Fail to add quarantine rule\".";
    } else {
        comparison.reason = "The alert was not blocked, for the reasons below.";
    }
    if (explanation.hasEntry && explanation.name != reportedName) {
        comparison.reason += " The report has another event name, so the entry has changed since.";
    }
    return comparison;
}

std::string ExplanationAsText(const ExplainedEvent& event, bool isColored) {
    const Explanation& explanation = event.explanation;
    Lines lines(isColored);
    lines.Add("signature", std::to_string(explanation.signature));
    lines.Add("alert", AlertText(event));
    if (event.comparison != nullptr) {
        lines.Add("result", event.comparison->reason,
                  event.comparison->wasBlocked ? Color::kRed : Color::kGreen);
    }
    AddEntryLines(event, lines);
    if (!explanation.hasEntry) {
        lines.Add("outcome",
                  "the daemon ends with SIGSEGV at this alert: a signature without an entry is a "
                  "broken configuration. No report is sent.",
                  Color::kRed);
        return lines.Text();
    }
    AddReport(explanation, lines);
    AddBlocking(explanation, lines);
    lines.Add("packets", CaptureText(explanation));
    return lines.Text();
}

std::string ExplanationAsJson(const ExplainedEvent& event) {
    const Explanation& explanation = event.explanation;
    const bool hasEntry = explanation.hasEntry;
    Json comparison;
    if (event.comparison != nullptr) {
        comparison = Json{
            {"wasBlocked", event.comparison->wasBlocked},
            {"agrees", event.comparison->agrees},
            {"reason", event.comparison->reason},
        };
    }
    return Json{
        {"signature", explanation.signature},
        {"outcome", hasEntry ? "report" : "end"},
        {"alert", AlertAsJson(event)},
        {"entry", EntryAsJson(event.blocks)},
        {"report", hasEntry ? ReportAsJson(explanation) : Json()},
        {"blocking", hasEntry ? BlockingAsJson(explanation) : Json()},
        {"capture", hasEntry ? Json{{"requested", explanation.isCaptured},
                                    {"reason", TextOrNull(explanation.captureReason)},
                                    {"bytes", explanation.capturedBytes}}
                             : Json()},
        {"comparison", std::move(comparison)},
    }
        .dump();
}

}  // namespace tarnctl

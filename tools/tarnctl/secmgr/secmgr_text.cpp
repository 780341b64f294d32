#include "tarnctl/secmgr/secmgr_text.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

Json OrNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json OrNull(const std::optional<uint8_t>& number) {
    return number ? Json(*number) : Json();
}

Json PartsAsJson(const QuarantineParts& parts) {
    return Json{{"ipVersion", parts.ipVersion},       {"intruder", OrNull(parts.intruder)},
                {"victim", OrNull(parts.victim)},     {"protocol", parts.protocol},
                {"icmpType", OrNull(parts.icmpType)}, {"icmpCode", OrNull(parts.icmpCode)},
                {"sourcePort", parts.sourcePort},     {"destinationPort", parts.destinationPort},
                {"counter", parts.counter},           {"expirationTime", parts.expiration}};
}

}  // namespace

std::string OutcomeAsLine(const SecmgrOutcome& outcome, time_t now) {
    std::string line = TimeText(static_cast<uint64_t>(now));
    line += outcome.accepted ? "  accepted" : "  not accepted (" + outcome.reason + ")";
    line += "  SID " + std::to_string(outcome.request.issueId);
    line += "  flags " + std::to_string(outcome.request.flags);
    line += "  " + ForTerminal(outcome.request.text);
    if (outcome.accepted && outcome.parts.expiration <= now) {
        line += "  (its end has come already)";
    }
    return line;
}

std::string OutcomeAsJson(const SecmgrOutcome& outcome, time_t now) {
    return Json{{"time", now},
                {"flags", outcome.request.flags},
                {"issueId", outcome.request.issueId},
                {"rule", TextAsJson(outcome.request.text)},
                {"parts", outcome.isRule ? PartsAsJson(outcome.parts) : Json()},
                {"accepted", outcome.accepted},
                {"answer", AnswerText(outcome.answer)},
                {"reason", OrNull(outcome.reason)}}
        .dump();
}

std::string RuleInForceAsLine(const RuleInForce& rule, time_t now) {
    return "SID " + std::to_string(rule.issueId) + "  " +
           std::to_string(rule.parts.expiration - now) + " s left  asked for " +
           Counted(rule.asked, "time") + "  " + rule.text;
}

}  // namespace tarnctl

#include "tarnctl/quarantine_control/quarantine_view.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

std::string TextOf(const Json& json) {
    return json.is_string() ? ForTerminal(json.get_ref<const std::string&>()) : json.dump();
}

// Who asked for a rule: a signature, or a person with a reason.
std::string OriginOf(const Json& rule) {
    const Json issueId = rule.value("issueId", Json());
    const Json why = rule.value("why", Json());
    std::string text = issueId.is_null() ? "by hand" : "SID " + issueId.dump();
    if (!why.is_null()) {
        text += ": " + TextOf(why);
    }
    return text;
}

}  // namespace

std::string RemainingText(int64_t seconds) {
    constexpr std::array<std::pair<int64_t, const char*>, 3> kUnits = {
        {{86400, " d"}, {3600, " h"}, {60, " m"}}};
    for (const auto& [length, name] : kUnits) {
        if (seconds >= 2 * length) {
            return std::to_string(seconds / length) + name;
        }
    }
    return std::to_string(std::max<int64_t>(seconds, 0)) + " s";
}

std::string QuarantineLine(const Json& rule, const Display& display) {
    const Json packets = rule.value("packets", Json());
    const std::array<Cell, 4> cells = {
        {{RemainingText(rule.value("secondsLeft", int64_t{0})) + " left", Color::kNone, 10},
         {packets.is_null() ? "- dropped" : Counted(packets.get<uint64_t>(), "packet") + " dropped",
          Color::kNone, 18},
         {OriginOf(rule), Color::kNone, 12},
         {TextOf(rule.value("rule", Json(""))), Color::kNone, 0}}};
    return LineOf(cells, display);
}

std::string QuarantineVerdict(const Json& answer) {
    const std::string address = TextOf(answer.value("address", Json("")));
    const Json cover = answer.value("protectedBy", Json());
    if (cover.is_object()) {
        return address + " is never cut off: " + TextOf(cover.value("entry", Json(""))) + " (" +
               TextOf(cover.value("source", Json(""))) + ")";
    }
    const Json rules = answer.value("rules", Json::array());
    if (rules.empty()) {
        return address + " is not cut off";
    }
    const bool isWhole = std::any_of(rules.begin(), rules.end(), [&](const Json& rule) {
        return rule.value("whole", false) && rule.value("intruder", Json()) == answer["address"];
    });
    const std::string would = answer.value("cutsOff", false) ? "is" : "would be";
    return address + " " + would + (isWhole ? " cut off" : " cut off in part") + ", by " +
           Counted(rules.size(), "rule");
}

}  // namespace tarnctl

// Any bytes at all as a rule file, as a map, and as a sensor's configuration of both generations.
// The input is one byte, which says which of them, and then the text. Whatever the text is, a rule
// that comes out has numbers and a line that lies within the text.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tarnctl/snort_rules/map_text.h"
#include "tarnctl/snort_rules/rule_text.h"
#include "tarnctl/snort_rules/snort_configuration.h"

namespace {

void Demand(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void Check(const tarnctl::RuleFileContent& content, uint32_t lines, bool isMap) {
    for (const tarnctl::SnortRule& rule : content.rules) {
        Demand(rule.sid != 0 && rule.line >= 1 && rule.line <= lines);
        Demand(rule.fromMap == isMap);
    }
    for (const tarnctl::RuleRemark& remark : content.remarks) {
        Demand(!remark.text.empty() && remark.line >= 1 && remark.line <= lines);
    }
    for (const tarnctl::RuleDirective& directive : content.directives) {
        Demand(!directive.word.empty() && directive.line >= 1 && directive.line <= lines);
    }
}

void Check(const std::vector<tarnctl::SensorOutputFinding>& findings, uint32_t lines) {
    for (const tarnctl::SensorOutputFinding& finding : findings) {
        Demand(!finding.text.empty() && finding.line <= lines);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    const auto lines = static_cast<uint32_t>(std::count(text.begin(), text.end(), '\n') + 1);
    switch (data[0] % 4) {
        case 0:
            Check(tarnctl::ReadRuleText(text), lines, false);
            break;
        case 1:
            (void)tarnctl::LooksLikeMap(text);
            Check(tarnctl::ReadMapText(data[0] % 8 == 1 ? "sid-msg.map" : "gen-msg.map", text),
                  lines, true);
            break;
        case 2:
            Check(tarnctl::ScanSnort2Configuration("snort.conf", text), lines);
            break;
        default:
            Check(tarnctl::ScanSnort3Configuration("snort.lua", text), lines);
    }
    return 0;
}

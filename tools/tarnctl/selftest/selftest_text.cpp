#include "tarnctl/selftest/selftest_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "tarnctl/common/help_text.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

std::string Seconds(double seconds) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.1f", seconds);
    return text.data();
}

}  // namespace

void WriteSelftestText(const TrialResult& result, const Display& display, std::ostream& out) {
    const size_t width = display.Width() == 0 ? std::string::npos : display.Width();
    for (const Leg& leg : result.legs) {
        const std::string word = leg.isProven ? "proven" : "DEAD  ";
        const std::string text =
            Wrapped(word + "  " + leg.name + ": " + ForTerminal(leg.detail), width, 0);
        out << Painted(word, leg.isProven ? Color::kGreen : Color::kRed, display.color)
            << text.substr(word.size());
        if (!leg.look.empty()) {
            out << Wrapped("look at " + ForTerminal(leg.look), width, 8);
        }
    }
    if (!result.log.empty()) {
        out << "the end of the daemon's log:\n";
        std::istringstream lines(result.log);
        for (std::string line; std::getline(lines, line);) {
            out << CutToWidth("  " + ForTerminal(line), display.Width()) << "\n";
        }
    }
    const auto dead = std::count_if(result.legs.begin(), result.legs.end(),
                                    [](const Leg& leg) { return !leg.isProven; });
    out << (dead == 0 ? "all " + std::to_string(result.legs.size()) + " legs are proven"
                      : std::to_string(dead) + " of " + std::to_string(result.legs.size()) +
                            (dead == 1 ? " legs is dead" : " legs are dead"))
        << ", in " << Seconds(result.seconds) << " s\n";
}

void WriteSelftestJson(const TrialResult& result, std::ostream& out) {
    Json legs = Json::array();
    for (const Leg& leg : result.legs) {
        legs.push_back({{"name", leg.name},
                        {"proven", leg.isProven},
                        {"detail", TextAsJson(leg.detail)},
                        {"look", leg.look.empty() ? Json() : TextAsJson(leg.look)}});
    }
    constexpr double kMillisecond = 1000;
    const bool isTried = result.error.empty();
    const Json whole = {{"passed", isTried && AreProven(result.legs)},
                        {"seconds", std::round(result.seconds * kMillisecond) / kMillisecond},
                        {"legs", std::move(legs)},
                        {"log", result.log.empty() ? Json() : TextAsJson(result.log)},
                        {"error", isTried ? Json() : TextAsJson(result.error)}};
    out << whole.dump() << "\n";
}

}  // namespace tarnctl

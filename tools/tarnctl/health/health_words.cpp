#include "tarnctl/health/health_words.h"

#include <array>
#include <cstdio>
#include <set>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {

std::string BytesText(uint64_t bytes) {
    constexpr uint64_t kStep = 1024;
    constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < kStep) {
        return std::to_string(bytes) + " B";
    }
    auto amount = static_cast<double>(bytes) / kStep;
    size_t unit = 0;
    while (amount >= kStep && unit + 1 < kUnits.size()) {
        amount /= kStep;
        ++unit;
    }
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.1f %s", amount, kUnits[unit]);
    return text.data();
}

std::string AgeText(double seconds) {
    constexpr uint64_t kMinute = 60;
    constexpr uint64_t kHour = 60 * kMinute;
    constexpr uint64_t kDay = 24 * kHour;
    const auto whole = static_cast<uint64_t>(seconds);
    std::array<char, 64> text = {};
    const auto hours = static_cast<unsigned>(whole % kDay / kHour);
    const auto minutes = static_cast<unsigned>(whole % kHour / kMinute);
    std::snprintf(text.data(), text.size(), "%02u:%02u:%02u", hours, minutes,
                  static_cast<unsigned>(whole % kMinute));
    return whole < kDay ? std::string(text.data())
                        : std::to_string(whole / kDay) + " d " + text.data();
}

const char* MotionWord(RingMotion motion) {
    switch (motion) {
        case RingMotion::kEmpty:
            return "empty";
        case RingMotion::kMoving:
            return "moving";
        case RingMotion::kWaiting:
            return "waiting";
        case RingMotion::kStuck:
            break;
    }
    return "stuck";
}

std::string HoldersText(const Holders& holders) {
    std::string text;
    std::set<int> named;
    for (const Holder& holder : holders) {
        if (named.insert(holder.process).second) {
            text += (text.empty() ? "" : ", ") + ForTerminal(holder.name) + " " +
                    std::to_string(holder.process);
        }
    }
    return text.empty() ? "nobody" : text;
}

double PercentOf(uint64_t part, uint64_t whole) {
    constexpr double kHundred = 100;
    return whole == 0 ? 0.0 : kHundred * static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace tarnctl

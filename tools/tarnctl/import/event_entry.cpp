#include "tarnctl/import/event_entry.h"

#include <algorithm>

#include "tarnctl/import/event_file.h"

namespace tarnctl {
namespace {

// The length of the UTF-8 character that begins the text, 0 if none does.
std::size_t CharacterLength(std::string_view text) {
    const auto byte = [&text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const std::size_t length = byte(0) < 0x80               ? 1
                               : (byte(0) & 0xE0U) == 0xC0U ? 2
                               : (byte(0) & 0xF0U) == 0xE0U ? 3
                               : (byte(0) & 0xF8U) == 0xF0U ? 4
                                                            : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    // The shortest form only, and no halves of pairs.
    const bool isBad = (length == 2 && byte(0) < 0xC2) ||
                       (length == 3 && byte(0) == 0xE0 && byte(1) < 0xA0) ||
                       (length == 3 && byte(0) == 0xED && byte(1) >= 0xA0) ||
                       (length == 4 && byte(0) == 0xF0 && byte(1) < 0x90) || byte(0) > 0xF4 ||
                       (length == 4 && byte(0) == 0xF4 && byte(1) >= 0x90);
    return isBad ? 0 : length;
}

bool IsControl(char letter) {
    const auto byte = static_cast<unsigned char>(letter);
    return byte < 0x20 || byte == 0x7F;
}

}  // namespace

std::string EventName(std::string_view message) {
    std::string name;
    while (!message.empty()) {
        const std::size_t length = CharacterLength(message);
        if (name.size() + std::max<std::size_t>(length, 1) > kLongestName) {
            break;
        }
        if (length > 1) {
            name += message.substr(0, length);
        } else {
            name += length == 0 ? '?' : IsControl(message.front()) ? ' ' : message.front();
        }
        message.remove_prefix(std::max<std::size_t>(length, 1));
    }
    const std::size_t begin = name.find_first_not_of(' ');
    if (begin == std::string::npos) {
        return "";
    }
    return name.substr(begin, name.find_last_not_of(' ') - begin + 1);
}

std::string_view SeverityWord(uint32_t priority) {
    switch (priority) {
        case 1:
            return "high";
        case 2:
            return "medium";
        default:
            return "low";
    }
}

std::string EntryText(const RuleSet& set, std::span<const SnortRule> rules) {
    std::string text = "\n";
    std::string name;
    uint32_t priority = 0;
    for (const SnortRule& rule : rules) {
        text += std::string(kImportComment) + " " + std::to_string(rule.generator) + ":" +
                std::to_string(rule.sid) + " at " + EventName(set.FileOf(rule)) + ":" +
                std::to_string(rule.line) + "\n";
        name = name.empty() ? EventName(rule.message) : name;
        const uint32_t own = set.PriorityOf(rule);
        priority = own != 0 && (priority == 0 || own < priority) ? own : priority;
    }
    const SnortRule& first = rules.front();
    if (name.empty()) {
        name =
            "Snort signature " + std::to_string(first.generator) + ":" + std::to_string(first.sid);
    }
    const std::string key = "se." + std::to_string(first.sid) + ".";
    text += key + "severity = " + std::string(SeverityWord(priority)) + "\n";
    text += key + "msg = " + name + "\n";
    text += key + "user.response = DISPLAY:WithoutRaw\n";
    text += key + "response = none\n";
    return text;
}

}  // namespace tarnctl

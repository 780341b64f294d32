#include "tarnctl/import/event_entry.h"

#include <algorithm>

#include "tarnctl/import/event_file.h"

namespace tarnctl {
namespace {

// The length of the UTF-8 character that begins the text, 0 if none does.
size_t CharacterLength(std::string_view text) {
    const auto byte = [&text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const size_t length = byte(0) < 0x80               ? 1
                          : (byte(0) & 0xE0U) == 0xC0U ? 2
                          : (byte(0) & 0xF0U) == 0xE0U ? 3
                          : (byte(0) & 0xF8U) == 0xF0U ? 4
                                                       : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t at = 1; at < length; ++at) {
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
        const size_t length = CharacterLength(message);
        if (name.size() + std::max<size_t>(length, 1) > kLongestName) {
            break;
        }
        if (length > 1) {
            name += message.substr(0, length);
        } else {
            name += length == 0 ? '?' : IsControl(message.front()) ? ' ' : message.front();
        }
        message.remove_prefix(std::max<size_t>(length, 1));
    }
    const size_t begin = name.find_first_not_of(' ');
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

EventEntry MakeEntry(const RuleSet& set, std::span<const SnortRule> rules) {
    const SnortRule& first = rules.front();
    EventEntry entry;
    entry.id = first.sid;
    entry.file = set.FileOf(first);
    entry.line = first.line;
    entry.text = "\n";
    const std::string id = std::to_string(entry.id);
    uint32_t priority = 0;
    for (const SnortRule& rule : rules) {
        entry.generators.push_back(rule.generator);
        entry.text.append(kImportComment)
            .append(" ")
            .append(std::to_string(rule.generator))
            .append(":")
            .append(id)
            .append(" at ")
            .append(EventName(set.FileOf(rule)))
            .append(":")
            .append(std::to_string(rule.line))
            .append("\n");
        entry.name = entry.name.empty() ? EventName(rule.message) : entry.name;
        const uint32_t own = set.PriorityOf(rule);
        priority = own != 0 && (priority == 0 || own < priority) ? own : priority;
    }
    if (entry.name.empty()) {
        entry.name = "Snort signature " + std::to_string(first.generator) + ":" + id;
    }
    entry.severity = SeverityWord(priority);
    const std::string key = "se." + id + ".";
    entry.text.append(key).append("severity = ").append(entry.severity).append("\n");
    entry.text.append(key).append("msg = ").append(entry.name).append("\n");
    entry.text.append(key).append("user.response = DISPLAY:WithoutRaw\n");
    entry.text.append(key).append("response = none\n");
    return entry;
}

}  // namespace tarnctl

#include "config/event_rule_parser.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr char kBlanks[] = " \t";

// Moves `text` past `word` if it begins with it.
bool Accept(const char*& text, const char* word) {
    const std::size_t length = std::strlen(word);
    if (std::strncmp(text, word, length) != 0) {
        return false;
    }
    text += length;
    return true;
}

void SkipBlanks(const char*& text) {
    text += std::strspn(text, kBlanks);
}

// Moves past what may stand between two items of a list; false if something else stands there.
// A comma with nothing behind it is accepted.
bool AcceptSeparator(const char*& text) {
    SkipBlanks(text);
    if (*text == '\0') {
        return true;
    }
    if (!Accept(text, ",")) {
        return false;
    }
    SkipBlanks(text);
    return true;
}

// Moves past ":" and a number. The number is stored before what follows it is looked at.
bool AcceptNumber(const char*& text, uint64_t* number) {
    SkipBlanks(text);
    if (!Accept(text, ":")) {
        return false;
    }
    SkipBlanks(text);
    if (*text == '\0') {
        return false;
    }
    char* end = nullptr;
    *number = std::strtoul(text, &end, 10);
    if (*end != '\0' && *end != ',' && std::strchr(kBlanks, *end) == nullptr) {
        return false;
    }
    text = end;
    return true;
}

struct BlockWord {
    const char* word;
    uint32_t keep;  // the flags so far that stay
    uint32_t add;
};

constexpr uint32_t kAll = ~0U;

// In the order in which they are tried: a word stands ahead of its own prefix. Deliberate: the
// last four replace what came before them, so the order of the words in a value matters; a preset
// starts afresh and the words after it refine it.
constexpr BlockWord kBlockWords[] = {
    {"quarantine-intruder-address", kAll, kBlockIntruderAddress},
    {"quarantine-intruder-subnet", kAll, kBlockIntruderSubnet},
    {"quarantine-intruder-port", kAll, kBlockIntruderPort},
    {"quarantine-victim-address", kAll, kBlockVictimAddress},
    {"quarantine-victim-subnet", kAll, kBlockVictimSubnet},
    {"quarantine-victim-port", kAll, kBlockVictimPort},
    {"quarantine-icmp-type", kAll, kBlockIcmpType},
    {"quarantine-icmp-code", kAll, kBlockIcmpCode},
    {"quarantine-issue", kAll, 0},
    {"quarantine-worm", 0, kBlockIntruderAddress | kBlockVictimPort},
    {"quarantine-trojan", 0, kBlockVictimAddress | kBlockVictimPort},
    {"quarantine-intruder", 0, kBlockIntruderAddress | kBlockVictimAddress},
    {"quarantine-ddos", 0, kBlockIntruderAddress | kBlockIssue},
};

bool AcceptBlockWord(const char*& text, uint32_t* flags) {
    for (const BlockWord& entry : kBlockWords) {
        if (Accept(text, entry.word)) {
            *flags = (*flags & entry.keep) | entry.add;
            return true;
        }
    }
    return false;
}

bool AcceptBlockItem(const char*& text, BlockRule* rule) {
    if (AcceptBlockWord(text, &rule->flags)) {
        return true;
    }
    if (Accept(text, "duration")) {
        return AcceptNumber(text, &rule->duration);
    }
    if (Accept(text, "ratelimit")) {
        uint64_t number = rule->rateLimit;
        const bool fits = AcceptNumber(text, &number);
        rule->rateLimit = static_cast<uint32_t>(number);
        return fits;
    }
    return false;
}

// Deliberate: all four words mean both kinds of traffic. The names tell the intent of whoever
// wrote the entry; the quarantine itself makes no such difference.
constexpr const char* kResponseWords[] = {
    "quarantine-traffic",
    "quarantine-future-traffic",
    "quarantine-icmp-traffic",
    "quarantine-future-icmp-traffic",
};

bool AcceptResponseWord(const char*& text) {
    for (const char* word : kResponseWords) {
        if (Accept(text, word)) {
            return true;
        }
    }
    return false;
}

// The one scope bit of a value that asks for evidence. "AllInterfaces" contains "Interface".
uint32_t EvidenceScope(const char* value) {
    if (std::strstr(value, "Connection") != nullptr) {
        return kUserResponseLogConnection;
    }
    if (std::strstr(value, "AllInterfaces") != nullptr) {
        return kUserResponseLogAllInterfaces;
    }
    if (std::strstr(value, "Interface") != nullptr) {
        return kUserResponseLogInterface;
    }
    return kUserResponseLogPackets;
}

int EventKeyOf(const char* name) {
    const auto names = [name](const char* marker) { return std::strstr(name, marker) != nullptr; };
    if (names(".severity")) {
        return kEventKeySeverity;
    }
    if (names(".rule") && !names(".quarantine.rule")) {
        return kEventKeyRule;
    }
    if (names(".msg")) {
        return kEventKeyMessage;
    }
    if (names(".user.response")) {
        return kEventKeyUserResponse;
    }
    if (names(".response")) {
        return kEventKeyResponse;
    }
    return names(".quarantine.rule") ? kEventKeyQuarantineRule : kEventKeyNone;
}

}  // namespace

bool ParseEventKey(const char* name, int* kind, uint32_t* id) {
    *kind = kEventKeyNone;
    *id = 0;
    const char* digits = name;
    if (!Accept(digits, "se.")) {
        return true;
    }
    *kind = EventKeyOf(name);
    if (*kind == kEventKeyNone) {
        return false;
    }
    *id = static_cast<uint32_t>(std::strtol(digits, nullptr, 10));  // ends at the key's dot
    return *id != 0;
}

bool ParseSeverity(const char* value, uint32_t* severity) {
    *severity = kSeverityNone;
    // Deliberate: only the beginning counts, so that a word may carry more text behind it.
    const auto begins = [value](const char* word) {
        return strncasecmp(value, word, std::strlen(word)) == 0;
    };
    if (begins("low")) {
        *severity = kSeverityLow;
    } else if (begins("medium")) {
        *severity = kSeverityMedium;
    } else if (begins("high")) {
        *severity = kSeverityHigh;
    }
    return *value != '\0';
}

bool ParseUserResponse(const char* value, uint32_t* flags) {
    // A text that asks for the packet and says more than this counts as asking for both ways.
    constexpr std::size_t kLongestPlainValue = sizeof("DISPLAY:WithRaw") - 1;

    *flags = 0;
    if (*value == '\0') {
        return false;
    }
    const bool evidence = std::strstr(value, "LOGEVIDENCE") != nullptr;
    const bool raw = std::strstr(value, "WithRaw") != nullptr;
    if (evidence) {
        *flags |= kUserResponseLogEvidence | EvidenceScope(value);
    }
    if (raw) {
        *flags |= kUserResponseWithRaw;
    }
    if (!evidence && (!raw || std::strlen(value) > kLongestPlainValue)) {
        *flags |= kUserResponseWithoutRaw;
    }
    return true;
}

bool ParseResponse(const char* value, uint32_t* flags) {
    if (*value == '\0') {
        return false;
    }
    if (std::strcmp(value, "none") == 0) {
        *flags = 0;
        return true;
    }
    while (*value != '\0') {
        if (!AcceptResponseWord(value)) {
            return false;
        }
        *flags |= kResponseQuarantineTraffic | kResponseQuarantineIcmp;
        if (!AcceptSeparator(value)) {
            return false;
        }
    }
    return true;
}

bool ParseBlockRule(const char* value, BlockRule* rule) {
    if (*value == '\0') {
        return false;
    }
    *rule = BlockRule{};
    while (*value != '\0') {
        if (!AcceptBlockItem(value, rule) || !AcceptSeparator(value)) {
            return false;
        }
    }
    return true;
}

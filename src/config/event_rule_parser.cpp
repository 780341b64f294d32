#include "config/event_rule_parser.h"

#include <strings.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

constexpr char kBlanks[] = " \t";

// Moves `text` past `word` if it begins with it.
bool Accept(const char*& text, const char* word) {
    const size_t length = std::strlen(word);
    if (std::strncmp(text, word, length) != 0) {
        return false;
    }
    text += length;
    return true;
}

void SkipBlanks(const char*& text) {
    text += std::strspn(text, kBlanks);
}

// Notes what is read of a list, if somebody wants to know.
class Tracer {
  public:
    Tracer(const char* value, ListTrace* trace) : m_value(value), m_trace(trace) {
        if (m_trace != nullptr) {
            m_trace->Clear();
        }
    }

    void Word(const char* begin, const char* end, uint32_t erasedFlags) const {
        if (m_trace != nullptr) {
            m_trace->entries.push_back(
                {ListTrace::Item::kWord, At(begin), At(end), At(end), 0, erasedFlags});
        }
    }

    void Number(ListTrace::Item item, const char* begin, const char* numberBegin, const char* end,
                uint64_t number) const {
        if (m_trace != nullptr) {
            m_trace->entries.push_back({item, At(begin), At(end), At(numberBegin), number, 0});
        }
    }

    void TrailingComma() const {
        if (m_trace != nullptr) {
            m_trace->hasTrailingComma = true;
        }
    }

    // False, which is what the caller returns.
    [[nodiscard]] bool Stop(const char* text, ListTrace::Stop stop) const {
        if (m_trace != nullptr) {
            m_trace->stop = stop;
            m_trace->stoppedAt = At(text);
        }
        return false;
    }

  private:
    [[nodiscard]] size_t At(const char* text) const { return static_cast<size_t>(text - m_value); }

    const char* m_value;
    ListTrace* m_trace;  // borrowed; may be null
};

// Moves past what may be between two items of a list; false if something else is there.
// A comma with nothing after it is accepted.
bool AcceptSeparator(const char*& text, const Tracer& tracer) {
    SkipBlanks(text);
    if (*text == '\0') {
        return true;
    }
    if (!Accept(text, ",")) {
        return tracer.Stop(text, ListTrace::Stop::kNoComma);
    }
    SkipBlanks(text);
    if (*text == '\0') {
        tracer.TrailingComma();
    }
    return true;
}

// Moves past a name, ":" and a number. The number is stored before what follows it is looked at.
bool AcceptNumber(const char*& text, ListTrace::Item item, const char* begin, const Tracer& tracer,
                  uint64_t* number) {
    SkipBlanks(text);
    if (!Accept(text, ":")) {
        return tracer.Stop(text, ListTrace::Stop::kNoColon);
    }
    SkipBlanks(text);
    if (*text == '\0') {
        return tracer.Stop(text, ListTrace::Stop::kNoNumber);
    }
    char* end = nullptr;
    *number = std::strtoul(text, &end, 10);
    tracer.Number(item, begin, text, end, *number);
    if (*end != '\0' && *end != ',' && std::strchr(kBlanks, *end) == nullptr) {
        return tracer.Stop(end, ListTrace::Stop::kTextAfterNumber);
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

// In the order in which they are tried: a word is ahead of its own prefix. Deliberate: the
// last four replace what came before them, so the order of the words in a value matters; a preset
// starts from nothing and the words after it refine it.
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

bool AcceptBlockWord(const char*& text, const Tracer& tracer, uint32_t* flags) {
    for (const BlockWord& entry : kBlockWords) {
        const char* const begin = text;
        if (Accept(text, entry.word)) {
            tracer.Word(begin, text, *flags & ~entry.keep & ~entry.add);
            *flags = (*flags & entry.keep) | entry.add;
            return true;
        }
    }
    return false;
}

constexpr char kDuration[] = "duration";
constexpr char kRateLimit[] = "ratelimit";

bool AcceptBlockItem(const char*& text, const Tracer& tracer, BlockRule* rule) {
    if (AcceptBlockWord(text, tracer, &rule->flags)) {
        return true;
    }
    const char* const begin = text;
    if (Accept(text, kDuration)) {
        return AcceptNumber(text, ListTrace::Item::kDuration, begin, tracer, &rule->duration);
    }
    if (Accept(text, kRateLimit)) {
        uint64_t number = rule->rateLimit;
        const bool fits = AcceptNumber(text, ListTrace::Item::kRateLimit, begin, tracer, &number);
        rule->rateLimit = static_cast<uint32_t>(number);
        return fits;
    }
    return tracer.Stop(text, ListTrace::Stop::kUnknownWord);
}

// Deliberate: all four words mean both kinds of traffic. The names show the intent of whoever
// wrote the entry; the quarantine itself makes no such difference.
constexpr const char* kResponseWords[] = {
    "quarantine-traffic",
    "quarantine-future-traffic",
    "quarantine-icmp-traffic",
    "quarantine-future-icmp-traffic",
};

constexpr char kNoResponse[] = "none";

bool AcceptResponseWord(const char*& text, const Tracer& tracer) {
    for (const char* word : kResponseWords) {
        const char* const begin = text;
        if (Accept(text, word)) {
            tracer.Word(begin, text, 0);
            return true;
        }
    }
    return tracer.Stop(text, ListTrace::Stop::kUnknownWord);
}

constexpr char kConnection[] = "Connection";
constexpr char kAllInterfaces[] = "AllInterfaces";
constexpr char kInterface[] = "Interface";

// The one scope bit of a value that asks for evidence. "AllInterfaces" contains "Interface".
uint32_t EvidenceScope(const char* value) {
    if (std::strstr(value, kConnection) != nullptr) {
        return kUserResponseLogConnection;
    }
    if (std::strstr(value, kAllInterfaces) != nullptr) {
        return kUserResponseLogAllInterfaces;
    }
    if (std::strstr(value, kInterface) != nullptr) {
        return kUserResponseLogInterface;
    }
    return kUserResponseLogPackets;
}

struct KeyMarker {
    const char* text;
    EventKey key;
};

// In the order in which they are looked for: a longer one is ahead of its own ending, except
// ".rule", which EventKeyOf passes over where the longer one is found.
constexpr KeyMarker kKeyMarkers[] = {
    {".severity", kEventKeySeverity}, {".rule", kEventKeyRule},
    {".msg", kEventKeyMessage},       {".user.response", kEventKeyUserResponse},
    {".response", kEventKeyResponse}, {".quarantine.rule", kEventKeyQuarantineRule},
};

// A bit for each of kKeyMarkers.
constexpr uint32_t BitOf(EventKey key) {
    uint32_t bit = 1;
    for (const KeyMarker& marker : kKeyMarkers) {
        if (marker.key == key) {
            break;
        }
        bit <<= 1;
    }
    return bit;
}

// The first key that occurs anywhere in the name; null if none does. One pass over the dots instead
// of one over the name for each key: a large file has some hundred thousand lines.
const KeyMarker* EventKeyOf(const char* name) {
    uint32_t found = 0;
    for (const char* dot = std::strchr(name, '.'); dot != nullptr;
         dot = std::strchr(dot + 1, '.')) {
        for (const KeyMarker& marker : kKeyMarkers) {
            const char* text = dot;
            if (dot[1] == marker.text[1] && Accept(text, marker.text)) {
                found |= BitOf(marker.key);
            }
        }
    }
    if ((found & BitOf(kEventKeyQuarantineRule)) != 0) {
        found &= ~BitOf(kEventKeyRule);
    }
    return found != 0 ? &kKeyMarkers[std::countr_zero(found)] : nullptr;
}

constexpr char kEventPrefix[] = "se.";

constexpr char kLow[] = "low";
constexpr char kMedium[] = "medium";
constexpr char kHigh[] = "high";

constexpr char kLogEvidence[] = "LOGEVIDENCE";
constexpr char kWithRaw[] = "WithRaw";

}  // namespace

bool ParseEventKey(const char* name, int* kind, uint32_t* id, EventKeyTrace* trace) {
    *kind = kEventKeyNone;
    *id = 0;
    const char* digits = name;
    if (!Accept(digits, kEventPrefix)) {
        return true;
    }
    const KeyMarker* const marker = EventKeyOf(name);
    if (marker == nullptr) {
        return false;
    }
    *kind = marker->key;
    char* end = nullptr;
    *id = static_cast<uint32_t>(std::strtol(digits, &end, 10));  // ends at the key's dot
    if (trace != nullptr) {
        trace->idEnd = static_cast<size_t>(end - name);
        trace->keyBegin = static_cast<size_t>(std::strstr(name, marker->text) - name);
        trace->keyEnd = trace->keyBegin + std::strlen(marker->text);
    }
    return *id != 0;
}

bool ParseSeverity(const char* value, uint32_t* severity) {
    *severity = kSeverityNone;
    // Deliberate: only the beginning counts, so that a word may carry more text after it.
    const auto begins = [value](const char* word) {
        return strncasecmp(value, word, std::strlen(word)) == 0;
    };
    if (begins(kLow)) {
        *severity = kSeverityLow;
    } else if (begins(kMedium)) {
        *severity = kSeverityMedium;
    } else if (begins(kHigh)) {
        *severity = kSeverityHigh;
    }
    return *value != '\0';
}

bool ParseUserResponse(const char* value, uint32_t* flags) {
    // A text that asks for the packet and says more than this counts as asking for both ways.
    constexpr size_t kLongestPlainValue = sizeof("DISPLAY:WithRaw") - 1;

    *flags = 0;
    if (*value == '\0') {
        return false;
    }
    const bool evidence = std::strstr(value, kLogEvidence) != nullptr;
    const bool raw = std::strstr(value, kWithRaw) != nullptr;
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

bool ParseResponse(const char* value, uint32_t* flags, ListTrace* trace) {
    const Tracer tracer(value, trace);
    if (*value == '\0') {
        return false;
    }
    if (std::strcmp(value, kNoResponse) == 0) {
        *flags = 0;
        return true;
    }
    while (*value != '\0') {
        if (!AcceptResponseWord(value, tracer)) {
            return false;
        }
        *flags |= kResponseQuarantineTraffic | kResponseQuarantineIcmp;
        if (!AcceptSeparator(value, tracer)) {
            return false;
        }
    }
    return true;
}

bool ParseBlockRule(const char* value, BlockRule* rule, ListTrace* trace) {
    const Tracer tracer(value, trace);
    if (*value == '\0') {
        return false;
    }
    *rule = BlockRule{};
    while (*value != '\0') {
        if (!AcceptBlockItem(value, tracer, rule) || !AcceptSeparator(value, tracer)) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> EventKeyNames() {
    std::vector<std::string> names;
    for (const KeyMarker& marker : kKeyMarkers) {
        names.emplace_back(marker.text + 1);
    }
    return names;
}

std::vector<std::string> SeverityWords() {
    return {kLow, kMedium, kHigh};
}

std::vector<std::string> UserResponseWords() {
    return {kLogEvidence, kWithRaw, kConnection, kAllInterfaces, kInterface};
}

std::vector<std::string> ResponseWords() {
    std::vector<std::string> words(std::begin(kResponseWords), std::end(kResponseWords));
    words.emplace_back(kNoResponse);
    return words;
}

std::vector<std::string> BlockRuleWords() {
    std::vector<std::string> words;
    for (const BlockWord& entry : kBlockWords) {
        words.emplace_back(entry.word);
    }
    words.emplace_back(kDuration);
    words.emplace_back(kRateLimit);
    return words;
}

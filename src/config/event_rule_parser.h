#pragma once

// Reads the names and values of the event configuration file: text in, numbers out, nothing else.
// Config::ApplyEventSetting is the one caller. docs/formats/tarn_event_conf.md describes the
// grammar.
//
// These functions are silent. Where one fails halfway, its result holds what was read before the
// failure, and the caller uses that. Where a trace is given, it says which text was read as what;
// null, which the daemon gives, costs nothing. No other pointer may be null.
//
// Threads: no state; any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "config/event_rule_node.h"

// What a setting's name asks for.
enum EventKey : int {
    kEventKeyNone = 0,  // a line for somebody else
    kEventKeySeverity = 1,
    kEventKeyRule = 2,
    kEventKeyMessage = 3,
    kEventKeyUserResponse = 4,
    kEventKeyResponse = 5,
    kEventKeyQuarantineRule = 6,
};

// Where the parts of a name are, in bytes from its beginning. Each end is one past the last byte.
struct EventKeyTrace {
    size_t idEnd = 0;     // of the digits that were read; the id begins after "se."
    size_t keyBegin = 0;  // the dot of the key; 0 where no key is known
    size_t keyEnd = 0;
};

// Where the items of a list are, in bytes from the beginning of the value.
struct ListTrace {
    enum class Item { kWord, kDuration, kRateLimit };
    enum class Stop {
        kNowhere,          // the whole list was read
        kUnknownWord,      // the text fits no word
        kNoComma,          // something else follows an item
        kNoColon,          // "duration" or "ratelimit" has no ":"
        kNoNumber,         // nothing follows the ":"
        kTextAfterNumber,  // the number, which counts, has other text at its end
    };
    struct Entry {
        Item item = Item::kWord;
        size_t begin = 0;
        size_t end = 0;            // one past the last byte
        size_t numberBegin = 0;    // equal to `end` where there are no digits
        uint64_t number = 0;       // as it was read, before it is cut to its field
        uint32_t erasedFlags = 0;  // BlockRuleFlag bits that the word took away
    };

    void Clear() {
        entries.clear();
        stop = Stop::kNowhere;
        stoppedAt = 0;
        hasTrailingComma = false;
    }

    std::vector<Entry> entries;
    Stop stop = Stop::kNowhere;
    size_t stoppedAt = 0;
    bool hasTrailingComma = false;
};

// Splits "se.<id>.<key>". True with kind kEventKeyNone for a name that does not begin with "se.";
// false if no key is known in the name or the id is 0 or no number.
[[nodiscard]] bool ParseEventKey(const char* name, int* kind, uint32_t* id,
                                 EventKeyTrace* trace = nullptr);

// False for an empty value; otherwise true, with kSeverityNone for a word that is none.
[[nodiscard]] bool ParseSeverity(const char* value, uint32_t* severity);

// UserResponseFlag bits of the words in the value. False, with flags 0, for an empty value.
[[nodiscard]] bool ParseUserResponse(const char* value, uint32_t* flags);

// Adds the ResponseFlag bits of a comma-separated list of words to `flags`; the value "none" makes
// them 0. False for an empty value and from the first word on that is none.
[[nodiscard]] bool ParseResponse(const char* value, uint32_t* flags, ListTrace* trace = nullptr);

// Reads a comma-separated list of words and settings. False for an empty value, which leaves
// `rule` as it is, and from the first text on that does not fit.
[[nodiscard]] bool ParseBlockRule(const char* value, BlockRule* rule, ListTrace* trace = nullptr);

// The words that the functions above know, for whoever wants to name the nearest one.
[[nodiscard]] std::vector<std::string> EventKeyNames();  // without the leading dot
[[nodiscard]] std::vector<std::string> SeverityWords();
[[nodiscard]] std::vector<std::string> UserResponseWords();
[[nodiscard]] std::vector<std::string> ResponseWords();
[[nodiscard]] std::vector<std::string> BlockRuleWords();

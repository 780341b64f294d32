#pragma once

// Reads the names and values of the event configuration file: text in, numbers out, nothing else.
// Config::ApplyEventSetting is the one caller. The grammar is told in
// docs/formats/tarn_event_conf.md.
//
// These functions are silent. Where one fails halfway, its result holds what was read before the
// failure, and the caller uses that.
//
// Threads: no state; any thread.

#include <cstdint>

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

// Splits "se.<id>.<key>". True with kind kEventKeyNone for a name that does not begin with "se.";
// false if no key is known in the name or the id is 0 or no number.
[[nodiscard]] bool ParseEventKey(const char* name, int* kind, uint32_t* id);

// False for an empty value; otherwise true, with kSeverityNone for a word that is none.
[[nodiscard]] bool ParseSeverity(const char* value, uint32_t* severity);

// UserResponseFlag bits of the words in the value. False, with flags 0, for an empty value.
[[nodiscard]] bool ParseUserResponse(const char* value, uint32_t* flags);

// Adds the ResponseFlag bits of a comma-separated list of words to `flags`; the value "none" makes
// them 0. False for an empty value and from the first word on that is none.
[[nodiscard]] bool ParseResponse(const char* value, uint32_t* flags);

// Reads a comma-separated list of words and settings. False for an empty value, which leaves
// `rule` as it is, and from the first text on that does not fit.
[[nodiscard]] bool ParseBlockRule(const char* value, BlockRule* rule);

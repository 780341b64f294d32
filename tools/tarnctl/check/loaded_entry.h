#pragma once

// One entry of the event file as the daemon's loader took it, with the lines that it came from.
//
// Threads: plain values.

#include <cstdint>
#include <string>
#include <vector>

#include "config/event_rule_node.h"
#include "tarnctl/check/finding.h"

namespace tarnctl {

struct LoadedRule {
    BlockRule rule;
    FindingPlace place;      // its value
    bool isEmpty = false;    // the line has no value
    bool isComplete = true;  // the whole list was read
};

struct LoadedEntry {
    uint32_t id = 0;
    FindingPlace place;  // the id in its first line
    uint32_t keys = 0;   // bit N for the EventKey N
    std::string name;
    std::string ruleText;
    std::string userResponse;
    uint32_t severity = kSeverityNone;
    uint32_t userResponseFlags = 0;  // UserResponseFlag
    uint32_t responseFlags = 0;      // ResponseFlag
    FindingPlace responsePlace;
    std::vector<LoadedRule> rules;

    [[nodiscard]] bool Has(int key) const { return (keys >> key & 1U) != 0; }
};

}  // namespace tarnctl

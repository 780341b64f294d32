#pragma once

// One entry of the event rule table: what the daemon does when one Snort signature fires. The
// text form of an entry is described in docs/formats/tarn_event_conf.md.
//
// Owned by shared_ptr: EventRuleTable holds one reference, each reader another one.
//
// Threads: a node is filled by the thread that loads the configuration and is never written again
// once it is in the table, so any thread may read it without a lock for as long as it holds a
// reference.

#include <cstdint>
#include <list>
#include <string>

// Bits of Node::userResponseFlags. The event policy reads kUserResponseWithRaw and
// kUserResponseLogPackets; the others are stored and shown by EventRuleTable::Dump only.
enum UserResponseFlag : uint32_t {
    kUserResponseLogEvidence = 0x01,
    kUserResponseWithRaw = 0x02,        // the raw packet goes with the report
    kUserResponseWithoutRaw = 0x04,     // what a text that asks for nothing gets
    kUserResponseLogConnection = 0x08,  // exactly one of these four goes with
    kUserResponseLogInterface = 0x10,   // kUserResponseLogEvidence
    kUserResponseLogAllInterfaces = 0x20,
    kUserResponseLogPackets = 0x40,  // no scope named: the event's packets are logged
};

// Bits of Node::responseFlags.
enum ResponseFlag : uint32_t {
    kResponseQuarantineTraffic = 0x04,  // quarantine applies to events that are not ICMP
    kResponseQuarantineIcmp = 0x08,     // quarantine applies to ICMP events
};

// Bits of BlockRule::flags: what goes into the quarantine rule.
enum BlockRuleFlag : uint32_t {
    kBlockIntruderAddress = 0x001,
    kBlockIntruderPort = 0x002,
    kBlockVictimAddress = 0x004,
    kBlockVictimPort = 0x008,
    kBlockIcmpType = 0x010,
    kBlockIcmpCode = 0x020,
    kBlockIntruderSubnet = 0x040,
    kBlockVictimSubnet = 0x080,
    kBlockIssue = 0x100,
};

// Values of Node::severity; 0 is an entry without a usable severity.
enum EventSeverity : uint32_t {
    kSeverityNone = 0,
    kSeverityLow = 1,
    kSeverityMedium = 2,
    kSeverityHigh = 3,
};

// One quarantine entry of a node.
struct BlockRule {
    uint32_t flags = 0;      // BlockRuleFlag
    uint64_t duration = 0;   // seconds; 0 is not assigned
    uint32_t rateLimit = 0;  // counter of the quarantine rule; 0 is none
};

struct Node {
    explicit Node(uint32_t eventId) : id(eventId) {}

    Node* link = nullptr;             // always null; Deliberate: stored, not read
    uint32_t id;                      // Snort signature id, the key; never 0 from a file
    uint32_t severity = 0;            // EventSeverity
    std::string rule;                 // the rule's text, as the file has it
    std::string eventName;            // name of the event in the report
    std::string userResponse;         // user response of the report, as the file has it
    uint32_t userResponseFlags = 0;   // UserResponseFlag, found in userResponse
    uint32_t responseFlags = 0;       // ResponseFlag
    std::list<BlockRule> blockRules;  // in file order
};

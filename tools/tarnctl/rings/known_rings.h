#pragma once

// The rings that the daemon writes, by a name or a path.
//
// Threads: pure functions, but for a look at the directories.

#include <cstdint>
#include <string>
#include <vector>

#include "tarnctl/rings/ring_walker.h"

namespace tarnctl {

enum class RingKind {
    kReports,  // reports to the CRM
    kPackets,  // packets for the packet logging daemon
    kUnknown,
};

struct RingPlace {
    std::string name;  // "crm2-0" or "packetlog0"; the path of a ring that has no name
    std::string path;
    RingKind kind = RingKind::kUnknown;
    int number = 0;         // channel of a ring of reports, number of a ring of packets
    int half = 0;           // 0 or 1, the ending of the file's name; 0 of a ring of packets
    uint64_t fileSize = 0;  // bytes that the daemon makes the file; 0 where that is not known
};

// The ring at a path, whether it is there or not.
[[nodiscard]] RingPlace RingAt(const std::string& path);

// What a word of the command line names: a path, which has a slash; "crm" or "crm3" for both rings
// of a channel, 2 where no number is given; "crm3-0" for one of them; "packetlog" or "packetlog3".
// Empty for any other word.
[[nodiscard]] std::vector<RingPlace> RingsNamed(const std::string& word);

// All rings on this machine that have a name, in the order of kinds and numbers.
[[nodiscard]] std::vector<RingPlace> RingsHere();

// How long a message of such a ring is by its own form; an empty function where that is not known.
[[nodiscard]] MessageLength LengthFunction(RingKind kind);

}  // namespace tarnctl

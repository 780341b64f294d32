#pragma once

// One thing that a check has found, with its place and what follows from it.
//
// Threads: plain values.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnctl {

enum class FindingLevel {
    kWarning,  // takes effect, but perhaps not as it was meant
    kError,    // dropped, bent, taken by half, or something that will fail
};

// The names are part of the command's output: programs compare with them.
struct FindingKind {
    const char* name;
    FindingLevel level;
};

// A place in a file. Line and column count from 1; line 0 is the file as a whole, and a place that
// has no file is about the machine.
struct FindingPlace {
    std::string file;
    uint32_t line = 0;
    size_t column = 0;  // bytes
    size_t length = 0;  // bytes that are marked
    std::string text;   // the line
};

struct Finding {
    const FindingKind* kind = nullptr;  // of finding_kinds.h; lives for ever
    FindingPlace place;
    std::string reason;      // one sentence or two, without a full stop at the end
    std::string suggestion;  // what to write instead; empty where there is none
    std::string inForce;     // what is in force after the line; empty where that says nothing
};

// In the order in which they are found.
using Findings = std::vector<Finding>;

}  // namespace tarnctl

#pragma once

// The legs of a self-test: each way that something takes through the daemon, proven or dead.
//
// Threads: pure functions.

#include <optional>
#include <string>
#include <vector>

namespace tarnctl {

struct Leg {
    std::string name;  // "report"
    bool isProven = false;
    std::string detail;  // what came, or what did not
    std::string look;    // what to look at; empty where the leg is proven
};

// What the daemon and its stand-ins have put out so far, as JSON lines.
struct TrialOutput {
    bool hasBegun = false;      // the daemon reads the alert FIFO
    bool isFed = false;         // the alerts and the error line went in
    std::optional<int> status;  // the daemon's exit status at its end
    std::string reports;        // of tarnctl crm
    std::string rules;          // of tarnctl secmgr
    std::string requests;       // of tarnctl packetlog
    std::string messages;       // of tarnctl messages
};

// The legs in the order of the road. The end of the daemon is one of them once it is known.
[[nodiscard]] std::vector<Leg> JudgeLegs(const TrialOutput& output);

[[nodiscard]] bool AreProven(const std::vector<Leg>& legs);

}  // namespace tarnctl

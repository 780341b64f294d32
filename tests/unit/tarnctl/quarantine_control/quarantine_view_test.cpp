#include "tarnctl/quarantine_control/quarantine_view.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

TEST(RemainingTextOf, CountsInTheLargestUnitThatFitsTwice) {
    EXPECT_EQ("0 s", RemainingText(-5));
    EXPECT_EQ("119 s", RemainingText(119));
    EXPECT_EQ("2 m", RemainingText(120));
    EXPECT_EQ("119 m", RemainingText(7199));
    EXPECT_EQ("2 h", RemainingText(7200));
    EXPECT_EQ("47 h", RemainingText(172799));
    EXPECT_EQ("2 d", RemainingText(172800));
}

TEST(QuarantineLineOf, LinesUpOnATerminalAndIsCutToItsWidth) {
    Display display;
    display.isTerminal = true;
    display.width = 40;
    const Json rule = {{"rule", "ip intruder addr 203.0.113.1"},
                       {"issueId", 7},
                       {"secondsLeft", 50},
                       {"packets", 2}};
    EXPECT_EQ("50 s left   2 packets dropped   SID 7  >", QuarantineLine(rule, display));
}

TEST(QuarantineVerdictOf, DoesNotSayThatADryRunCutsOff) {
    const Json answer = {{"address", "10.0.0.1"},
                         {"cutsOff", false},
                         {"rules", {{{"whole", true}, {"intruder", "10.0.0.1"}}}},
                         {"protectedBy", nullptr}};
    EXPECT_EQ("10.0.0.1 would be cut off, by 1 rule", QuarantineVerdict(answer));
}

}  // namespace
}  // namespace tarnctl

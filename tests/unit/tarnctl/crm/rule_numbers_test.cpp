#include "tarnctl/crm/rule_numbers.h"

#include <gtest/gtest.h>

#include <utility>

namespace tarnctl {
namespace {

TEST(NumbersOfRuleTest, AreThoseOfTheOptions) {
    const auto numbers = [](std::string_view rule) {
        const RuleNumbers found = NumbersOfRule(rule);
        return std::pair(found.generator, found.revision);
    };
    const auto pair = [](uint32_t generator, uint32_t revision) {
        return std::pair(generator, revision);
    };
    EXPECT_EQ(pair(1, 0), numbers(""));
    EXPECT_EQ(pair(1, 0), numbers("rule"));
    EXPECT_EQ(pair(116, 7), numbers("alert ( gid:116; sid:5;rev: 7; )"));
    EXPECT_EQ(pair(3, 12), numbers("alert (rev :12 ;gid : 3;)"));
    EXPECT_EQ(pair(1, 2), numbers(R"(alert (msg:"x; rev:9; gid:4;"; rev:2;))"));
    EXPECT_EQ(pair(1, 2), numbers(R"(alert (msg:"x\"; rev:9;"; rev:2;))"));
    EXPECT_EQ(pair(1, 0), numbers("alert (rev; revision:4; content:rev:5; gid:x;)"));
    EXPECT_EQ(pair(1, 0), numbers("rev:5;"));
    EXPECT_EQ(pair(1, 0), numbers("alert (rev:99999999999;)"));
}

}  // namespace
}  // namespace tarnctl

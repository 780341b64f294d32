#include "tarnctl/common/number_checks.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnctl {
namespace {

std::string Fault(const CLI::Validator& check, std::string word) {
    return check(word);
}

TEST(AboveZeroNumber, IsTold) {
    EXPECT_EQ("", Fault(AboveZero(), "0.5"));
    EXPECT_EQ("", Fault(AboveZero(), "3"));
    for (const char* const word : {"0", "-1", "soon", "", "1x", "inf", "nan"}) {
        EXPECT_EQ(std::string(word) + " is no number above 0", Fault(AboveZero(), word));
    }
}

TEST(ZeroOrMoreNumber, IsTold) {
    EXPECT_EQ("", Fault(ZeroOrMore(), "0"));
    EXPECT_EQ("-1 is no number of 0 or above", Fault(ZeroOrMore(), "-1"));
}

}  // namespace
}  // namespace tarnctl

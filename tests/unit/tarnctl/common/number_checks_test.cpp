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

TEST(NumberBetween, IsTold) {
    EXPECT_EQ("", Fault(Between(0.1, 60), "0.1"));
    EXPECT_EQ("", Fault(Between(0.1, 60), "60"));
    for (const char* const word : {"0", "60.5", "soon", "", "1x", "inf", "nan"}) {
        EXPECT_EQ(std::string(word) + " is no number from 0.1 to 60",
                  Fault(Between(0.1, 60), word));
    }
}

TEST(WholeNumberCheck, TakesBothEndsOfItsRange) {
    EXPECT_EQ("", Fault(WholeNumber(1, 255), "1"));
    EXPECT_EQ("", Fault(WholeNumber(1, 255), "255"));
    EXPECT_EQ("", Fault(WholeNumber(0, UINT32_MAX), "4294967295"));
}

TEST(WholeNumberCheck, NamesItsRangeForAnythingElse) {
    for (const char* const word : {"0", "065", "0x10", "256", "-1", "+1", "1.5", "1x", " 1", "",
                                   "soon", "4294967297", "1e2", "99999999999999999999"}) {
        EXPECT_EQ(std::string(word) + " is no whole number from 1 to 255",
                  Fault(WholeNumber(1, 255), word));
    }
}

}  // namespace
}  // namespace tarnctl

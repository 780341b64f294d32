#include "quarantine/quarantine_rule.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <utility>

#include "support/levelled_log.h"

namespace {

using testing::ElementsAre;

constexpr std::time_t kExpiration = 1794495600;  // 2026-11-12 15:00:00 UTC
const std::string kExpires = " expires 2026-11-12T15:00:00Z";

QuarantineRule RuleOf(int version, int protocol = 0) {
    QuarantineRule rule;
    EXPECT_EQ(0, rule.SetIpVersion(version));
    EXPECT_EQ(0, rule.SetExpiration(kExpiration));
    EXPECT_EQ(0, rule.SetProtocol(protocol));
    return rule;
}

// The text, or nothing when the rule cannot be written; out must then be untouched.
std::optional<std::string> TextOf(const QuarantineRule& rule) {
    std::string text = "untouched";
    const int result = rule.ToString(text);
    if (result != 0) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ("untouched", text);
        return std::nullopt;
    }
    return text;
}

// The time zone of the process, for one test.
class TimeZone {
  public:
    explicit TimeZone(const char* name) {
        setenv("TZ", name, 1);
        tzset();
    }
    ~TimeZone() {
        unsetenv("TZ");
        tzset();
    }
};

TEST(QuarantineRuleToString, WritesFamilyAndExpirationAloneForARuleWithNothingElse) {
    EXPECT_EQ("ip" + kExpires, TextOf(RuleOf(4)));
    EXPECT_EQ("ipv6" + kExpires, TextOf(RuleOf(6)));
}

TEST(QuarantineRuleToString, WritesATcpRuleOfAnIntruder) {
    QuarantineRule rule = RuleOf(4, 6);
    rule.SetIntruderAddress("10.0.0.1");
    EXPECT_EQ("ip intruder addr 10.0.0.1 tcp src port 0 dst port 0 expires 2026-11-12T15:00:00Z",
              TextOf(rule));
}

TEST(QuarantineRuleToString, WritesAnIcmpv6RuleOfAVictimWithARateLimit) {
    QuarantineRule rule = RuleOf(6, 58);
    rule.SetVictimAddress(std::string("2001:db8::1"));
    rule.SetIcmpType(128);
    rule.SetIcmpCode(0);
    rule.SetCounter(100);
    EXPECT_EQ(
        "ipv6 victim addr 2001:db8::1 icmpv6 type 128 code 0 counter 100b"
        " expires 2026-11-12T15:00:00Z",
        TextOf(rule));
}

TEST(QuarantineRuleToString, WritesAUdpRuleOfBothAddressesAndPorts) {
    QuarantineRule rule = RuleOf(4, 17);
    rule.SetIntruderAddress("10.0.0.1");
    rule.SetVictimAddress("10.0.0.2");
    rule.SetSourcePort(53);
    rule.SetDestinationPort(1025);
    EXPECT_EQ(
        "ip intruder addr 10.0.0.1 victim addr 10.0.0.2 udp src port 53 dst port 1025"
        " expires 2026-11-12T15:00:00Z",
        TextOf(rule));
}

TEST(QuarantineRuleToString, KeepsPortsThatWereNeverSetAsZero) {
    EXPECT_EQ("ip tcp src port 0 dst port 0" + kExpires, TextOf(RuleOf(4, 6)));
    EXPECT_EQ("ipv6 udp src port 0 dst port 0" + kExpires, TextOf(RuleOf(6, 17)));
}

TEST(QuarantineRuleToString, WritesIcmpFieldsUpTo255AndNoneAbove) {
    struct Case {
        uint16_t value;
        bool isWritten;
    };
    for (const Case& field : {Case{0, true}, {255, true}, {256, false}, {0xFFFF, false}}) {
        const std::string number = std::to_string(field.value);
        QuarantineRule typed = RuleOf(4, 1);
        typed.SetIcmpType(field.value);
        EXPECT_EQ("ip icmp" + (field.isWritten ? " type " + number : "") + kExpires, TextOf(typed));
        QuarantineRule coded = RuleOf(4, 1);
        coded.SetIcmpCode(field.value);
        EXPECT_EQ("ip icmp" + (field.isWritten ? " code " + number : "") + kExpires, TextOf(coded));
    }
}

TEST(QuarantineRuleToString, WritesNoPortsWithIcmpAndNoIcmpFieldsWithTcp) {
    QuarantineRule rule = RuleOf(4, 1);
    rule.SetSourcePort(1);
    rule.SetDestinationPort(2);
    rule.SetIcmpType(3);
    EXPECT_EQ("ip icmp type 3" + kExpires, TextOf(rule));
    rule.SetProtocol(6);
    EXPECT_EQ("ip tcp src port 1 dst port 2" + kExpires, TextOf(rule));
}

TEST(QuarantineRuleToString, WritesTheCounterWithItsLetterRightAfterIt) {
    QuarantineRule rule = RuleOf(4);
    rule.SetCounter(5);
    EXPECT_EQ("ip counter 5b" + kExpires, TextOf(rule));
    rule.SetCounter(std::numeric_limits<uint32_t>::max());
    EXPECT_EQ("ip counter 4294967295b" + kExpires, TextOf(rule));
}

TEST(QuarantineRuleToString, GivesTheSameTextTwice) {
    QuarantineRule rule = RuleOf(6, 17);
    rule.SetIntruderAddress("::1");
    const auto first = TextOf(rule);
    EXPECT_EQ(first, TextOf(rule));
}

TEST(QuarantineRuleToString, GivesTheExpirationInUtcWhateverTheTimeZone) {
    const TimeZone zone("XYZ-09:30");
    EXPECT_EQ("ip" + kExpires, TextOf(RuleOf(4)));
}

TEST(QuarantineRuleToString, LogsTheTextAtDebugLevel) {
    EXPECT_THAT(LevelledMessages([] { TextOf(RuleOf(4)); }),
                ElementsAre("5 Quarantine rule constructed: ip" + kExpires));
}

// Every protocol number there is, and some beyond, in both families, by the table's own words.
TEST(QuarantineRuleToString, WritesEveryProtocolInBothFamiliesAsTold) {
    for (const int version : {4, 6}) {
        const std::string family = version == 4 ? "ip" : "ipv6";
        for (int protocol = -1; protocol <= 300; ++protocol) {
            std::optional<std::string> piece;
            if (protocol == 0) {
                piece = "";
            } else if (protocol == 1) {
                piece = version == 4 ? std::optional(" icmp type 8 code 0") : std::nullopt;
            } else if (protocol == 58) {
                piece = version == 6 ? std::optional(" icmpv6 type 8 code 0") : std::nullopt;
            } else if (protocol == 6) {
                piece = " tcp src port 7 dst port 9";
            } else if (protocol == 17) {
                piece = " udp src port 7 dst port 9";
            } else {
                piece = " proto " + std::to_string(protocol);
            }
            QuarantineRule rule = RuleOf(version, protocol);
            rule.SetIcmpType(8);
            rule.SetIcmpCode(0);
            rule.SetSourcePort(7);
            rule.SetDestinationPort(9);
            const auto expected = piece ? std::optional(family + *piece + kExpires) : std::nullopt;
            EXPECT_EQ(expected, TextOf(rule)) << "version " << version << ", " << protocol;
        }
    }
}

// Whatever the parts, a text that comes out has the pieces in their order and nothing else.
TEST(QuarantineRuleToString, KeepsToItsGrammarForRandomParts) {
    const std::regex grammar(
        R"(ip(v6)?( intruder addr [0-9a-f.:]+)?( victim addr [0-9a-f.:]+)?)"
        R"(( (icmp|icmpv6)( type \d{1,3})?( code \d{1,3})?| (tcp|udp) src port \d+ dst port \d+)"
        R"(| proto -?\d+)?( counter [1-9]\d*b)? expires \d{4,}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
    std::mt19937 random(20261112);
    const auto upTo = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random() % (uint64_t{limit} + 1));
    };
    for (int round = 0; round < 2000; ++round) {
        const int version = upTo(1) == 0 ? 4 : 6;
        const int protocols[] = {0, 1, 6, 17, 58, static_cast<int>(upTo(255))};
        QuarantineRule rule = RuleOf(version, protocols[upTo(5)]);
        std::array<uint8_t, 16> ipv6{};
        ipv6[upTo(15)] = static_cast<uint8_t>(upTo(255));
        if (version == 4) {
            rule.SetIntruderAddress(in_addr_t{upTo(1) * upTo(0xFFFFFFFF)});
            rule.SetVictimAddress(in_addr_t{upTo(1) * upTo(0xFFFFFFFF)});
        } else {
            rule.SetIntruderAddress(ipv6);
            rule.SetVictimAddress(ipv6);
        }
        rule.SetIcmpType(static_cast<uint16_t>(upTo(300)));
        rule.SetIcmpCode(static_cast<uint16_t>(upTo(300)));
        rule.SetSourcePort(static_cast<uint16_t>(upTo(0xFFFF)));
        rule.SetDestinationPort(static_cast<uint16_t>(upTo(0xFFFF)));
        rule.SetCounter(upTo(1) * upTo(0xFFFFFFFF));
        EXPECT_EQ(0, rule.SetExpiration(1 + static_cast<std::time_t>(upTo(0xFFFFFFFE))));
        if (const auto text = TextOf(rule)) {
            EXPECT_TRUE(std::regex_match(*text, grammar)) << *text;
        }
    }
}

TEST(QuarantineRuleToString, LogsAnUnknownProtocolAndLetsTheRuleStand) {
    EXPECT_THAT(
        LevelledMessages([] { EXPECT_EQ("ip proto 47" + kExpires, TextOf(RuleOf(4, 47))); }),
        ElementsAre("3 Unrecognized protocol number 47.",
                    "5 Quarantine rule constructed: ip proto 47" + kExpires));
}

TEST(QuarantineRuleToString, LogsNothingOfAProtocolThatHasAName) {
    for (const auto& [version, protocol] :
         {std::pair{4, 1}, std::pair{6, 58}, std::pair{4, 6}, std::pair{4, 17}}) {
        const auto log =
            LevelledMessages([&, v = version, p = protocol] { EXPECT_TRUE(TextOf(RuleOf(v, p))); });
        ASSERT_EQ(1U, log.size()) << protocol;
        EXPECT_EQ('5', log[0].front());
    }
}

TEST(QuarantineRuleToString, RefusesARuleWithoutAnIpVersion) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule;
                    EXPECT_FALSE(TextOf(rule));
                    rule.SetProtocol(47);  // which is not looked at
                    EXPECT_FALSE(TextOf(rule));
                }),
                ElementsAre("1 Unable to produce quarantine rule for IP version 0.",
                            "1 Unable to produce quarantine rule for IP version 0."));
}

TEST(QuarantineRuleToString, RefusesIcmpOfTheOtherFamily) {
    EXPECT_THAT(LevelledMessages([] {
                    EXPECT_FALSE(TextOf(RuleOf(6, 1)));
                    EXPECT_FALSE(TextOf(RuleOf(4, 58)));
                }),
                ElementsAre("1 Invalid IP version (6) and protocol (1) combination.",
                            "1 Invalid IP version (4) and protocol (58) combination."));
}

TEST(QuarantineRuleToString, RefusesARuleThatNeverExpires) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule;
                    EXPECT_EQ(0, rule.SetIpVersion(4));
                    EXPECT_FALSE(TextOf(rule));
                }),
                ElementsAre("1 Quarantine rule must have an expiration time."));
}

TEST(QuarantineRuleToString, RefusesATimeWhoseYearIsBeyondTheCalendar) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule = RuleOf(4);
                    EXPECT_EQ(0, rule.SetExpiration(0x7FFFFFFF'00000005));
                    EXPECT_FALSE(TextOf(rule));
                }),
                ElementsAre("1 Invalid expiration time (5) for quarantine rule."));
}

// The checks come in the order of the pieces, so the protocol is complained of before the missing
// expiration is.
TEST(QuarantineRuleToString, NamesTheFirstFaultOfSeveral) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule;
                    rule.SetProtocol(58);
                    EXPECT_FALSE(TextOf(rule));
                    EXPECT_EQ(0, rule.SetIpVersion(4));
                    EXPECT_FALSE(TextOf(rule));
                    rule.SetProtocol(99);
                    EXPECT_FALSE(TextOf(rule));
                }),
                ElementsAre("1 Unable to produce quarantine rule for IP version 0.",
                            "1 Invalid IP version (4) and protocol (58) combination.",
                            "3 Unrecognized protocol number 99.",
                            "1 Quarantine rule must have an expiration time."));
}

TEST(QuarantineRuleSetIpVersion, RefusesAllBut4And6AndKeepsWhatItHad) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule = RuleOf(6);
                    EXPECT_EQ(-1, rule.SetIpVersion(5));
                    EXPECT_EQ(-1, rule.SetIpVersion(-4));
                    EXPECT_EQ("ipv6" + kExpires, TextOf(rule));
                }),
                ElementsAre("1 Invalid IP version: 5", "1 Invalid IP version: -4",
                            "5 Quarantine rule constructed: ipv6" + kExpires));
}

TEST(QuarantineRuleSetExpiration, RefusesZeroAndKeepsWhatItHad) {
    EXPECT_THAT(LevelledMessages([] {
                    QuarantineRule rule = RuleOf(4);
                    EXPECT_EQ(-1, rule.SetExpiration(0));
                    EXPECT_EQ("ip" + kExpires, TextOf(rule));
                }),
                ElementsAre("2 Expiration time must not be zero.",
                            "5 Quarantine rule constructed: ip" + kExpires));
}

TEST(QuarantineRuleSetAddress, TakesIpv4InNetworkOrderAndZeroAsNone) {
    QuarantineRule rule = RuleOf(4);
    EXPECT_EQ(0, rule.SetIntruderAddress(in_addr_t{htonl(0xC0000201)}));
    EXPECT_EQ(0, rule.SetVictimAddress(in_addr_t{htonl(0x0A000001)}));
    EXPECT_EQ("ip intruder addr 192.0.2.1 victim addr 10.0.0.1" + kExpires, TextOf(rule));
    EXPECT_EQ(0, rule.SetIntruderAddress(in_addr_t{0}));
    EXPECT_EQ(0, rule.SetVictimAddress(in_addr_t{0}));
    EXPECT_EQ("ip" + kExpires, TextOf(rule));
}

TEST(QuarantineRuleSetAddress, TakesIpv6BytesAndAllZeroAsNone) {
    QuarantineRule rule = RuleOf(6);
    const uint8_t loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const std::array<uint8_t, 16> other = {0x20, 0x01, 0x0d, 0xb8};
    const std::array<uint8_t, 16> none = {};
    EXPECT_EQ(0, rule.SetIntruderAddress(loopback));
    EXPECT_EQ(0, rule.SetVictimAddress(other));
    EXPECT_EQ("ipv6 intruder addr ::1 victim addr 2001:db8::" + kExpires, TextOf(rule));
    EXPECT_EQ(0, rule.SetIntruderAddress(none));
    EXPECT_EQ(0, rule.SetVictimAddress(none));
    EXPECT_EQ("ipv6" + kExpires, TextOf(rule));
}

TEST(QuarantineRuleSetAddress, StoresATextUnchangedAndAnEmptyOneAsNone) {
    QuarantineRule rule = RuleOf(4);
    EXPECT_EQ(0, rule.SetIntruderAddress("no address at all"));
    EXPECT_EQ(0, rule.SetVictimAddress(std::string("0.0.0.0")));
    EXPECT_EQ("ip intruder addr no address at all victim addr 0.0.0.0" + kExpires, TextOf(rule));
    EXPECT_EQ(0, rule.SetIntruderAddress(""));
    EXPECT_EQ(0, rule.SetVictimAddress(static_cast<const char*>(nullptr)));
    EXPECT_EQ("ip" + kExpires, TextOf(rule));
}

}  // namespace

#include "tarnctl/quarantine/never_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "support/temp_dir.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

TEST(NeverList, CoversAddressesAndNetworks) {
    NeverList list;
    ASSERT_EQ("", list.Add("10.1.0.0/16"));
    ASSERT_EQ("", list.Add("192.0.2.7"));
    ASSERT_EQ("", list.Add("2001:db8:8000::/33"));
    EXPECT_EQ("10.1.0.0/16", list.Covering("10.1.0.0"));
    EXPECT_EQ("10.1.0.0/16", list.Covering("10.1.255.255"));
    EXPECT_EQ("", list.Covering("10.2.0.0"));
    EXPECT_EQ("", list.Covering("10.0.255.255"));
    EXPECT_EQ("192.0.2.7", list.Covering("192.0.2.7"));
    EXPECT_EQ("", list.Covering("192.0.2.6"));
    EXPECT_EQ("2001:db8:8000::/33", list.Covering("2001:db8:8000::1"));
    EXPECT_EQ("", list.Covering("2001:db8:7fff::1"));
    EXPECT_EQ("", list.Covering("no address"));
}

TEST(NeverList, CoversAFamilyByAPrefixOfZeroAndNotTheOther) {
    NeverList list;
    ASSERT_EQ("", list.Add("0.0.0.0/0"));
    EXPECT_EQ("0.0.0.0/0", list.Covering("203.0.113.1"));
    EXPECT_EQ("", list.Covering("2001:db8::1"));
}

TEST(NeverList, RefusesWhatIsNoAddress) {
    for (const char* const text : {"", "host", "10.0.0", "10.0.0.1.2", "/8", "2001:db8::g"}) {
        EXPECT_THAT(NeverList().Add(text),
                    EndsWith("is no address and no network; write it as 10.0.0.1 or 10.0.0.0/24"))
            << text;
    }
    for (const char* const text :
         {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x", "10.0.0.0/-1", "2001:db8::/129"}) {
        EXPECT_THAT(NeverList().Add(text), HasSubstr("has no prefix length up to")) << text;
    }
    EXPECT_EQ("\"10.0.0.1/8\" has bits after its prefix; clear them or lengthen it",
              NeverList().Add("10.0.0.1/8"));
}

TEST(NeverListFile, TakesOneEntryALine) {
    const TempDir dir;
    NeverList list;
    ASSERT_EQ("", list.AddFile(
                      dir.Write("never", "# ours\n\n 10.0.0.1 \t# the gateway\r\n2001:db8::/32")));
    EXPECT_EQ("10.0.0.1", list.Covering("10.0.0.1"));
    EXPECT_EQ("2001:db8::/32", list.Covering("2001:db8::1"));
}

TEST(NeverListFile, TellsTheLineThatIsWrong) {
    const TempDir dir;
    const std::string path = dir.Write("never", "10.0.0.1\n10.0.0.x\n");
    EXPECT_EQ(NeverList().AddFile(path),
              path +
                  ", line 2: \"10.0.0.x\" is no address and no network; write it as 10.0.0.1 "
                  "or 10.0.0.0/24");
    EXPECT_THAT(NeverList().AddFile(dir.File("none")),
                EndsWith("No such file or directory; check the name"));
}

struct Protected {
    const char* address;
    const char* entry;
};

class NeverListAlways : public testing::TestWithParam<Protected> {};

TEST_P(NeverListAlways, CoversWhatHostsNeedToReachEachOther) {
    EXPECT_EQ(GetParam().entry, NeverList().Covering(GetParam().address));
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, NeverListAlways,
    testing::Values(Protected{"0.0.0.0", "0.0.0.0/8"}, Protected{"0.255.255.255", "0.0.0.0/8"},
                    Protected{"1.0.0.0", ""}, Protected{"127.1.2.3", "127.0.0.0/8"},
                    Protected{"126.255.255.255", ""}, Protected{"128.0.0.0", ""},
                    Protected{"169.254.0.0", "169.254.0.0/16"},
                    Protected{"169.254.255.255", "169.254.0.0/16"},
                    Protected{"169.253.255.255", ""}, Protected{"169.255.0.0", ""},
                    Protected{"224.0.0.1", "224.0.0.0/4"},
                    Protected{"239.255.255.255", "224.0.0.0/4"}, Protected{"223.255.255.255", ""},
                    Protected{"240.0.0.0", ""}, Protected{"255.255.255.255", "255.255.255.255"},
                    Protected{"255.255.255.254", ""}, Protected{"::", "::"},
                    Protected{"::1", "::1"}, Protected{"::2", ""},
                    Protected{"fe80::1", "fe80::/10"}, Protected{"febf:ffff::1", "fe80::/10"},
                    Protected{"fec0::1", ""}, Protected{"ff02::1:ff00:1", "ff00::/8"},
                    Protected{"feff::1", ""}, Protected{"2001:db8::1", ""}));

TEST(NeverListForms, CoverTheIpv4AddressThatTheyStandFor) {
    NeverList list;
    ASSERT_EQ("", list.Add("10.9.2.0/24"));
    for (const char* const address :
         {"::ffff:10.9.2.2", "64:ff9b::a09:202", "2002:a09:202::1", "2002:a09:2ff:ffff::"}) {
        EXPECT_EQ("10.9.2.0/24", list.Covering(address)) << address;
    }
    for (const char* const address : {"::ffff:10.9.3.2", "64:ff9b::a09:302", "2002:a09:302::1",
                                      "64:ff9b:1::a09:202", "2003:a09:202::1", "::a09:202"}) {
        EXPECT_EQ("", list.Covering(address)) << address;
    }
    EXPECT_EQ("224.0.0.0/4", list.Covering("::ffff:224.0.0.1"));
    EXPECT_EQ("127.0.0.0/8", list.Covering("64:ff9b::7f00:1"));
}

TEST(NeverListForms, ProtectTheIpv4AddressWhenTheyAreOnTheList) {
    NeverList list;
    ASSERT_EQ("", list.Add("::ffff:10.9.2.2"));
    ASSERT_EQ("", list.Add("2002:a09:300::/40"));
    EXPECT_EQ("::ffff:10.9.2.2", list.Covering("10.9.2.2"));
    EXPECT_EQ("::ffff:10.9.2.2", list.Covering("64:ff9b::a09:202"));
    EXPECT_EQ("2002:a09:300::/40", list.Covering("10.9.3.255"));
    EXPECT_EQ("", list.Covering("10.9.4.0"));
}

TEST(NeverListAddresses, AreNewOnce) {
    NeverList list;
    const size_t before = list.Size();
    EXPECT_TRUE(list.AddAddresses({"192.0.2.1", "192.0.2.2"}));
    EXPECT_FALSE(list.AddAddresses({"192.0.2.2", "192.0.2.1"}));
    EXPECT_FALSE(list.AddAddresses({}));
    EXPECT_EQ("192.0.2.1", list.Covering("192.0.2.1")) << "an address that has gone stays";
    EXPECT_EQ(before + 2, list.Size());
}

class Objection : public testing::Test {
  protected:
    Objection() {
        m_parts.intruder = "203.0.113.1";
        m_parts.expiration = kNow + 1;
        EXPECT_EQ("", m_never.Add("10.0.0.0/8"));
        EXPECT_EQ("", m_never.Add("10.9.9.9"));
        EXPECT_EQ("", m_never.Add("192.0.2.1"));
    }
    std::string Reason() const { return ObjectionTo(m_parts, m_never, kNow); }

    static constexpr time_t kNow = 1000;
    NeverList m_never;
    QuarantineParts m_parts;
};

TEST_F(Objection, IsNoneToARuleWithAForeignAddress) {
    EXPECT_EQ("", Reason());
}

TEST_F(Objection, IsToARuleWithoutAnAddress) {
    m_parts.intruder = "";
    EXPECT_EQ("names no address", Reason());
}

TEST_F(Objection, IsToAnEndThatHasCome) {
    m_parts.expiration = kNow;
    EXPECT_EQ("its end has come already", Reason());
}

TEST_F(Objection, IsToEitherAddressOnTheList) {
    m_parts.victim = "10.1.2.3";
    EXPECT_EQ("10.1.2.3 is never quarantined, as part of 10.0.0.0/8", Reason());
    m_parts.intruder = "192.0.2.1";
    EXPECT_EQ("192.0.2.1 is never quarantined", Reason());
}

TEST_F(Objection, IsToMessagesOfNeighbourDiscovery) {
    m_parts.ipVersion = 6;
    m_parts.intruder = "2001:db8::1";
    m_parts.protocol = IPPROTO_ICMPV6;
    for (const uint8_t type : std::array<uint8_t, 5>{133, 134, 135, 136, 137}) {
        m_parts.icmpType = type;
        EXPECT_EQ(
            "neighbour discovery (ICMPv6 type " + std::to_string(type) + ") is never quarantined",
            Reason());
    }
    for (const uint8_t type : std::array<uint8_t, 3>{128, 132, 138}) {
        m_parts.icmpType = type;
        EXPECT_EQ("", Reason());
    }
    m_parts.icmpType.reset();
    EXPECT_EQ("", Reason());
    m_parts.protocol = IPPROTO_ICMP;
    m_parts.icmpType = 135;
    EXPECT_EQ("", Reason()) << "ICMP of IPv4 has no such messages";
}

}  // namespace
}  // namespace tarnctl

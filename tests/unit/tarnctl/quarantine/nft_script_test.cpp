#include "tarnctl/quarantine/nft_script.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnctl {
namespace {

NftElement Translate(const std::string& text) {
    QuarantineParts parts;
    EXPECT_EQ("", ParseQuarantineText(text + " expires 2026-11-12T15:00:00Z", parts)) << text;
    return ToNftElement(parts);
}

struct Case {
    const char* text;
    NftElement element;
};

class NftTranslation : public testing::TestWithParam<Case> {};

TEST_P(NftTranslation, HoldsWhatTheRuleNames) {
    const NftElement element = Translate(GetParam().text);
    EXPECT_EQ(element.set, GetParam().element.set);
    EXPECT_EQ(element.key, GetParam().element.key);
    EXPECT_EQ(element.value, GetParam().element.value);
    EXPECT_EQ(element.limit, GetParam().element.limit);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, NftTranslation,
    testing::Values(Case{"ip intruder addr 10.0.0.1", {"ip_saddr", "ip saddr", "10.0.0.1", 0}},
                    Case{"ip victim addr 10.0.0.2", {"ip_daddr", "ip daddr", "10.0.0.2", 0}},
                    Case{"ipv6 intruder addr 2001:db8::1 victim addr 2001:db8::2",
                         {"ip6_saddr_daddr", "ip6 saddr . ip6 daddr", "2001:db8::1 . 2001:db8::2",
                          0}},
                    Case{"ip intruder addr 10.0.0.1 tcp src port 0 dst port 0",
                         {"ip_saddr_l4proto", "ip saddr . meta l4proto", "10.0.0.1 . 6", 0}},
                    Case{"ip intruder addr 10.0.0.1 udp src port 0 dst port 0",
                         {"ip_saddr_l4proto", "ip saddr . meta l4proto", "10.0.0.1 . 17", 0}},
                    Case{"ip intruder addr 10.0.0.1 tcp src port 1025 dst port 0",
                         {"ip_saddr_tcp_sport", "ip saddr . tcp sport", "10.0.0.1 . 1025", 0}},
                    Case{"ip intruder addr 10.0.0.1 udp src port 0 dst port 53",
                         {"ip_saddr_udp_dport", "ip saddr . udp dport", "10.0.0.1 . 53", 0}},
                    Case{"ipv6 victim addr 2001:db8::2 tcp src port 1 dst port 65535",
                         {"ip6_daddr_tcp_sport_tcp_dport", "ip6 daddr . tcp sport . tcp dport",
                          "2001:db8::2 . 1 . 65535", 0}},
                    Case{"ip intruder addr 10.0.0.1 icmp",
                         {"ip_saddr_l4proto", "ip saddr . meta l4proto", "10.0.0.1 . 1", 0}},
                    Case{"ip intruder addr 10.0.0.1 icmp type 8",
                         {"ip_saddr_icmp_type", "ip saddr . icmp type", "10.0.0.1 . 8", 0}},
                    Case{"ip intruder addr 10.0.0.1 icmp code 0",
                         {"ip_saddr_icmp_code", "ip saddr . icmp code", "10.0.0.1 . 0", 0}},
                    Case{"ipv6 intruder addr 2001:db8::1 icmpv6 type 128 code 0",
                         {"ip6_saddr_icmpv6_type_icmpv6_code",
                          "ip6 saddr . icmpv6 type . icmpv6 code", "2001:db8::1 . 128 . 0", 0}},
                    Case{"ipv6 intruder addr 2001:db8::1 icmpv6",
                         {"ip6_saddr_l4proto", "ip6 saddr . meta l4proto", "2001:db8::1 . 58", 0}},
                    Case{"ip intruder addr 10.0.0.1 proto 47",
                         {"ip_saddr_l4proto", "ip saddr . meta l4proto", "10.0.0.1 . 47", 0}},
                    Case{"ip intruder addr 10.0.0.1 counter 100b",
                         {"ip_saddr_100b", "ip saddr", "10.0.0.1", 100}}));

constexpr const char* kStructure = R"(table inet tarn {
    chain quarantine {
    }
    chain prerouting {
        type filter hook prerouting priority raw; policy accept;
    }
    chain output {
        type filter hook output priority raw; policy accept;
    }
}
flush table inet tarn
add rule inet tarn prerouting jump quarantine
add rule inet tarn output jump quarantine
)";

TEST(NftScript, MakesAFreshTableAtBothHooks) {
    EXPECT_EQ(std::string("add table inet tarn\ndelete table inet tarn\n") + kStructure,
              NftFreshTable());
    EXPECT_EQ("add table inet tarn\ndelete table inet tarn\n", NftNoTable());
}

TEST(NftScript, MendsTheTableWithEachSet) {
    const NftElement one = Translate("ip intruder addr 10.0.0.1");
    const NftElement two = Translate("ip victim addr 10.0.0.1 counter 7b");
    EXPECT_EQ(kStructure + NftAddSet(two) + NftAddSet(one),
              NftMendedTable({{one.set, one}, {two.set, two}}));
}

TEST(NftScript, AsksForAnElementAndForTables) {
    EXPECT_EQ("get element inet tarn ip_saddr { 10.0.0.1 }\n",
              NftGetElement(Translate("ip intruder addr 10.0.0.1")));
    EXPECT_EQ("list tables\n", NftListTables());
    EXPECT_EQ("list table inet tarn\n", NftListTable());
}

TEST(NftScript, TakesAnElementOutWhetherItIsThereOrNot) {
    EXPECT_EQ(
        "add element inet tarn ip_saddr { 10.0.0.1 }\n"
        "delete element inet tarn ip_saddr { 10.0.0.1 }\n",
        NftRemoveElement(Translate("ip intruder addr 10.0.0.1")));
}

TEST(NftScript, AddsASetAndItsRule) {
    EXPECT_EQ(
        "add set inet tarn ip_saddr_tcp_dport { typeof ip saddr . tcp dport; flags timeout; "
        "counter; }\n"
        "add rule inet tarn quarantine ip saddr . tcp dport @ip_saddr_tcp_dport drop\n",
        NftAddSet(Translate("ip intruder addr 10.0.0.1 tcp src port 0 dst port 80")));
}

TEST(NftScript, GivesEachElementOfASetALimitOfItsOwn) {
    EXPECT_EQ(
        "add set inet tarn ip_daddr_7b { typeof ip daddr; flags timeout; "
        "limit rate over 7 bytes/second; }\n"
        "add rule inet tarn quarantine ip daddr @ip_daddr_7b drop\n",
        NftAddSet(Translate("ip victim addr 10.0.0.1 counter 7b")));
}

TEST(NftScript, PutsAnElementInAnewWithItsTimeout) {
    EXPECT_EQ(
        "add element inet tarn ip_saddr { 10.0.0.1 }\n"
        "delete element inet tarn ip_saddr { 10.0.0.1 }\n"
        "add element inet tarn ip_saddr { 10.0.0.1 timeout 1d600s }\n",
        NftAddElement(Translate("ip intruder addr 10.0.0.1"), 86400 + 600));
}

TEST(NftScript, KeepsATimeoutWithinWhatNftTakes) {
    const NftElement element = Translate("ip intruder addr 10.0.0.1");
    EXPECT_NE(std::string::npos, NftAddElement(element, 0).find("timeout 0d1s"));
    EXPECT_NE(std::string::npos, NftAddElement(element, INT64_MAX).find("timeout 36500d0s"));
}

TEST(NftScript, PutsManyElementsOfASetInAtOnce) {
    const NftElement one = Translate("ip intruder addr 10.0.0.1");
    const NftElement two = Translate("ip intruder addr 10.0.0.2");
    EXPECT_EQ("", NftAddElements({}));
    EXPECT_EQ("add element inet tarn ip_saddr { 10.0.0.1 timeout 0d5s, 10.0.0.2 timeout 1d0s }\n",
              NftAddElements({{one, 5}, {two, 86400}}));
}

TEST(NftScript, HasATableForEachFamilyThatTheHooksNeed) {
    EXPECT_EQ((std::vector<std::string>{"inet"}), NftFamilies(kUsualHooks));
    EXPECT_EQ((std::vector<std::string>{"bridge"}), NftFamilies({NftHook::kBridge}));
    EXPECT_EQ((std::vector<std::string>{"inet", "bridge"}),
              NftFamilies({NftHook::kBridge, NftHook::kForward}));
    EXPECT_EQ(R"(table inet tarn {
    chain quarantine {
    }
    chain input {
        type filter hook input priority raw; policy accept;
    }
    chain forward {
        type filter hook forward priority raw; policy accept;
    }
}
flush table inet tarn
add rule inet tarn input jump quarantine
add rule inet tarn forward jump quarantine
table bridge tarn {
    chain quarantine {
    }
    chain forward {
        type filter hook forward priority -300; policy accept;
    }
}
flush table bridge tarn
add rule bridge tarn forward jump quarantine
)",
              NftMendedTable({}, {NftHook::kBridge, NftHook::kForward, NftHook::kInput}));
}

TEST(NftScript, PutsEachElementIntoEachTable) {
    const NftHooks hooks = {NftHook::kBridge, NftHook::kInput};
    const NftElement element = Translate("ip intruder addr 10.0.0.1");
    EXPECT_EQ(
        "add element inet tarn ip_saddr { 10.0.0.1 }\n"
        "delete element inet tarn ip_saddr { 10.0.0.1 }\n"
        "add element bridge tarn ip_saddr { 10.0.0.1 }\n"
        "delete element bridge tarn ip_saddr { 10.0.0.1 }\n"
        "add element inet tarn ip_saddr { 10.0.0.1 timeout 0d5s }\n"
        "add element bridge tarn ip_saddr { 10.0.0.1 timeout 0d5s }\n",
        NftAddElement(element, 5, hooks));
    EXPECT_EQ(
        "get element inet tarn ip_saddr { 10.0.0.1 }\n"
        "get element bridge tarn ip_saddr { 10.0.0.1 }\n",
        NftGetElement(element, hooks));
    EXPECT_EQ(
        "add set inet tarn ip_saddr { typeof ip saddr; flags timeout; counter; }\n"
        "add rule inet tarn quarantine ip saddr @ip_saddr drop\n"
        "add set bridge tarn ip_saddr { typeof ip saddr; flags timeout; counter; }\n"
        "add rule bridge tarn quarantine ip saddr @ip_saddr drop\n",
        NftAddSet(element, hooks));
}

}  // namespace
}  // namespace tarnctl

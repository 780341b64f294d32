#include "quarantine/address_text.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>

namespace {

std::string TextOf(std::array<uint8_t, 16> bytes) {
    return Ipv6Text(bytes);
}

TEST(AddressText, TakesAnIpv4AddressInNetworkOrder) {
    EXPECT_EQ("10.0.0.1", Ipv4Text(htonl(0x0A000001)));
    EXPECT_EQ("0.0.0.0", Ipv4Text(0));
    EXPECT_EQ("255.255.255.255", Ipv4Text(0xFFFFFFFF));
}

TEST(AddressText, GivesTheShortestFormOfAnIpv6Address) {
    EXPECT_EQ("::", TextOf({}));
    EXPECT_EQ("2001:db8::1", TextOf({0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ("::ffff:10.0.0.1", TextOf({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 10, 0, 0, 1}));
}

TEST(AddressText, HoldsTheLongestAddress) {
    std::array<uint8_t, 16> all;
    all.fill(0xFF);
    EXPECT_EQ("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", TextOf(all));
}

}  // namespace

#include "tarnctl/common/protocol_name.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

namespace tarnctl {
namespace {

TEST(ProtocolNameOf, IsAWordForTheFourOfTheDaemon) {
    EXPECT_EQ("TCP", ProtocolName(IPPROTO_TCP));
    EXPECT_EQ("UDP", ProtocolName(IPPROTO_UDP));
    EXPECT_EQ("ICMP", ProtocolName(IPPROTO_ICMP));
    EXPECT_EQ("ICMPv6", ProtocolName(IPPROTO_ICMPV6));
}

TEST(ProtocolNameOf, IsTheNumberForAnyOther) {
    EXPECT_EQ("protocol 0", ProtocolName(0));
    EXPECT_EQ("protocol 47", ProtocolName(IPPROTO_GRE));
    EXPECT_EQ("protocol 65535", ProtocolName(UINT16_MAX));
}

}  // namespace
}  // namespace tarnctl

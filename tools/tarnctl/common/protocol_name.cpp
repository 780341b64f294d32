#include "tarnctl/common/protocol_name.h"

#include <netinet/in.h>

namespace tarnctl {

std::string ProtocolName(uint16_t protocol) {
    switch (protocol) {
        case IPPROTO_TCP:
            return "TCP";
        case IPPROTO_UDP:
            return "UDP";
        case IPPROTO_ICMP:
            return "ICMP";
        case IPPROTO_ICMPV6:
            return "ICMPv6";
        default:
            return "protocol " + std::to_string(protocol);
    }
}

}  // namespace tarnctl

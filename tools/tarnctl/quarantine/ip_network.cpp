#include "tarnctl/quarantine/ip_network.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

constexpr unsigned kIpv4Bits = 32;
constexpr unsigned kIpv6Bits = 128;
constexpr unsigned kBitsPerByte = 8;

bool BitAt(const IpAddress& address, unsigned place) {
    const unsigned shift = kBitsPerByte - 1 - place % kBitsPerByte;
    return (address.bytes[place / kBitsPerByte] >> shift & 1U) != 0;
}

// Forms of IPv6 addresses that hold an IPv4 address: the bits in front of it, and how many.
struct EmbeddingForm {
    std::array<uint8_t, 12> front;
    unsigned bits;
};

constexpr std::array<EmbeddingForm, 3> kEmbeddingForms = {{
    {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF}, 96},     // mapped
    {{0, 0x64, 0xFF, 0x9B, 0, 0, 0, 0, 0, 0, 0, 0}, 96},  // NAT64
    {{0x20, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 16},     // 6to4
}};

}  // namespace

unsigned BitsOf(int family) {
    return family == AF_INET ? kIpv4Bits : kIpv6Bits;
}

std::optional<IpAddress> ParseIpAddress(const std::string& text) {
    for (const int family : {AF_INET, AF_INET6}) {
        IpAddress address{.family = family};
        if (inet_pton(family, text.c_str(), address.bytes.data()) == 1) {
            return address;
        }
    }
    return std::nullopt;
}

std::string ParseIpNetwork(const std::string& text, IpNetwork& network) {
    const size_t slash = text.find('/');
    const std::optional<IpAddress> base = ParseIpAddress(text.substr(0, slash));
    if (!base) {
        return "\"" + ForTerminal(text) +
               "\" is no address and no network; write it as 10.0.0.1 or 10.0.0.0/24";
    }
    const unsigned bits = BitsOf(base->family);
    unsigned prefix = bits;
    if (slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, prefix);
        if (error != std::errc() || rest != end || prefix > bits) {
            return "\"" + ForTerminal(text) + "\" has no prefix length up to " +
                   std::to_string(bits);
        }
    }
    for (unsigned place = prefix; place < bits; ++place) {
        if (BitAt(*base, place)) {
            return "\"" + text + "\" has bits after its prefix; clear them or lengthen it";
        }
    }
    network = {*base, prefix};
    return "";
}

bool Contains(const IpNetwork& network, const IpAddress& address) {
    if (network.base.family != address.family) {
        return false;
    }
    for (unsigned place = 0; place < network.prefix; ++place) {
        if (BitAt(network.base, place) != BitAt(address, place)) {
            return false;
        }
    }
    return true;
}

std::optional<IpNetwork> EmbeddedIpv4(const IpNetwork& network) {
    if (network.base.family != AF_INET6) {
        return std::nullopt;
    }
    for (const EmbeddingForm& form : kEmbeddingForms) {
        IpNetwork front{.base = {.family = AF_INET6}, .prefix = form.bits};
        std::copy(form.front.begin(), form.front.end(), front.base.bytes.begin());
        if (network.prefix < form.bits || !Contains(front, network.base)) {
            continue;
        }
        IpNetwork embedded{.base = {.family = AF_INET},
                           .prefix = std::min(network.prefix - form.bits, kIpv4Bits)};
        const auto* const first = network.base.bytes.begin() + form.bits / kBitsPerByte;
        std::copy_n(first, sizeof(in_addr), embedded.base.bytes.begin());
        return embedded;
    }
    return std::nullopt;
}

}  // namespace tarnctl

#include "tarnctl/quarantine/host_addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

#include "quarantine/address_text.h"

namespace tarnctl {
namespace {

in_addr_t Ipv4Of(const sockaddr* address) {
    return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
}

// The last address of a network of two is a host.
constexpr uint32_t kFewestHostBits = 3;

// The one that follows from the netmask counts even where the interface was given another.
void AddBroadcasts(const ifaddrs& entry, std::vector<std::string>& texts) {
    if ((entry.ifa_flags & IFF_BROADCAST) == 0) {
        return;
    }
    if (entry.ifa_broadaddr != nullptr && entry.ifa_broadaddr->sa_family == AF_INET) {
        texts.push_back(Ipv4Text(Ipv4Of(entry.ifa_broadaddr)));
    }
    if (entry.ifa_netmask == nullptr) {
        return;
    }
    const in_addr_t hostBits = ~Ipv4Of(entry.ifa_netmask);
    if (ntohl(hostBits) >= kFewestHostBits) {
        texts.push_back(Ipv4Text(Ipv4Of(entry.ifa_addr) | hostBits));
    }
}

int OpenWatch() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (fd != -1 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::vector<std::string> HostAddresses() {
    std::vector<std::string> texts;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return texts;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr) {
            continue;
        }
        if (entry->ifa_addr->sa_family == AF_INET) {
            texts.push_back(Ipv4Text(Ipv4Of(entry->ifa_addr)));
            AddBroadcasts(*entry, texts);
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            const auto* const address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
            texts.push_back(Ipv6Text(std::to_array(address->sin6_addr.s6_addr)));
        }
    }
    return texts;
}

AddressWatch::AddressWatch() : m_socket(OpenWatch()) {}

AddressWatch::~AddressWatch() {
    if (m_socket != -1) {
        close(m_socket);
    }
}

// What a message says is read from the interfaces anyway, so that only its kind matters here. When
// the kernel had to drop messages (ENOBUFS), any may have been among them.
bool AddressWatch::HasNews() const {
    if (m_socket == -1) {
        return true;
    }
    bool hasNews = false;
    std::array<char, 16384> bytes = {};
    for (;;) {
        const ssize_t length = recv(m_socket, bytes.data(), bytes.size(), 0);
        if (length == 0 || (length < 0 && errno != ENOBUFS)) {
            return hasNews;
        }
        hasNews = true;
    }
}

}  // namespace tarnctl

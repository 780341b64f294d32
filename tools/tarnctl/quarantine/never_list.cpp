#include "tarnctl/quarantine/never_list.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <memory>

#include "tarnctl/common/failure_text.h"
#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using AddressBytes = std::array<uint8_t, sizeof(in6_addr)>;

// The family of an address, or AF_UNSPEC for a text that is none.
int ParseAddress(const std::string& text, AddressBytes& bytes) {
    bytes = {};
    for (const int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, text.c_str(), bytes.data()) == 1) {
            return family;
        }
    }
    return AF_UNSPEC;
}

unsigned BitsOf(int family) {
    return family == AF_INET ? 32U : 128U;
}

bool BitAt(const AddressBytes& bytes, unsigned place) {
    return (bytes[place / 8] >> (7U - place % 8) & 1U) != 0;
}

bool AgreeUpTo(unsigned prefix, const AddressBytes& one, const AddressBytes& other) {
    for (unsigned place = 0; place < prefix; ++place) {
        if (BitAt(one, place) != BitAt(other, place)) {
            return false;
        }
    }
    return true;
}

std::string Trimmed(const std::string& line) {
    const std::string text = line.substr(0, line.find('#'));
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::string NeverList::Add(const std::string& text) {
    const std::size_t slash = text.find('/');
    Network network = {AF_UNSPEC, {}, 0, text};
    network.family = ParseAddress(text.substr(0, slash), network.bytes);
    if (network.family == AF_UNSPEC) {
        return "\"" + ForTerminal(text) +
               "\" is no address and no network; write it as 10.0.0.1 or 10.0.0.0/24";
    }
    const unsigned bits = BitsOf(network.family);
    network.prefix = bits;
    if (slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, network.prefix);
        if (error != std::errc() || rest != end || network.prefix > bits) {
            return "\"" + ForTerminal(text) + "\" has no prefix length up to " +
                   std::to_string(bits);
        }
    }
    for (unsigned place = network.prefix; place < bits; ++place) {
        if (BitAt(network.bytes, place)) {
            return "\"" + text + "\" has bits behind its prefix; clear them or lengthen it";
        }
    }
    const auto isSame = [&](const Network& known) { return known.text == text; };
    if (std::none_of(m_networks.begin(), m_networks.end(), isSame)) {
        m_networks.push_back(std::move(network));
    }
    return "";
}

std::string NeverList::AddFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        return FailureText(path, errno);
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        const std::string entry = Trimmed(line);
        std::string reason = entry.empty() ? "" : Add(entry);
        if (!reason.empty()) {
            return reason.insert(0, path + ", line " + std::to_string(number) + ": ");
        }
    }
    return file.bad() ? path + ": cannot be read; name a file with one address or network a line"
                      : "";
}

void NeverList::AddHostAddresses() {
    (void)Add("127.0.0.0/8");  // both are well formed
    (void)Add("::1");
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr) {
            continue;
        }
        const int family = entry->ifa_addr->sa_family;
        const void* address = nullptr;
        if (family == AF_INET) {
            address = &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
        } else if (family == AF_INET6) {
            address = &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr;
        } else {
            continue;
        }
        std::array<char, INET6_ADDRSTRLEN> text = {};
        if (inet_ntop(family, address, text.data(), text.size()) != nullptr) {
            (void)Add(text.data());  // inet_ntop writes what Add reads
        }
    }
}

std::string NeverList::Covering(const std::string& address) const {
    AddressBytes bytes = {};
    const int family = ParseAddress(address, bytes);
    for (const Network& network : m_networks) {
        if (network.family == family && AgreeUpTo(network.prefix, network.bytes, bytes)) {
            return network.text;
        }
    }
    return "";
}

std::string ObjectionTo(const QuarantineParts& parts, const NeverList& never, time_t now) {
    if (parts.intruder.empty() && parts.victim.empty()) {
        return "names no address";
    }
    if (parts.expiration <= now) {
        return "its end has come already";
    }
    for (const std::string& address : {parts.intruder, parts.victim}) {
        const std::string entry = address.empty() ? "" : never.Covering(address);
        if (!entry.empty()) {
            return address + " is never quarantined" +
                   (entry == address ? "" : ", as part of " + entry);
        }
    }
    return "";
}

}  // namespace tarnctl

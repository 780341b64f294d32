#include "tarnctl/quarantine/never_list.h"

#include <netinet/icmp6.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <optional>
#include <utility>

#include "tarnctl/common/read_error.h"

namespace tarnctl {
namespace {

constexpr std::array<std::pair<const char*, const char*>, 9> kAlways = {{
    {"0.0.0.0/8", "this network"},
    {"127.0.0.0/8", "loopback"},
    {"169.254.0.0/16", "link-local"},
    {"224.0.0.0/4", "multicast"},
    {"255.255.255.255", "broadcast"},
    {"::", "unspecified"},
    {"::1", "loopback"},
    {"fe80::/10", "link-local"},
    {"ff00::/8", "multicast"},
}};

std::string Trimmed(const std::string& line) {
    const std::string text = line.substr(0, line.find('#'));
    const size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// By these messages neighbours and routers of a link find each other.
bool IsNeighbourDiscovery(const QuarantineParts& parts) {
    return parts.protocol == IPPROTO_ICMPV6 && parts.icmpType >= ND_ROUTER_SOLICIT &&
           parts.icmpType <= ND_REDIRECT;
}

}  // namespace

NeverList::NeverList() {
    for (const auto& [text, meaning] : kAlways) {
        (void)Add(text, std::string("always: ") + meaning);  // all are well formed
    }
}

std::string NeverList::Add(const std::string& text, const std::string& source) {
    if (m_texts.contains(text)) {
        return "";
    }
    IpNetwork network;
    std::string reason = ParseIpNetwork(text, network);
    if (!reason.empty()) {
        return reason;
    }
    m_texts.insert(text);
    m_entries.push_back({network, text, source});
    const std::optional<IpNetwork> embedded = EmbeddedIpv4(network);
    if (embedded) {
        m_entries.push_back({*embedded, text, source});
    }
    return "";
}

std::string NeverList::AddFile(const std::string& path) {
    if (const int error = ReadError(path); error != 0) {
        return ReadFailureText(path, error);
    }
    std::ifstream file(path);
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        const std::string entry = Trimmed(line);
        const std::string place = path + ", line " + std::to_string(number);
        std::string reason = entry.empty() ? "" : Add(entry, place);
        if (!reason.empty()) {
            return reason.insert(0, place + ": ");
        }
    }
    return file.bad() ? path + ": cannot be read; name a file with one address or network per line"
                      : "";
}

bool NeverList::AddAddresses(const std::vector<std::string>& addresses) {
    const size_t before = m_entries.size();
    for (const std::string& address : addresses) {
        (void)Add(address, "an address of this host");  // the system's addresses are well formed
    }
    return m_entries.size() != before;
}

NeverCover NeverList::CoverOf(const std::string& address) const {
    const std::optional<IpAddress> parsed = ParseIpAddress(address);
    if (!parsed) {
        return {};
    }
    NeverCover cover = CoveringOne(*parsed);
    const std::optional<IpNetwork> embedded = EmbeddedIpv4({*parsed, BitsOf(parsed->family)});
    return cover.entry.empty() && embedded ? CoveringOne(embedded->base) : cover;
}

NeverCover NeverList::CoveringOne(const IpAddress& address) const {
    const auto entry = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& known) {
        return Contains(known.network, address);
    });
    return entry == m_entries.end() ? NeverCover() : NeverCover{entry->text, entry->source};
}

std::string ProtectionFrom(const QuarantineParts& parts, const NeverList& never) {
    for (const std::string& address : {parts.intruder, parts.victim}) {
        const std::string entry = address.empty() ? "" : never.Covering(address);
        if (!entry.empty()) {
            return address + " is never quarantined" +
                   (entry == address ? "" : ", as part of " + entry);
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
    if (IsNeighbourDiscovery(parts)) {
        return "neighbour discovery (ICMPv6 type " + std::to_string(*parts.icmpType) +
               ") is never quarantined";
    }
    return ProtectionFrom(parts, never);
}

}  // namespace tarnctl

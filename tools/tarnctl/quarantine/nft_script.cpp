#include "tarnctl/quarantine/nft_script.h"

#include <netinet/in.h>

#include <algorithm>

namespace tarnctl {
namespace {

constexpr int64_t kSecondsADay = 86400;
constexpr int64_t kLongestDays = 36500;  // a hundred years; what is longer ends then

// A field that a rule names.
void AddField(NftElement& element, const std::string& name, const std::string& key,
              const std::string& value) {
    element.set += "_" + name;
    element.key += (element.key.empty() ? "" : " . ") + key;
    element.value += (element.value.empty() ? "" : " . ") + value;
}

// "tcp dport" names both the protocol and the field, so the protocol alone is a field only where
// nothing else names it.
void AddProtocol(NftElement& element, int number) {
    AddField(element, "l4proto", "meta l4proto", std::to_string(number));
}

void AddPorts(NftElement& element, const char* protocol, const QuarantineParts& parts) {
    const std::string name(protocol);
    if (parts.sourcePort != 0) {
        AddField(element, name + "_sport", name + " sport", std::to_string(parts.sourcePort));
    }
    if (parts.destinationPort != 0) {
        AddField(element, name + "_dport", name + " dport", std::to_string(parts.destinationPort));
    }
    if (parts.sourcePort == 0 && parts.destinationPort == 0) {
        AddProtocol(element, parts.protocol);
    }
}

void AddIcmp(NftElement& element, const char* protocol, const QuarantineParts& parts) {
    const std::string name(protocol);
    if (parts.icmpType) {
        AddField(element, name + "_type", name + " type", std::to_string(*parts.icmpType));
    }
    if (parts.icmpCode) {
        AddField(element, name + "_code", name + " code", std::to_string(*parts.icmpCode));
    }
    if (!parts.icmpType && !parts.icmpCode) {
        AddProtocol(element, parts.protocol);
    }
}

std::string ElementPlace(const NftElement& element) {
    return " element inet tarn " + element.set + " { " + element.value;
}

// nft reads at most eight digits, which as seconds are three years.
std::string TimeoutText(int64_t seconds) {
    const int64_t left = std::clamp<int64_t>(seconds, 1, kLongestDays * kSecondsADay);
    return " timeout " + std::to_string(left / kSecondsADay) + "d" +
           std::to_string(left % kSecondsADay) + "s";
}

}  // namespace

NftElement ToNftElement(const QuarantineParts& parts) {
    const std::string family = parts.ipVersion == 4 ? "ip" : "ip6";
    NftElement element{.set = family, .key = "", .value = "", .limit = parts.counter};
    if (!parts.intruder.empty()) {
        AddField(element, "saddr", family + " saddr", parts.intruder);
    }
    if (!parts.victim.empty()) {
        AddField(element, "daddr", family + " daddr", parts.victim);
    }
    switch (parts.protocol) {
        case 0:
            break;
        case IPPROTO_TCP:
            AddPorts(element, "tcp", parts);
            break;
        case IPPROTO_UDP:
            AddPorts(element, "udp", parts);
            break;
        case IPPROTO_ICMP:
            AddIcmp(element, "icmp", parts);
            break;
        case IPPROTO_ICMPV6:
            AddIcmp(element, "icmpv6", parts);
            break;
        default:
            AddProtocol(element, parts.protocol);
            break;
    }
    if (element.limit != 0) {
        element.set += "_" + std::to_string(element.limit) + "b";
    }
    return element;
}

// A table must be there to be deleted, so it is added first; all of a script happens at once.
std::string NftNoTable() {
    return "add table inet tarn\n"
           "delete table inet tarn\n";
}

std::string NftFreshTable() {
    return NftNoTable() + NftMendedTable({});
}

// What is there already is added without effect. Only rules would be there twice, so that all are
// taken out first.
std::string NftMendedTable(const NftSets& sets) {
    std::string script =
        "table inet tarn {\n"
        "    chain quarantine {\n"
        "    }\n"
        "    chain prerouting {\n"
        "        type filter hook prerouting priority raw; policy accept;\n"
        "    }\n"
        "    chain output {\n"
        "        type filter hook output priority raw; policy accept;\n"
        "    }\n"
        "}\n"
        "flush table inet tarn\n"
        "add rule inet tarn prerouting jump quarantine\n"
        "add rule inet tarn output jump quarantine\n";
    for (const auto& [name, element] : sets) {
        script += NftAddSet(element);
    }
    return script;
}

std::string NftAddSet(const NftElement& element) {
    const std::string limit =
        element.limit == 0 ? " counter;"
                           : " limit rate over " + std::to_string(element.limit) + " bytes/second;";
    return "add set inet tarn " + element.set + " { typeof " + element.key + "; flags timeout;" +
           limit + " }\n" +  //
           "add rule inet tarn quarantine " + element.key + " @" + element.set + " drop\n";
}

// The kernel leaves the timeout of an element that is there already as it is. So the element is
// taken out and put in again.
std::string NftAddElement(const NftElement& element, int64_t seconds) {
    return NftRemoveElement(element) +  //
           "add" + ElementPlace(element) + TimeoutText(seconds) + " }\n";
}

std::string NftAddElements(const NftTimedElements& elements) {
    std::string script;
    for (const auto& [element, seconds] : elements) {
        script += script.empty() ? "add" + ElementPlace(element) : ", " + element.value;
        script += TimeoutText(seconds);
    }
    return script.empty() ? script : script + " }\n";
}

// An element must be there to be taken out, so it is added first.
std::string NftRemoveElement(const NftElement& element) {
    const std::string place = ElementPlace(element) + " }\n";
    return "add" + place + "delete" + place;
}

std::string NftGetElement(const NftElement& element) {
    return "get" + ElementPlace(element) + " }\n";
}

std::string NftListTables() {
    return "list tables inet\n";
}

std::string NftListTable() {
    return "list table inet tarn\n";
}

}  // namespace tarnctl

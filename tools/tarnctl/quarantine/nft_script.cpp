#include "tarnctl/quarantine/nft_script.h"

#include <netinet/in.h>

#include <algorithm>

namespace tarnctl {
namespace {

constexpr const char* kBridgeFamily = "bridge";
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

std::string ElementPlace(const std::string& family, const NftElement& element) {
    return " element " + family + " tarn " + element.set + " { " + element.value;
}

// The chains of a table, each with the priority that comes before connection tracking. Bridges have
// no word for it.
std::vector<std::pair<std::string, std::string>> ChainsOf(const std::string& family,
                                                          const NftHooks& hooks) {
    std::vector<std::pair<std::string, std::string>> chains;
    for (const auto& [word, hook] : kHookWords) {
        const bool isOfBridge = hook == NftHook::kBridge;
        if (hooks.contains(hook) && isOfBridge == (family == kBridgeFamily)) {
            chains.emplace_back(isOfBridge ? "forward" : std::string(word),
                                isOfBridge ? "-300" : "raw");
        }
    }
    return chains;
}

// What is there already is added without effect. Only rules would be there twice, so that all are
// taken out first.
std::string MendedTableOf(const std::string& family, const NftHooks& hooks) {
    const std::string table = family + " tarn";
    std::string script = "table " + table + " {\n    chain quarantine {\n    }\n";
    std::string jumps;
    for (const auto& [hook, priority] : ChainsOf(family, hooks)) {
        script.append("    chain ").append(hook).append(" {\n        type filter hook ");
        script.append(hook).append(" priority ").append(priority);
        script.append("; policy accept;\n    }\n");
        jumps.append("add rule ").append(table).append(" ").append(hook);
        jumps.append(" jump quarantine\n");
    }
    return script + "}\nflush table " + table + "\n" + jumps;
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

std::vector<std::string> NftFamilies(const NftHooks& hooks) {
    std::vector<std::string> families;
    for (const char* const family : {"inet", kBridgeFamily}) {
        if (!ChainsOf(family, hooks).empty()) {
            families.emplace_back(family);
        }
    }
    return families;
}

// A table must be there to be deleted, so it is added first; all of a script happens at once.
std::string NftNoTable(const std::string& family) {
    return "add table " + family + " tarn\ndelete table " + family + " tarn\n";
}

std::string NftFreshTable(const NftHooks& hooks) {
    std::string script;
    for (const std::string& family : NftFamilies(hooks)) {
        script += NftNoTable(family);
    }
    return script + NftMendedTable({}, hooks);
}

std::string NftMendedTable(const NftSets& sets, const NftHooks& hooks) {
    std::string script;
    for (const std::string& family : NftFamilies(hooks)) {
        script += MendedTableOf(family, hooks);
    }
    for (const auto& [name, element] : sets) {
        script += NftAddSet(element, hooks);
    }
    return script;
}

// Each element counts what is dropped for it.
std::string NftAddSet(const NftElement& element, const NftHooks& hooks) {
    const std::string limit =
        element.limit == 0 ? " counter;"
                           : " limit rate over " + std::to_string(element.limit) + " bytes/second;";
    std::string script;
    for (const std::string& family : NftFamilies(hooks)) {
        script.append("add set ").append(family).append(" tarn ").append(element.set);
        script.append(" { typeof ").append(element.key).append("; flags timeout;");
        script.append(limit).append(" }\n");
        script.append("add rule ").append(family).append(" tarn quarantine ");
        script.append(element.key).append(" @").append(element.set).append(" drop\n");
    }
    return script;
}

// The kernel leaves the timeout of an element that is there already as it is. So the element is
// taken out and put in again.
std::string NftAddElement(const NftElement& element, int64_t seconds, const NftHooks& hooks) {
    return NftRemoveElement(element, hooks) + NftAddElements({{element, seconds}}, hooks);
}

std::string NftAddElements(const NftTimedElements& elements, const NftHooks& hooks) {
    std::string script;
    for (const std::string& family :
         elements.empty() ? std::vector<std::string>() : NftFamilies(hooks)) {
        std::string line;
        for (const auto& [element, seconds] : elements) {
            line += line.empty() ? "add" + ElementPlace(family, element) : ", " + element.value;
            line += TimeoutText(seconds);
        }
        script += line + " }\n";
    }
    return script;
}

// An element must be there to be taken out, so it is added first.
std::string NftRemoveElement(const NftElement& element, const NftHooks& hooks) {
    std::string script;
    for (const std::string& family : NftFamilies(hooks)) {
        const std::string place = ElementPlace(family, element) + " }\n";
        script.append("add").append(place).append("delete").append(place);
    }
    return script;
}

std::string NftGetElement(const NftElement& element, const NftHooks& hooks) {
    std::string script;
    for (const std::string& family : NftFamilies(hooks)) {
        script += "get" + ElementPlace(family, element) + " }\n";
    }
    return script;
}

std::string NftListTables() {
    return "list tables\n";
}

std::string NftListTable(const std::string& family) {
    return "list table " + family + " tarn\n";
}

}  // namespace tarnctl

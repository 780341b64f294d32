#pragma once

// Quarantine rules in the language of nft(8). All of it lies in a table of tarnctl's own:
//
//   table inet tarn
//     chain prerouting   hook prerouting, priority raw: what arrives, for this host or through it
//     chain output       hook output, priority raw: what this host sends itself
//     chain quarantine   each hook's chain jumps here; one rule for each set
//     sets               one for each shape of rule, such as ip_saddr_tcp_dport
//
// Other hooks may be wanted. What passes from port to port of a bridge meets the hook forward of
// the family bridge only; for that there is a table of that family with the same sets.
//
// A rule of nftables has no end of its own, but an element of a set has a timeout. So the fields
// that a quarantine rule names make up its shape, each shape has a set and a rule that looks
// packets up in it, and the quarantine rule itself is an element. The kernel lifts it in time even
// if nobody is left to do so, and a thousand rules of a shape cost a packet one look-up.
//
// Priority raw is before connection tracking and address translation: connections that are under
// way are cut as well, and the addresses are those on the wire.
//
// Threads: pure functions.

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnctl/quarantine/quarantine_text.h"

namespace tarnctl {

// Where packets are looked at.
enum class NftHook {
    kPrerouting,  // what arrives, for this host or on its way through
    kInput,       // what arrives for this host
    kForward,     // what this host routes
    kOutput,      // what this host sends itself
    kBridge,      // what passes through a bridge of this host
};

using NftHooks = std::set<NftHook>;

inline const NftHooks kUsualHooks = {NftHook::kPrerouting, NftHook::kOutput};

// The word for each hook, as --hook has it.
inline constexpr std::array<std::pair<std::string_view, NftHook>, 5> kHookWords = {{
    {"prerouting", NftHook::kPrerouting},
    {"input", NftHook::kInput},
    {"forward", NftHook::kForward},
    {"output", NftHook::kOutput},
    {"bridge", NftHook::kBridge},
}};

// The families, "inet" and "bridge", in which these hooks need a table.
[[nodiscard]] std::vector<std::string> NftFamilies(const NftHooks& hooks);

// A quarantine rule as an element of a set.
struct NftElement {
    std::string set;     // name of the set: ip_saddr_tcp_dport
    std::string key;     // what packets are looked up by: ip saddr . tcp dport
    std::string value;   // of this rule: 10.0.0.1 . 80
    uint32_t limit = 0;  // bytes a second that each element lets pass; 0: none pass

    bool operator==(const NftElement&) const = default;

    // Tells this element from every other one of the table.
    [[nodiscard]] std::string Id() const { return set + " " + value; }
};

// Elements of one set, and for how many seconds each.
using NftTimedElements = std::vector<std::pair<NftElement, int64_t>>;

// An element of each set that is wanted, by the name of the set.
using NftSets = std::map<std::string, NftElement>;

// A port of 0 counts as not named. The rule must name an address: one without would cut off
// everybody.
[[nodiscard]] NftElement ToNftElement(const QuarantineParts& parts);

// What follows is for the tables that the hooks need.

// The tables with their chains and without any set, whatever they held before.
[[nodiscard]] std::string NftFreshTable(const NftHooks& hooks = kUsualHooks);

// The tables with their chains, these sets, and the rules that look packets up in them, whatever
// somebody else has done to it. Sets keep their elements.
[[nodiscard]] std::string NftMendedTable(const NftSets& sets, const NftHooks& hooks = kUsualHooks);

// No table of that family.
[[nodiscard]] std::string NftNoTable(const std::string& family = "inet");

// The element's set and the rule that looks packets up in it.
[[nodiscard]] std::string NftAddSet(const NftElement& element, const NftHooks& hooks = kUsualHooks);

// The element for this many seconds, at least 1, whether it was there already or not.
[[nodiscard]] std::string NftAddElement(const NftElement& element, int64_t seconds,
                                        const NftHooks& hooks = kUsualHooks);

// Elements of the same set, for so many seconds each; none of them may be there already.
[[nodiscard]] std::string NftAddElements(const NftTimedElements& elements,
                                         const NftHooks& hooks = kUsualHooks);

// No such element, whether it was there or not. Its set must be there.
[[nodiscard]] std::string NftRemoveElement(const NftElement& element,
                                           const NftHooks& hooks = kUsualHooks);

// A question that is answered if the element is in each table and fails if it is not.
[[nodiscard]] std::string NftGetElement(const NftElement& element,
                                        const NftHooks& hooks = kUsualHooks);

// Questions for the tables there are, and for everything that is in the one of this family.
[[nodiscard]] std::string NftListTables();
[[nodiscard]] std::string NftListTable(const std::string& family = "inet");

}  // namespace tarnctl

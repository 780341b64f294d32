#include "tarnctl/check/protect.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <sstream>

#include "tarnctl/check/block_words.h"
#include "tarnctl/check/finding_kinds.h"
#include "tarnctl/common/standard_input.h"

namespace tarnctl {
namespace {

using Network = ProtectList::Network;

bool ParseNetwork(const std::string& text, Network* network) {
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    network->family = inet_pton(AF_INET, address.c_str(), network->bytes) == 1    ? AF_INET
                      : inet_pton(AF_INET6, address.c_str(), network->bytes) == 1 ? AF_INET6
                                                                                  : AF_UNSPEC;
    const unsigned bits = network->family == AF_INET ? 32 : 128;
    network->prefix = bits;
    network->text = text;
    if (network->family != AF_UNSPEC && slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data() + slash + 1, end, network->prefix);
        if (error != std::errc() || rest != end || network->prefix > bits) {
            return false;
        }
    }
    return network->family != AF_UNSPEC;
}

bool Overlap(const Network& left, const Network& right) {
    if (left.family != right.family) {
        return false;
    }
    const unsigned bits = std::min(left.prefix, right.prefix);
    for (unsigned bit = 0; bit < bits; ++bit) {
        const unsigned mask = 0x80U >> bit % 8;
        if ((left.bytes[bit / 8] & mask) != (right.bytes[bit / 8] & mask)) {
            return false;
        }
    }
    return true;
}

// The addresses on one side of a rule's header. Whatever is not spelt out can be any address.
class Side {
  public:
    explicit Side(const std::string& text) {
        std::string list = text;
        std::replace_if(
            list.begin(), list.end(),
            [](char letter) { return letter == '[' || letter == ']' || letter == ','; }, ' ');
        std::istringstream words(list);
        for (std::string word; words >> word;) {
            Network network;
            if (!ParseNetwork(word, &network)) {
                m_isAny = true;  // any, a variable, or all but something
                return;
            }
            m_networks.push_back(network);
        }
        m_isAny = m_networks.empty();
    }

    [[nodiscard]] bool CanBe(const Network& network) const {
        return m_isAny ||
               std::any_of(m_networks.begin(), m_networks.end(),
                           [&network](const Network& own) { return Overlap(own, network); });
    }

  private:
    bool m_isAny = false;
    std::vector<Network> m_networks;
};

// The intruder's and the victim's side of a rule text: "alert tcp SOURCE PORT -> DESTINATION PORT".
std::array<Side, 2> SidesOf(const std::string& rule) {
    std::vector<std::string> words;
    std::string word;
    int depth = 0;
    for (const char letter : rule.substr(0, rule.find('('))) {
        depth += letter == '[' ? 1 : letter == ']' ? -1 : 0;
        if (letter != ' ' && letter != '\t') {
            word += letter;
        } else if (depth == 0 && !word.empty()) {
            words.push_back(std::move(word));
            word.clear();
        } else if (depth != 0) {
            word += ' ';
        }
    }
    if (!word.empty()) {
        words.push_back(word);
    }
    const bool isHeader = words.size() == 7 && (words[4] == "->" || words[4] == "<>");
    if (!isHeader) {
        return {Side(""), Side("")};
    }
    if (words[4] == "<>") {
        const std::string both = words[2] + "," + words[5];
        return {Side(both), Side(both)};
    }
    return {Side(words[2]), Side(words[5])};
}

}  // namespace

std::string ProtectList::Add(const std::string& text, StandardInput& input) {
    Network network;
    if (ParseNetwork(text, &network)) {
        m_networks.push_back(std::move(network));
        return "";
    }
    const std::string path = input.PathOf(text);
    std::ifstream file(path);
    struct stat status = {};
    if (!file || stat(path.c_str(), &status) != 0 || S_ISDIR(status.st_mode)) {
        return "\"" + text + "\" is no address, no network and no file that can be read";
    }
    std::string line;
    for (unsigned number = 1; std::getline(file, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            if (!ParseNetwork(word, &network)) {
                return std::string(text)
                    .append(":")
                    .append(std::to_string(number))
                    .append(": \"")
                    .append(word)
                    .append("\" is no address and no network");
            }
            m_networks.push_back(network);
        }
    }
    return "";
}

void ProtectList::Check(const std::vector<LoadedEntry>& entries, Findings& findings) const {
    constexpr uint32_t kIntruder = kBlockIntruderAddress | kBlockIntruderSubnet;
    constexpr uint32_t kVictim = kBlockVictimAddress | kBlockVictimSubnet;
    if (m_networks.empty()) {
        return;
    }
    for (const LoadedEntry& entry : entries) {
        if (entry.responseFlags == 0) {
            continue;
        }
        const std::array<Side, 2> sides = SidesOf(entry.ruleText);
        for (const LoadedRule& rule : entry.rules) {
            const uint32_t flags = rule.rule.flags;
            const Applies applies = AppliesTo(flags);
            if (!applies.toIcmp && !applies.toOthers) {
                continue;
            }
            // A rule with neither address cuts off everybody who uses the port or the ICMP type.
            const bool namesNobody = (flags & (kIntruder | kVictim)) == 0;
            std::string hit;
            for (const Network& network : m_networks) {
                const bool isHit = namesNobody ||
                                   ((flags & kIntruder) != 0 && sides[0].CanBe(network)) ||
                                   ((flags & kVictim) != 0 && sides[1].CanBe(network));
                if (isHit) {
                    hit += (hit.empty() ? "" : ", ") + network.text;
                }
            }
            if (!hit.empty()) {
                findings.push_back({&kinds::kCanBlockProtected, rule.place,
                                    "entry " + std::to_string(entry.id) + " can block " + hit, "",
                                    BlockRuleInPlainWords(rule.rule)});
            }
        }
    }
}

}  // namespace tarnctl

#include "tarnctl/quarantine/nft_quarantine.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

using nlohmann::json;
using Kind = NftAnswer::Kind;
using Task = NftWorker::Task;

constexpr size_t kRulesPerScript = 500;

// The kernel leaves 0 out.
uint32_t NextGeneration(uint32_t generation) {
    return generation + 1 == 0 ? 1 : generation + 1;
}

// The reason as text, or an empty string if the script was carried out.
std::string ReasonIn(const NftAnswer& answer) {
    if (answer.kind == Kind::kDone) {
        return "";
    }
    const std::string line = ForTerminal(answer.text.substr(0, answer.text.find('\n')));
    const bool isForbidden = line.find(std::strerror(EPERM)) != std::string::npos;
    return "nft: " + (line.empty() ? "failed without a reason" : line) +
           (isForbidden ? "; run this as root or with CAP_NET_ADMIN" : "");
}

bool SaysThereIsNone(const NftAnswer& answer) {
    return answer.kind == Kind::kFailed &&
           answer.text.find(std::strerror(ENOENT)) != std::string::npos;
}

bool SaysItIsTooLong(const NftAnswer& answer) {
    return answer.kind == Kind::kFailed &&
           answer.text.find(std::strerror(EMSGSIZE)) != std::string::npos;
}

// The objects of one kind in what nft lists as JSON. What is no such list has none.
std::vector<json> ObjectsIn(const std::string& text, const char* kind) {
    std::vector<json> objects;
    const json list = json::parse(text, nullptr, false);
    if (!list.is_object() || !list.contains("nftables")) {
        return objects;
    }
    for (const json& entry : list["nftables"]) {
        if (entry.is_object() && entry.contains(kind)) {
            objects.push_back(entry[kind]);
        }
    }
    return objects;
}

std::string FieldText(const json& field) {
    return field.is_string() ? field.get<std::string>() : field.dump();
}

// An element's value as NftElement has it.
std::string ValueText(const json& element) {
    const json& inner = element.is_object() && element.contains("elem") ? element["elem"] : element;
    const json& value = inner.is_object() && inner.contains("val") ? inner["val"] : inner;
    if (!value.is_object() || !value.contains("concat")) {
        return FieldText(value);
    }
    std::string text;
    for (const json& field : value["concat"]) {
        text += (text.empty() ? "" : " . ") + FieldText(field);
    }
    return text;
}

void CountIn(const json& element, NftDropped& dropped) {
    const json& inner = element.is_object() && element.contains("elem") ? element["elem"] : element;
    if (inner.is_object() && inner.contains("counter") && inner["counter"].is_object()) {
        dropped.isKnown = true;
        dropped.packets += inner["counter"].value("packets", uint64_t{0});
        dropped.bytes += inner["counter"].value("bytes", uint64_t{0});
    }
}

}  // namespace

NftQuarantine::NftQuarantine(NftEngineMaker maker, NftHooks hooks)
    : m_worker(std::move(maker)), m_hooks(std::move(hooks)) {}

void NftQuarantine::GiveTime(std::chrono::seconds time) {
    m_end = NftWorker::Clock::now() + time;
}

NftAnswer NftQuarantine::Change(const std::string& script, uint32_t onlyAt) {
    NftAnswer answer = m_worker.Ask(Task::kChange, script, m_end, onlyAt);
    if (answer.kind == Kind::kDone) {
        const bool isAlone =
            answer.before == m_generation && answer.after == NextGeneration(answer.before);
        m_generation = isAlone ? answer.after : 0;
    }
    return answer;
}

NftAnswer NftQuarantine::Query(const std::string& script) {
    return m_worker.Ask(Task::kQuery, script, m_end);
}

std::string NftQuarantine::AskForHandles(Handles& handles, uint32_t& generation) {
    const NftAnswer answer = Query(NftListTables());
    handles.clear();
    generation = answer.before == answer.after ? answer.after : 0;
    for (const json& table : ObjectsIn(answer.text, "table")) {
        const std::string family = table.value("family", "");
        const uint64_t handle = table.value("handle", uint64_t{0});
        if ((family == "inet" || family == "bridge") && table.value("name", "") == "tarn" &&
            handle != 0) {
            handles[family] = handle;
        }
    }
    return ReasonIn(answer);
}

bool NftQuarantine::HasLost(const Handles& handles) const {
    const std::vector<std::string> families = NftFamilies(m_hooks);
    return std::any_of(families.begin(), families.end(), [&](const std::string& family) {
        const auto known = m_handles.find(family);
        const auto found = handles.find(family);
        return known == m_handles.end() || found == handles.end() || known->second != found->second;
    });
}

std::string NftQuarantine::FreshTablesWith(
    const std::map<std::string, NftTimedElements>& elements) {
    const std::vector<std::string> families = NftFamilies(m_hooks);
    Handles handles;
    uint32_t generation = 0;
    std::string script;
    (void)AskForHandles(handles, generation);  // without an answer nothing is known to be left
    for (const auto& [family, handle] : handles) {
        const bool isOurs = std::find(families.begin(), families.end(), family) != families.end();
        script += isOurs ? std::string() : NftNoTable(family);
    }
    script += NftFreshTable(m_hooks);
    for (const auto& [name, ofSet] : elements) {
        script += NftAddSet(ofSet.front().first, m_hooks) + NftAddElements(ofSet, m_hooks);
    }
    return script;
}

std::string NftQuarantine::Open(const std::vector<TimedRule>& rules) {
    m_sets.clear();
    m_certain.clear();
    m_doubtful.clear();
    std::map<std::string, NftTimedElements> elements;
    for (const auto& [parts, seconds] : rules) {
        NftElement element = ToNftElement(parts);
        if (m_certain.insert(element.Id()).second) {
            m_sets.emplace(element.set, element);
            elements[element.set].emplace_back(std::move(element), seconds);
        }
    }
    NftAnswer answer = Change(FreshTablesWith(elements));
    const bool isWhole = !SaysItIsTooLong(answer);
    if (!isWhole) {
        answer = OpenInPieces(elements);
    }
    if (answer.kind != Kind::kDone) {
        m_handles.clear();
        m_sets.clear();
        m_certain.clear();
        return ReasonIn(answer);
    }
    uint32_t generation = 0;
    std::string reason = AskForHandles(m_handles, generation);
    // If somebody else made a change meanwhile, the next Check looks at the table again.
    const bool isAlone = isWhole && answer.after == NextGeneration(answer.before);
    m_generation = isAlone && generation == answer.after ? generation : 0;
    return reason;
}

// Where the kernel's limit for a message cannot be raised, as in a user's namespace.
NftAnswer NftQuarantine::OpenInPieces(const std::map<std::string, NftTimedElements>& elements) {
    NftAnswer answer = Change(FreshTablesWith({}));
    for (const auto& [name, ofSet] : elements) {
        std::string script = NftAddSet(m_sets.at(name), m_hooks);
        for (size_t place = 0; place < ofSet.size() && answer.kind == Kind::kDone;
             place += kRulesPerScript) {
            const auto first = ofSet.begin() + static_cast<ptrdiff_t>(place);
            const size_t count = std::min(kRulesPerScript, ofSet.size() - place);
            script += NftAddElements({first, first + static_cast<ptrdiff_t>(count)}, m_hooks);
            answer = Change(std::exchange(script, std::string()));
        }
    }
    return answer;
}

std::string NftQuarantine::Check(bool& isLost) {
    isLost = false;
    const NftAnswer answer = Query("");
    if (answer.kind != Kind::kDone) {
        return ReasonIn(answer);
    }
    if (answer.after != 0 && answer.after == m_generation) {
        m_doubtful.clear();  // what was given up has not been carried out
        return "";
    }
    Handles handles;
    uint32_t generation = 0;
    std::string reason = AskForHandles(handles, generation);
    if (!reason.empty()) {
        return reason;
    }
    if (HasLost(handles)) {
        isLost = true;
        return Open();
    }
    return Mend(generation);
}

std::string NftQuarantine::Mend(uint32_t generation) {
    m_certain.clear();
    NftSets sets = m_sets;
    std::string removals;
    for (const NftElement& element : m_doubtful) {
        sets.emplace(element.set, element);
        removals += NftRemoveElement(element, m_hooks);
    }
    m_generation = generation;
    const NftAnswer answer = Change(NftMendedTable(sets, m_hooks) + removals);
    if (answer.kind == Kind::kDone) {
        m_sets = std::move(sets);
        m_doubtful.clear();
    } else {
        m_generation = 0;  // the next Check tries again
    }
    return ReasonIn(answer);
}

std::string NftQuarantine::Apply(const QuarantineParts& parts, int64_t seconds, bool& isStale) {
    isStale = m_generation == 0;
    if (isStale) {
        return "";
    }
    const NftElement element = ToNftElement(parts);
    const bool isNewSet = !m_sets.contains(element.set);
    const bool wasThere = m_certain.contains(element.Id());
    const NftAnswer answer = Change((isNewSet ? NftAddSet(element, m_hooks) : std::string()) +
                                        NftAddElement(element, seconds, m_hooks),
                                    m_generation);
    isStale = answer.kind == Kind::kStale;
    if (answer.kind == Kind::kDone) {
        m_sets.emplace(element.set, element);
        m_certain.insert(element.Id());
        m_doubtful.clear();  // at this generation, what was given up has not been carried out
    } else if (answer.kind == Kind::kGivenUp && !wasThere) {
        m_doubtful.push_back(element);
    }
    return isStale ? "" : ReasonIn(answer);
}

std::string NftQuarantine::Withdraw(const std::vector<QuarantineParts>& rules) {
    std::string script;
    size_t count = 0;
    for (const QuarantineParts& parts : rules) {
        script += NftRemoveElement(ToNftElement(parts), m_hooks);
        Forget(parts);
        if (++count % kRulesPerScript == 0 || count == rules.size()) {
            const NftAnswer answer = Change(std::exchange(script, std::string()));
            if (answer.kind != Kind::kDone) {
                return ReasonIn(answer);
            }
        }
    }
    return "";
}

std::string NftQuarantine::Find(const QuarantineParts& parts, bool& isThere) {
    const NftElement element = ToNftElement(parts);
    const NftAnswer answer = Query(NftGetElement(element, m_hooks));
    isThere = answer.kind == Kind::kDone;
    if (isThere) {
        m_certain.insert(element.Id());
    }
    return SaysThereIsNone(answer) ? "" : ReasonIn(answer);
}

std::string NftQuarantine::List(std::map<std::string, NftDropped>& elements) {
    const std::vector<std::string> families = NftFamilies(m_hooks);
    std::map<std::string, size_t> tables;  // that have the element
    for (const std::string& family : families) {
        const NftAnswer answer = Query(NftListTable(family));
        if (answer.kind != Kind::kDone) {
            return ReasonIn(answer);
        }
        for (const json& set : ObjectsIn(answer.text, "set")) {
            for (const json& element : set.value("elem", json::array())) {
                const std::string id = set.value("name", "") + " " + ValueText(element);
                CountIn(element, elements[id]);
                ++tables[id];
            }
        }
    }
    std::erase_if(elements,
                  [&](const auto& entry) { return tables[entry.first] < families.size(); });
    return "";
}

std::string NftQuarantine::Remove() {
    m_sets.clear();
    m_certain.clear();
    std::string script;
    for (const std::string& family : NftFamilies(m_hooks)) {
        script += NftNoTable(family);
    }
    return ReasonIn(Change(script));
}

bool NftQuarantine::IsCertain(const QuarantineParts& parts) const {
    return m_certain.contains(ToNftElement(parts).Id());
}

void NftQuarantine::Forget(const QuarantineParts& parts) {
    m_certain.erase(ToNftElement(parts).Id());
}

}  // namespace tarnctl

#include "tarnctl/secmgr/quarantine_control.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "tarnctl/common/counted.h"
#include "tarnctl/common/text_forms.h"
#include "tarnctl/quarantine/ip_network.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr mode_t kForUserAndGroup = 0660;
constexpr int64_t kLongestSeconds = int64_t{366} * 86400;  // of a rule that a person asks for

// An object with one member.
Json Single(const char* name, Json value) {
    Json json;
    json[name] = std::move(value);
    return json;
}

Json ErrorAsJson(const std::string& text) {
    return Single("error", text);
}

Json OrNull(const std::string& text) {
    return text.empty() ? Json() : TextAsJson(text);
}

// The shortest form, which is what a rule has; empty for a text that is no address.
std::string ShortAddress(const std::string& text) {
    const std::optional<IpAddress> address = ParseIpAddress(text);
    std::array<char, INET6_ADDRSTRLEN> form = {};
    return address && inet_ntop(address->family, address->bytes.data(), form.data(), form.size()) !=
                          nullptr
               ? form.data()
               : "";
}

Json RuleAsJson(const RuleInForce& rule, time_t now) {
    const QuarantineParts& parts = rule.parts;
    // All that the address sends, or all that is sent to it.
    const bool isWhole = (parts.intruder.empty() != parts.victim.empty()) && parts.protocol == 0 &&
                         parts.counter == 0;
    return {{"rule", rule.text},
            {"intruder", OrNull(parts.intruder)},
            {"victim", OrNull(parts.victim)},
            {"whole", isWhole},
            {"issueId", rule.issueId == 0 ? Json() : Json(rule.issueId)},
            {"why", OrNull(rule.why)},
            {"asked", rule.asked},
            {"expirationTime", parts.expiration},
            {"secondsLeft", SecondsLeft(rule, now)}};
}

std::function<bool(const RuleInForce&)> Names(const std::string& address) {
    return [address](const RuleInForce& rule) {
        return rule.parts.intruder == address || rule.parts.victim == address;
    };
}

}  // namespace

bool IsRootOrOwnUser(uid_t user) {
    return user == 0 || user == geteuid();
}

QuarantineControl::QuarantineControl(RuleEnforcer& enforcer,
                                     std::function<void(const std::string&)> tell,
                                     std::function<bool(uid_t)> mayChange)
    : m_enforcer(enforcer), m_tell(std::move(tell)), m_mayChange(std::move(mayChange)) {}

std::string QuarantineControl::Open(const std::string& path) {
    std::string reason = m_server.Open(path, kForUserAndGroup);
    m_isOpen = reason.empty();
    return reason;
}

void QuarantineControl::Serve() {
    if (m_isOpen) {
        m_server.Serve([this](const LineClient& client,
                              const std::string& line) { return Answer(client, line); },
                       [](const LineClient&) {});
    }
}

void QuarantineControl::AddTo(std::vector<pollfd>& entries) const {
    if (m_isOpen) {
        m_server.AddTo(entries);
    }
}

std::string QuarantineControl::Answer(const LineClient& client, const std::string& line) {
    const Json order = Json::parse(line, nullptr, false);
    if (!order.is_object() || !order.contains("do") || !order["do"].is_string()) {
        return ErrorAsJson("this is no order").dump();
    }
    const Json answer = Carry(order["do"].get<std::string>(), order, client.user);
    return answer.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json QuarantineControl::Carry(const std::string& what, const Json& order, uid_t user) {
    const bool isChange = what == "add" || what == "remove" || what == "flush";
    if (isChange && !m_mayChange(user)) {
        return ErrorAsJson("user " + std::to_string(user) +
                           " may list and test; only root and user " + std::to_string(geteuid()) +
                           ", as which the service runs, may change what is in force");
    }
    if (what == "list") {
        return List();
    }
    if (what == "flush") {
        return End([](const RuleInForce&) { return true; }, user);
    }
    if (!isChange && what != "test") {
        return ErrorAsJson("\"" + what + "\" is none of list, test, add, remove and flush");
    }
    const Json given = order.value("address", Json());
    const std::string address = given.is_string() ? ShortAddress(given.get<std::string>()) : "";
    if (address.empty()) {
        return ErrorAsJson(given.dump(-1, ' ', false, Json::error_handler_t::replace) +
                           " is no address");
    }
    if (what == "test") {
        return Test(address);
    }
    return what == "add" ? Put(address, order, user) : End(Names(address), user);
}

Json QuarantineControl::RulesAsJson(const std::function<bool(const RuleInForce&)>& isWanted) {
    std::map<std::string, NftDropped> dropped;
    m_enforcer.Upkeep();
    m_enforcer.CompareWithKernel(&dropped);
    const time_t now = std::time(nullptr);
    Json rules = Json::array();
    for (const RuleInForce& rule : m_enforcer.Table().Rules()) {
        if (!isWanted(rule)) {
            continue;
        }
        Json json = RuleAsJson(rule, now);
        const auto counts = dropped.find(ToNftElement(rule.parts).Id());
        const bool isKnown = counts != dropped.end() && counts->second.isKnown;
        json["packets"] = isKnown ? Json(counts->second.packets) : Json();
        json["bytes"] = isKnown ? Json(counts->second.bytes) : Json();
        rules.push_back(std::move(json));
    }
    return rules;
}

Json QuarantineControl::List() {
    Json rules = RulesAsJson([](const RuleInForce&) { return true; });
    return {{"cutsOff", m_enforcer.CutsOff()}, {"rules", std::move(rules)}};
}

Json QuarantineControl::Test(const std::string& address) {
    const NeverCover cover = m_enforcer.ProtectionOf(address);
    Json protectedBy;
    if (!cover.entry.empty()) {
        protectedBy = {{"entry", cover.entry}, {"source", cover.source}};
    }
    Json rules = RulesAsJson(Names(address));
    return {{"address", address},
            {"cutsOff", m_enforcer.CutsOff()},
            {"rules", std::move(rules)},
            {"protectedBy", std::move(protectedBy)}};
}

Json QuarantineControl::Put(const std::string& address, const Json& order, uid_t user) {
    const Json seconds = order.value("seconds", Json());
    const Json why = order.value("why", Json(""));
    if (!seconds.is_number_integer() || seconds < 1 || seconds > kLongestSeconds) {
        return ErrorAsJson("a rule lasts 1 second to 366 days");
    }
    if (!why.is_string() || why.get_ref<const std::string&>().size() > kLongestWhy) {
        return ErrorAsJson("a reason has 1000 bytes at most");
    }
    const bool isIpv6 = address.find(':') != std::string::npos;
    const std::string text = std::string(isIpv6 ? "ipv6" : "ip") + " intruder addr " + address +
                             " expires " + UtcText(std::time(nullptr) + seconds.get<int64_t>());
    QuarantineParts parts;
    std::string reason = ParseQuarantineText(text, parts);
    reason =
        reason.empty() ? m_enforcer.PutIntoForce(parts, text, 0, why.get<std::string>()) : reason;
    if (!reason.empty()) {
        return ErrorAsJson(reason);
    }
    m_tell("put into force by user " + std::to_string(user) + ": " + text);
    const RuleInForce* const rule = m_enforcer.Table().Find(parts);
    return Single("added", rule == nullptr ? Json() : RuleAsJson(*rule, std::time(nullptr)));
}

Json QuarantineControl::End(const std::function<bool(const RuleInForce&)>& isWanted, uid_t user) {
    std::vector<RuleInForce> ended;
    m_enforcer.Upkeep();
    const std::string reason = m_enforcer.End(isWanted, "by user " + std::to_string(user), ended);
    if (!reason.empty()) {
        return ErrorAsJson(reason);
    }
    const time_t now = std::time(nullptr);
    Json rules = Json::array();
    for (const RuleInForce& rule : ended) {
        rules.push_back(RuleAsJson(rule, now));
    }
    return Single("removed", std::move(rules));
}

}  // namespace tarnctl

#include "config/event_rule_table.h"

#include <iostream>

#include "threads/cancellation.h"

bool EventRuleTable::Commit() {
    if (!m_pPending) {
        return true;
    }
    if (m_lists.Insert(m_pPending->id, [this] { return m_pPending; }) == nullptr) {
        return false;
    }
    m_pPending.reset();
    return true;
}

Node& EventRuleTable::PendingFor(uint32_t id) {
    if (!m_pPending || m_pPending->id != id) {
        m_pPending = std::make_shared<Node>(id);
    }
    return *m_pPending;
}

bool EventRuleTable::SetSeverity(const uint32_t& id, const uint32_t& value) {
    PendingFor(id).severity = value;
    return true;
}

bool EventRuleTable::SetRule(const uint32_t& id, const std::string& value) {
    PendingFor(id).rule = value;
    return true;
}

bool EventRuleTable::SetEventName(const uint32_t& id, const std::string& value) {
    PendingFor(id).eventName = value;
    return true;
}

bool EventRuleTable::SetUserResponse(const uint32_t& id, const std::string& value) {
    PendingFor(id).userResponse = value;
    return true;
}

bool EventRuleTable::SetUserResponseFlags(const uint32_t& id, const uint32_t& value) {
    PendingFor(id).userResponseFlags = value;
    return true;
}

bool EventRuleTable::SetResponseFlags(const uint32_t& id, const uint32_t& value) {
    PendingFor(id).responseFlags = value;
    return true;
}

bool EventRuleTable::AddBlockRule(const uint32_t& id, const BlockRule& rule) {
    PendingFor(id).blockRules.push_back(rule);
    return true;
}

void EventRuleTable::Clear() {
    for (uint32_t id = 0; id < kBucketCount; ++id) {
        ClearBucket(id);
    }
}

namespace {

void DumpNode(std::ostream& out, const Node& node) {
    out << "    (  ID:" << node.id << '\n'
        << "       SV:" << node.severity << '\n'
        << "       RL:" << node.rule << '\n'
        << "       EN:" << node.eventName << '\n'
        << "       UR:" << node.userResponse << '\n'
        << "       URF:" << node.userResponseFlags << '\n'
        << "       R:" << node.responseFlags << '\n'
        << "       QR:";
    for (const BlockRule& rule : node.blockRules) {
        out << "( BF:" << rule.flags << ", BD:" << rule.duration << ", RL:" << rule.rateLimit
            << " )->";
    }
    out << "\n    ) -> \n";
}

}  // namespace

void EventRuleTable::Dump() const {
    const CancellationOff off;  // none may land with a lock held, nor amid what std::cout writes
    std::cout << "-----------------------------\n"
              << "Bucket Size: " << kBucketCount << '\n'
              << "Node Count: " << NodeCount() << '\n'
              << "-----------------------------\n";
    m_lists.ForEachBucket([](size_t index, const auto& bucket) {
        std::cout << "Bucket[" << index << "] => \n";
        for (const auto& entry : bucket) {
            DumpNode(std::cout, *entry.node);
        }
        std::cout << '\n';
    });
    std::cout << "-----------------------------" << std::endl;
}

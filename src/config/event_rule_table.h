#pragma once

// The settings of every known Snort signature: 256 buckets keyed by the low 8 bits of the event
// id. An entry is assembled aside, line by line, as the pending node, and enters its bucket whole
// by Commit; from then on it is never written again.
//
// Owned by Config as a static object; lives as long as the process.
//
// Threads: one writer, the thread that loads the configuration, calls Initialize, PendingId,
// Commit, the setters, Remove, ClearBucket and Clear. Find, NodeCount and Dump may be called by
// any thread at any time, also while the writer works: a bucket's spin lock covers its links and
// the taking of a reference, and the reference keeps a node alive after it has left the table.

#include <cstdint>
#include <memory>
#include <string>

#include "config/bucket_lists.h"
#include "config/event_rule_node.h"

class EventRuleTable {
  public:
    static constexpr uint32_t kBucketCount = 256;

    EventRuleTable() = default;
    EventRuleTable(const EventRuleTable&) = delete;
    EventRuleTable& operator=(const EventRuleTable&) = delete;

    // Makes the locks ready and the count 0. Runs once, before any other operation.
    void Initialize() { m_lists.Initialize(); }

    // Id of the node being assembled, 0 if there is none.
    [[nodiscard]] uint32_t PendingId() const { return m_pPending ? m_pPending->id : 0; }

    // Moves the pending node into its bucket. True if it did, or if nothing was pending. False if
    // the id is in the table already: the table is unchanged and the node stays pending.
    [[nodiscard]] bool Commit();

    // Each writes one field of the pending node with this id and returns true. With no pending
    // node, or one of another id, a fresh node is made first; the other one is lost.
    bool SetSeverity(const uint32_t& id, const uint32_t& value);
    bool SetRule(const uint32_t& id, const std::string& value);
    bool SetEventName(const uint32_t& id, const std::string& value);
    bool SetUserResponse(const uint32_t& id, const std::string& value);
    bool SetUserResponseFlags(const uint32_t& id, const uint32_t& value);
    bool SetResponseFlags(const uint32_t& id, const uint32_t& value);
    bool AddBlockRule(const uint32_t& id, const BlockRule& rule);

    // A reference to the node, empty if the id is not in the table. The pending node does not
    // count. Allocates nothing.
    [[nodiscard]] std::shared_ptr<Node> Find(const uint32_t& id) const { return m_lists.Find(id); }

    // Takes the node out; true if it was there.
    bool Remove(const uint32_t& id) { return m_lists.Remove(id); }

    // Empties the bucket of this id, whatever ids it has.
    void ClearBucket(const uint32_t& id) { m_lists.ClearBucket(id); }

    // Empties all buckets. The pending node stays pending.
    void Clear();

    // Number of nodes in all buckets. Statistics: it may lag behind the lists for a moment.
    [[nodiscard]] uint32_t NodeCount() const { return m_lists.NodeCount(); }

    // Writes the table to standard output.
    void Dump() const;

  private:
    Node& PendingFor(uint32_t id);

    BucketLists<Node, &Node::id, kBucketCount> m_lists;
    std::shared_ptr<Node> m_pPending;  // owned; shared for a moment with its bucket inside Commit
};

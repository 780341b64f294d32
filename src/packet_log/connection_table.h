#pragma once

// The capture state of connections whose packets are being logged: 16384 buckets keyed by the low
// 14 bits of the connection id. Entries expire lazily, swept by age and remaining count when a key
// in their bucket is updated; there is no timer.
//
// Owned by the packet log control interface, which makes it on the heap.
//
// Threads: Initialize before the table is shared; everything else from any thread at any time. In
// spite of the class's name a bucket is guarded by a spin lock; what does not exist is a lock for
// the whole table.

#include <atomic>
#include <cstdint>

#include "config/bucket_lists.h"

class LOCK_FREE_HASH_MAP {
  public:
    static constexpr uint32_t kBucketCount = 16384;
    static constexpr uint32_t kMaxAgeSeconds = 300;

    struct Node {
        Node(uint64_t nodeKey, uint32_t seconds, uint32_t count)
            : key(nodeKey), timestamp(seconds), remaining(count) {}

        Node* link = nullptr;             // always null; Deliberate: stored, not read
        const uint64_t key;               // connection id
        const uint32_t timestamp;         // seconds, given at insertion
        std::atomic<uint32_t> remaining;  // packets still to be logged
    };

    LOCK_FREE_HASH_MAP() = default;
    LOCK_FREE_HASH_MAP(const LOCK_FREE_HASH_MAP&) = delete;
    LOCK_FREE_HASH_MAP& operator=(const LOCK_FREE_HASH_MAP&) = delete;

    // Makes the locks fresh and the count 0, on a table in use as well: its nodes stay.
    void Initialize() { m_lists.Initialize(); }

    // Adds a node. Null if the key is there already; the old node is left as it was. The pointer
    // is borrowed and good only as long as nothing sweeps, clears or removes in its bucket.
    Node* Insert(const uint64_t& key, uint32_t timestamp, uint32_t remaining);

    // Stores `remaining` in the node, or takes 1 off its count if `remaining` is 0; true if the
    // node was there. Then sweeps the whole bucket: a node stays only if its count is not 0 and
    // `now` is at most kMaxAgeSeconds past its timestamp, in unsigned 32-bit arithmetic.
    bool Update(const uint64_t& key, uint32_t now, uint32_t remaining);

    // Takes the node out if it is there.
    void Remove(const uint64_t& key) { m_lists.Remove(key); }

    // Empties the bucket of this key, whatever keys it has.
    void ClearBucket(const uint64_t& key) { m_lists.ClearBucket(key); }

    // Number of nodes in all buckets. Statistics: it may lag behind the lists for a moment.
    [[nodiscard]] uint32_t NodeCount() const { return m_lists.NodeCount(); }

    // Writes the keys to standard output.
    void Dump() const;

  private:
    BucketLists<Node, &Node::key, kBucketCount> m_lists;
};

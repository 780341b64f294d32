#include "packet_log/connection_table.h"

#include <iostream>

#include "threads/cancellation.h"

LOCK_FREE_HASH_MAP::Node* LOCK_FREE_HASH_MAP::Insert(const uint64_t& key, uint32_t timestamp,
                                                     uint32_t remaining) {
    return m_lists.Insert(key, [=] { return std::make_shared<Node>(key, timestamp, remaining); });
}

bool LOCK_FREE_HASH_MAP::Update(const uint64_t& key, uint32_t now, uint32_t remaining) {
    const bool found = m_lists.Modify(key, [remaining](Node& node) {
        if (remaining != 0) {
            node.remaining.store(remaining, std::memory_order_relaxed);
        } else {
            // Deliberate: a count of 0 wraps, and the node stays. Only a count of exactly 0 is
            // spent.
            node.remaining.fetch_sub(1, std::memory_order_relaxed);
        }
    });
    // Deliberate: a sender whose clock is before the timestamp gives a huge age, and the node
    // goes. A stale capture is cheap to start again; one that never ends is not.
    m_lists.DropIf(key, [now](const Node& swept) {
        return swept.remaining.load(std::memory_order_relaxed) == 0 ||
               now - swept.timestamp > kMaxAgeSeconds;
    });
    return found;
}

void LOCK_FREE_HASH_MAP::Dump() const {
    const CancellationOff off;  // no cancel while a lock is held or std::cout writes
    std::cout << "-----------------------------\n"
              << "Bucket Size: " << kBucketCount << '\n'
              << "-----------------------------\n";
    m_lists.ForEachBucket([](size_t index, const auto& bucket) {
        std::cout << "Bucket[" << index << "] => ";
        for (const auto& entry : bucket) {
            std::cout << '(' << entry.key << ") -> ";
        }
        std::cout << '\n';
    });
    std::cout << "-----------------------------" << std::endl;
}

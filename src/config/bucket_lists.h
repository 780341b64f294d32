#pragma once

// What the event rule table and the connection table share: a fixed number of buckets, each a list
// of nodes in ascending order of key under a spin lock of its own, and a count of all nodes. The
// bucket of a key is given by its low bits; nothing is ever rehashed. There is no table-wide lock,
// so one thread waits for another only in the same bucket, and for a few instructions. The keys of
// a bucket are beside each other in memory, so that a search touches no node but the one it finds.
//
// Owned by value by the table that is built on it; all nodes are released with it.
//
// Threads: any thread may call any operation but Initialize. A bucket's lock covers its list and
// the taking of a reference. Nothing done under it is a cancellation point. Nodes are destroyed
// after the lock is released, to keep the hold time short.

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

// A process-private spin lock with the names that std::lock_guard expects.
class SpinLock {
  public:
    SpinLock() { pthread_spin_init(&m_lock, PTHREAD_PROCESS_PRIVATE); }
    ~SpinLock() { pthread_spin_destroy(&m_lock); }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

    // Back to the fresh, free state. No thread may hold or wait for the lock.
    void Reset() {
        pthread_spin_destroy(&m_lock);
        pthread_spin_init(&m_lock, PTHREAD_PROCESS_PRIVATE);
    }

    void lock() { pthread_spin_lock(&m_lock); }
    void unlock() { pthread_spin_unlock(&m_lock); }

  private:
    pthread_spinlock_t m_lock;
};

// kKey is the member of NodeT that holds the unsigned key.
template <class NodeT, auto kKey, size_t kBucketCount>
class BucketLists {
    static_assert((kBucketCount & (kBucketCount - 1)) == 0, "a bucket is chosen by a mask");

  public:
    using Key = std::remove_cvref_t<decltype(std::declval<NodeT&>().*kKey)>;
    struct Entry {
        Key key;
        std::shared_ptr<NodeT> node;
    };
    using List = std::vector<Entry>;

    BucketLists() = default;
    BucketLists(const BucketLists&) = delete;
    BucketLists& operator=(const BucketLists&) = delete;

    // Makes the locks fresh and the count 0. Nodes stay where they are.
    void Initialize() {
        for (SpinLock& lock : m_locks) {
            lock.Reset();
        }
        m_nodeCount.store(0, std::memory_order_relaxed);
    }

    // Links the node that `make` yields as a shared_ptr into the bucket of `key`. Null if the key
    // is there already; nothing is made then. Should an allocation fail, the exception leaves with
    // the lock released and the list as it was.
    template <class Make>
    NodeT* Insert(Key key, Make make) {
        List& bucket = m_buckets[BucketOf(key)];
        const std::lock_guard lock(m_locks[BucketOf(key)]);
        // Keys come mostly in ascending order, and then this one comparison is all of the search.
        const bool last = bucket.empty() || bucket.back().key < key;
        const auto place = last ? bucket.end() : LowerBound(bucket, key);
        if (!last && place->key == key) {
            return nullptr;
        }
        NodeT* const node = bucket.insert(place, Entry{key, make()})->node.get();
        m_nodeCount.fetch_add(1, std::memory_order_relaxed);
        return node;
    }

    // A reference to the node with this key, taken under the lock; empty if there is none.
    [[nodiscard]] std::shared_ptr<NodeT> Find(Key key) const {
        const List& bucket = m_buckets[BucketOf(key)];
        const std::lock_guard lock(m_locks[BucketOf(key)]);
        const auto place = Locate(bucket, key);
        return place != bucket.end() ? place->node : nullptr;
    }

    // Calls `change` with the node of this key under the lock; true if it is there.
    template <class Change>
    bool Modify(Key key, Change change) {
        List& bucket = m_buckets[BucketOf(key)];
        const std::lock_guard lock(m_locks[BucketOf(key)]);
        const auto place = Locate(bucket, key);
        if (place == bucket.end()) {
            return false;
        }
        change(*place->node);
        return true;
    }

    // Takes the node with this key out; true if it was there.
    bool Remove(Key key) {
        return DropIf(key, [key](const NodeT& node) { return node.*kKey == key; }) != 0;
    }

    // Empties the bucket of `key`, whatever keys it has.
    void ClearBucket(Key key) {
        DropIf(key, [](const NodeT&) { return true; });
    }

    // Takes every node out of the bucket of `key` for which `unwanted` is true; yields how many.
    template <class Predicate>
    size_t DropIf(Key key, Predicate unwanted) {
        List dropped;
        {
            List& bucket = m_buckets[BucketOf(key)];
            const std::lock_guard lock(m_locks[BucketOf(key)]);
            const auto goes = [&](const Entry& entry) { return unwanted(*entry.node); };
            auto kept = std::find_if(bucket.begin(), bucket.end(), goes);
            if (kept == bucket.end()) {
                return 0;
            }
            // Should this allocation fail, the list is as it was. Nothing below can.
            dropped.reserve(static_cast<size_t>(bucket.end() - kept));
            for (auto place = kept; place != bucket.end(); ++place) {
                if (goes(*place)) {
                    dropped.push_back(std::move(*place));
                } else {
                    *kept++ = std::move(*place);
                }
            }
            bucket.erase(kept, bucket.end());
        }
        m_nodeCount.fetch_sub(static_cast<uint32_t>(dropped.size()), std::memory_order_relaxed);
        return dropped.size();
    }

    // Calls `visit` with the index and the list of every bucket that is not empty, its lock held.
    // A caller whose visitor reaches a cancellation point turns cancellation off.
    template <class Visit>
    void ForEachBucket(Visit visit) const {
        for (size_t index = 0; index < kBucketCount; ++index) {
            const std::lock_guard lock(m_locks[index]);
            if (!m_buckets[index].empty()) {
                visit(index, m_buckets[index]);
            }
        }
    }

    // Number of nodes in all buckets; may lag behind the lists for a moment.
    [[nodiscard]] uint32_t NodeCount() const { return m_nodeCount.load(std::memory_order_relaxed); }

  private:
    static size_t BucketOf(Key key) {
        return static_cast<size_t>(key & static_cast<Key>(kBucketCount - 1));
    }

    // First place whose key is not smaller, or the end. The loop takes the same way for any key, so
    // that no branch of it is mispredicted.
    template <class AnyList>
    static auto LowerBound(AnyList& bucket, Key key) {
        auto first = bucket.begin();
        for (auto count = bucket.end() - first; count > 0;) {
            const auto half = (count + 1) / 2;
            first += first[half - 1].key < key ? half : 0;
            count -= half;
        }
        return first;
    }

    // The place of this key, or the end if it is not there.
    template <class AnyList>
    static auto Locate(AnyList& bucket, Key key) {
        const auto place = LowerBound(bucket, key);
        return place != bucket.end() && place->key == key ? place : bucket.end();
    }

    std::array<List, kBucketCount> m_buckets;
    mutable std::array<SpinLock, kBucketCount> m_locks;
    std::atomic<uint32_t> m_nodeCount = 0;
};

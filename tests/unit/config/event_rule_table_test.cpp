#include "config/event_rule_table.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/allocation_count.h"

namespace {

class EventRuleTableTest : public testing::Test {
  protected:
    EventRuleTableTest() { table.Initialize(); }

    void Enter(uint32_t id, const std::string& eventName = "name") {
        table.SetEventName(id, eventName);
        ASSERT_TRUE(table.Commit());
    }

    // The name that an id has in the table, "-" if it is not there.
    std::string NameOf(uint32_t id) {
        const std::shared_ptr<Node> node = table.Find(id);
        return node ? node->eventName : "-";
    }

    std::string Dumped() {
        testing::internal::CaptureStdout();
        table.Dump();
        return testing::internal::GetCapturedStdout();
    }

    EventRuleTable table;
};

using EventRuleTablePending = EventRuleTableTest;
using EventRuleTableCommit = EventRuleTableTest;
using EventRuleTableFind = EventRuleTableTest;
using EventRuleTableRemove = EventRuleTableTest;
using EventRuleTableClear = EventRuleTableTest;
using EventRuleTableDump = EventRuleTableTest;
using EventRuleTableThreads = EventRuleTableTest;

TEST_F(EventRuleTablePending, IsAbsentAtFirst) {
    EXPECT_EQ(0U, table.PendingId());
}

TEST_F(EventRuleTablePending, StartsWithEveryFieldZeroOrEmpty) {
    table.SetSeverity(7, 0);
    ASSERT_TRUE(table.Commit());
    const auto node = table.Find(7);
    ASSERT_TRUE(node);
    EXPECT_EQ(nullptr, node->link);
    EXPECT_EQ(7U, node->id);
    EXPECT_EQ(0U, node->severity);
    EXPECT_EQ("", node->rule);
    EXPECT_EQ("", node->eventName);
    EXPECT_EQ("", node->userResponse);
    EXPECT_EQ(0U, node->userResponseFlags);
    EXPECT_EQ(0U, node->responseFlags);
    EXPECT_TRUE(node->blockRules.empty());
}

TEST_F(EventRuleTablePending, GathersWhatTheSettersOfOneIdWrite) {
    EXPECT_TRUE(table.SetSeverity(7, 3));
    EXPECT_TRUE(table.SetRule(7, "rule"));
    EXPECT_TRUE(table.SetEventName(7, "name"));
    EXPECT_TRUE(table.SetUserResponse(7, "response"));
    EXPECT_TRUE(table.SetUserResponseFlags(7, 0x41));
    EXPECT_TRUE(table.SetResponseFlags(7, 0x0C));
    EXPECT_TRUE(table.AddBlockRule(7, {1, 2, 3}));
    EXPECT_TRUE(table.AddBlockRule(7, {4, 5, 6}));
    EXPECT_EQ(7U, table.PendingId());
    ASSERT_TRUE(table.Commit());

    const auto node = table.Find(7);
    ASSERT_TRUE(node);
    EXPECT_EQ(3U, node->severity);
    EXPECT_EQ("rule", node->rule);
    EXPECT_EQ("name", node->eventName);
    EXPECT_EQ("response", node->userResponse);
    EXPECT_EQ(0x41U, node->userResponseFlags);
    EXPECT_EQ(0x0CU, node->responseFlags);
    ASSERT_EQ(2U, node->blockRules.size());
    EXPECT_EQ(1U, node->blockRules.front().flags);
    EXPECT_EQ(2U, node->blockRules.front().duration);
    EXPECT_EQ(3U, node->blockRules.front().rateLimit);
    EXPECT_EQ(4U, node->blockRules.back().flags);
}

TEST_F(EventRuleTablePending, IsLostWhenASetterNamesAnotherId) {
    table.SetEventName(7, "seven");
    table.SetEventName(8, "eight");
    EXPECT_EQ(8U, table.PendingId());
    ASSERT_TRUE(table.Commit());
    EXPECT_EQ("-", NameOf(7));
    EXPECT_EQ("eight", NameOf(8));
}

TEST_F(EventRuleTableCommit, CountsFromZeroAfterInitialize) {
    Enter(7);
    table.Initialize();
    EXPECT_EQ(0U, table.NodeCount());
}

TEST_F(EventRuleTableCommit, SucceedsWithNothingPending) {
    EXPECT_TRUE(table.Commit());
    EXPECT_EQ(0U, table.NodeCount());
}

TEST_F(EventRuleTableCommit, MovesThePendingNodeIntoTheTable) {
    Enter(7, "seven");
    EXPECT_EQ(0U, table.PendingId());
    EXPECT_EQ("seven", NameOf(7));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableCommit, RefusesAnIdThatIsInTheTableAndKeepsItPending) {
    Enter(7, "first");
    table.SetEventName(7, "second");
    EXPECT_FALSE(table.Commit());
    EXPECT_EQ("first", NameOf(7));
    EXPECT_EQ(7U, table.PendingId());
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableCommit, RefusedNodeIsDiscardedByASetterForAnotherId) {
    Enter(7, "first");
    table.SetEventName(7, "second");
    ASSERT_FALSE(table.Commit());
    Enter(8, "eight");
    ASSERT_TRUE(table.Remove(7));
    EXPECT_TRUE(table.Commit());
    EXPECT_EQ("-", NameOf(7));
}

TEST_F(EventRuleTableCommit, RefusedNodeEntersOnceItsIdIsFree) {
    Enter(7, "first");
    table.SetEventName(7, "second");
    ASSERT_FALSE(table.Commit());
    table.Clear();
    EXPECT_TRUE(table.Commit());
    EXPECT_EQ("second", NameOf(7));
}

TEST_F(EventRuleTableCommit, OrdersTheKeysOfOneBucketWhicheverCameFirst) {
    for (const auto& order : {std::vector<uint32_t>{1, 257, 513}, {513, 257, 1}, {257, 1, 513}}) {
        table.Clear();
        for (const uint32_t id : order) {
            Enter(id);
        }
        const std::string dump = Dumped();
        const size_t first = dump.find("ID:1\n");
        const size_t second = dump.find("ID:257\n");
        const size_t third = dump.find("ID:513\n");
        ASSERT_NE(std::string::npos, third);
        EXPECT_LT(first, second);
        EXPECT_LT(second, third);
    }
}

TEST_F(EventRuleTableCommit, ComparesKeysAsUnsigned) {
    Enter(0xFFFFFF01, "top");
    Enter(1, "bottom");
    const std::string dump = Dumped();
    EXPECT_LT(dump.find("ID:1\n"), dump.find("ID:4294967041\n"));
}

TEST_F(EventRuleTableCommit, ReleasesTheLockAndKeepsTheNodeWhenAllocationFails) {
    table.SetEventName(7, "seven");
    if (!FailNextAllocation()) {
        GTEST_SKIP() << "the allocator of a sanitizer does not fail";
    }
    EXPECT_THROW((void)table.Commit(), std::bad_alloc);
    EXPECT_EQ("-", NameOf(7)) << "a lock that was not released would hang here";
    EXPECT_EQ(7U, table.PendingId());
    EXPECT_TRUE(table.Commit());
    EXPECT_EQ("seven", NameOf(7));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableFind, YieldsNothingForAnIdThatIsOnlyPending) {
    table.SetEventName(7, "seven");
    EXPECT_EQ(nullptr, table.Find(7));
}

TEST_F(EventRuleTableFind, YieldsNothingForAnAbsentIdOfAFilledBucket) {
    Enter(1);
    Enter(513);
    EXPECT_EQ(nullptr, table.Find(257));
    EXPECT_EQ(nullptr, table.Find(769));
}

// The ids of one bucket, from every second multiple of the number of buckets.
TEST_F(EventRuleTableFind, FindsEachIdOfABucketOfAnySizeAndNoneBetweenThem) {
    constexpr uint32_t kStep = 2 * EventRuleTable::kBucketCount;
    for (uint32_t size = 0; size < 20; ++size) {
        table.Clear();
        for (uint32_t i = 0; i < size; ++i) {
            // From both ends to the middle.
            const uint32_t place = i % 2 == 0 ? i / 2 : size - 1 - i / 2;
            const uint32_t id = kStep * (place + 1);
            Enter(id, std::to_string(id));
        }
        ASSERT_EQ(size, table.NodeCount());
        for (uint32_t i = 0; i < size; ++i) {
            const uint32_t id = kStep * (i + 1);
            EXPECT_EQ(std::to_string(id), NameOf(id));
            EXPECT_EQ("-", NameOf(id - kStep / 2));
        }
        EXPECT_EQ("-", NameOf(kStep * size + kStep / 2));
        EXPECT_EQ("-", NameOf(kStep * (size + 1)));
    }
}

TEST_F(EventRuleTableFind, AllocatesNothing) {
    for (uint32_t id = 1; id <= 2000; ++id) {
        Enter(id);
    }
    const uint64_t before = AllocationCount();
    const auto hit = table.Find(1999);
    const auto miss = table.Find(5000);
    EXPECT_EQ(AllocationCount(), before);
    EXPECT_TRUE(hit);
    EXPECT_FALSE(miss);
}

TEST_F(EventRuleTableFind, ReferenceStaysReadableAfterClear) {
    Enter(7, "seven");
    const auto node = table.Find(7);
    table.Clear();
    ASSERT_TRUE(node);
    EXPECT_EQ(1, node.use_count());
    EXPECT_EQ("seven", node->eventName);
}

TEST_F(EventRuleTableRemove, LeavesTheOtherKeyOfTheBucket) {
    Enter(1, "one");
    Enter(257, "other");
    EXPECT_TRUE(table.Remove(1));
    EXPECT_EQ("-", NameOf(1));
    EXPECT_EQ("other", NameOf(257));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableRemove, LeavesTheOthersInTheirOrderAndReleasesTheNode) {
    for (const uint32_t id : {1U, 257U, 513U, 769U, 1025U}) {
        Enter(id, "name of " + std::to_string(id));
    }
    const auto node = table.Find(513);
    EXPECT_TRUE(table.Remove(513));
    EXPECT_EQ(1, node.use_count());
    EXPECT_EQ("name of 513", node->eventName);
    for (const uint32_t id : {1U, 257U, 769U, 1025U}) {
        EXPECT_EQ("name of " + std::to_string(id), NameOf(id));
    }
    EXPECT_EQ(4U, table.NodeCount());
    Enter(513, "again");
    EXPECT_EQ("again", NameOf(513));
    const std::string dump = Dumped();
    EXPECT_LT(dump.find("ID:257\n"), dump.find("ID:513\n"));
    EXPECT_LT(dump.find("ID:513\n"), dump.find("ID:769\n"));
}

TEST_F(EventRuleTableRemove, TellsThatAnIdIsAbsent) {
    Enter(1);
    EXPECT_FALSE(table.Remove(257));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableClear, EmptiesEveryBucket) {
    for (uint32_t id = 1; id <= 600; ++id) {
        Enter(id);
    }
    table.Clear();
    EXPECT_EQ(0U, table.NodeCount());
    EXPECT_EQ("-", NameOf(256));
    EXPECT_EQ("-", NameOf(511));
}

TEST_F(EventRuleTableClear, KeepsThePendingNode) {
    table.SetEventName(7, "seven");
    table.Clear();
    EXPECT_EQ(7U, table.PendingId());
    ASSERT_TRUE(table.Commit());
    EXPECT_EQ("seven", NameOf(7));
}

TEST_F(EventRuleTableClear, OfOneBucketLeavesTheOthers) {
    Enter(1);
    Enter(257);
    Enter(2, "two");
    table.ClearBucket(513);
    EXPECT_EQ("-", NameOf(1));
    EXPECT_EQ("-", NameOf(257));
    EXPECT_EQ("two", NameOf(2));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(EventRuleTableDump, ShowsAnEmptyTableAsItsFrame) {
    EXPECT_EQ(
        "-----------------------------\n"
        "Bucket Size: 256\n"
        "Node Count: 0\n"
        "-----------------------------\n"
        "-----------------------------\n",
        Dumped());
}

TEST_F(EventRuleTableDump, NamesTheBucketsByTheLowestEightBits) {
    Enter(200);
    Enter(0x1234FF);
    const std::string dump = Dumped();
    EXPECT_NE(std::string::npos, dump.find("Bucket[200] => "));
    EXPECT_NE(std::string::npos, dump.find("Bucket[255] => "));
}

TEST_F(EventRuleTableDump, ShowsEveryFieldUnderItsShortName) {
    table.SetSeverity(258, 2);
    table.SetRule(258, "alert tcp");
    table.SetEventName(258, "A name");
    table.SetUserResponse(258, "LOGEVIDENCE");
    table.SetUserResponseFlags(258, 0x41);
    table.SetResponseFlags(258, 0x0C);
    table.AddBlockRule(258, {0x101, 60, 10});
    table.AddBlockRule(258, {5, 0, 0});
    ASSERT_TRUE(table.Commit());
    EXPECT_EQ(
        "-----------------------------\n"
        "Bucket Size: 256\n"
        "Node Count: 1\n"
        "-----------------------------\n"
        "Bucket[2] => \n"
        "    (  ID:258\n"
        "       SV:2\n"
        "       RL:alert tcp\n"
        "       EN:A name\n"
        "       UR:LOGEVIDENCE\n"
        "       URF:65\n"
        "       R:12\n"
        "       QR:( BF:257, BD:60, RL:10 )->( BF:5, BD:0, RL:0 )->\n"
        "    ) -> \n"
        "\n"
        "-----------------------------\n",
        Dumped());
}

// A cancel that is pending may land at any write, and a table of this size takes several.
TEST_F(EventRuleTableDump, IsCompleteOnAThreadThatIsBeingCancelled) {
    for (uint32_t id = 1; id <= 256; ++id) {
        Enter(id, std::string(100, 'x'));
    }
    const std::string whole = Dumped();
    void* result = nullptr;
    pthread_t thread;
    const auto run = [](void* dumped) -> void* {
        pthread_cancel(pthread_self());
        static_cast<EventRuleTable*>(dumped)->Dump();
        pthread_testcancel();
        return nullptr;
    };
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, pthread_create(&thread, nullptr, run, &table));
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), whole);
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

// Four readers look up while the one writer empties and fills the table. Whatever they find is
// whole; under the thread sanitizer this also proves the hand-over.
TEST_F(EventRuleTableThreads, ReadersFindWholeNodesWhileTheWriterReloads) {
    constexpr uint32_t kIds = 512;
    std::atomic<bool> stop = false;
    std::atomic<unsigned> torn = 0;
    std::atomic<unsigned> found = 0;
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 4; ++reader) {
        readers.emplace_back([&] {
            for (uint32_t id = 1; !stop.load(); id = id % kIds + 1) {
                const auto node = table.Find(id);
                if (!node) {
                    continue;
                }
                ++found;
                if (node->id != id || node->eventName != std::to_string(id) ||
                    node->blockRules.size() != 1 || node->blockRules.front().duration != id) {
                    ++torn;
                }
            }
        });
    }
    for (int reload = 0; reload < 20 || (found.load() == 0 && reload < 100000); ++reload) {
        table.Clear();
        for (uint32_t id = 1; id <= kIds; ++id) {
            table.SetEventName(id, std::to_string(id));
            table.AddBlockRule(id, {1, id, 0});
            ASSERT_TRUE(table.Commit());
        }
    }
    stop = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(0U, torn.load());
    EXPECT_GT(found.load(), 0U);
    EXPECT_EQ(kIds, table.NodeCount());
}

}  // namespace

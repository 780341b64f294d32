#include "packet_log/connection_table.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace {

class ConnectionTableTest : public testing::Test {
  protected:
    ConnectionTableTest() { table.Initialize(); }

    // Whether the key is in the table: an insertion is refused exactly then.
    bool Holds(uint64_t key) {
        if (table.Insert(key, 0, 1) == nullptr) {
            return true;
        }
        table.Remove(key);
        return false;
    }

    std::string Dumped() {
        testing::internal::CaptureStdout();
        table.Dump();
        return testing::internal::GetCapturedStdout();
    }

    static constexpr uint64_t kKey = 0x123456789ABC0001;
    static constexpr uint64_t kNeighbour = kKey + LOCK_FREE_HASH_MAP::kBucketCount;

    // Of a megabyte's size with its instrumentation, so not on the stack.
    std::unique_ptr<LOCK_FREE_HASH_MAP> owned = std::make_unique<LOCK_FREE_HASH_MAP>();
    LOCK_FREE_HASH_MAP& table = *owned;
};

using ConnectionTableInsert = ConnectionTableTest;
using ConnectionTableUpdate = ConnectionTableTest;
using ConnectionTableRemove = ConnectionTableTest;
using ConnectionTableInitialize = ConnectionTableTest;
using ConnectionTableDump = ConnectionTableTest;
using ConnectionTableThreads = ConnectionTableTest;

TEST_F(ConnectionTableInsert, YieldsTheNewNode) {
    const LOCK_FREE_HASH_MAP::Node* node = table.Insert(kKey, 1000, 5);
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(nullptr, node->link);
    EXPECT_EQ(kKey, node->key);
    EXPECT_EQ(1000U, node->timestamp);
    EXPECT_EQ(5U, node->remaining);
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(ConnectionTableInsert, LeavesTheOldNodeOfAKeyThatIsThere) {
    const LOCK_FREE_HASH_MAP::Node* node = table.Insert(kKey, 1000, 5);
    EXPECT_EQ(nullptr, table.Insert(kKey, 2000, 9));
    EXPECT_EQ(1000U, node->timestamp);
    EXPECT_EQ(5U, node->remaining);
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(ConnectionTableInsert, OrdersTheKeysOfOneBucketAsUnsigned) {
    const uint64_t top = 0xFFFFFFFFFFFFC001;  // low 14 bits are 1, as in kKey
    ASSERT_EQ(kKey % LOCK_FREE_HASH_MAP::kBucketCount, top % LOCK_FREE_HASH_MAP::kBucketCount);
    ASSERT_NE(nullptr, table.Insert(top, 0, 1));
    ASSERT_NE(nullptr, table.Insert(kNeighbour, 0, 1));
    ASSERT_NE(nullptr, table.Insert(kKey, 0, 1));
    EXPECT_NE(std::string::npos, Dumped().find("] => (" + std::to_string(kKey) + ") -> (" +
                                               std::to_string(kNeighbour) + ") -> (" +
                                               std::to_string(top) + ") -> \n"));
}

TEST_F(ConnectionTableUpdate, StoresACountThatIsNotZero) {
    const LOCK_FREE_HASH_MAP::Node* node = table.Insert(kKey, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 1000, 9));
    EXPECT_EQ(9U, node->remaining);
}

TEST_F(ConnectionTableUpdate, TakesOneOffForACountOfZero) {
    const LOCK_FREE_HASH_MAP::Node* node = table.Insert(kKey, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 1000, 0));
    EXPECT_EQ(4U, node->remaining);
}

TEST_F(ConnectionTableUpdate, RemovesTheNodeWhoseLastCountItTakes) {
    table.Insert(kKey, 1000, 1);
    EXPECT_TRUE(table.Update(kKey, 1000, 0));
    EXPECT_FALSE(Holds(kKey));
    EXPECT_EQ(0U, table.NodeCount());
}

TEST_F(ConnectionTableUpdate, KeepsANodeWhoseCountWrapsBelowZero) {
    const LOCK_FREE_HASH_MAP::Node* node = table.Insert(kKey, 1000, 0);
    EXPECT_TRUE(table.Update(kKey, 1000, 0));
    ASSERT_TRUE(Holds(kKey));
    EXPECT_EQ(0xFFFFFFFFU, node->remaining);
}

TEST_F(ConnectionTableUpdate, KeepsANodeOfExactlyTheGreatestAge) {
    table.Insert(kKey, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 1300, 0));
    EXPECT_TRUE(Holds(kKey));
}

TEST_F(ConnectionTableUpdate, RemovesANodeOneSecondOlder) {
    table.Insert(kKey, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 1301, 0)) << "it was found, and then swept";
    EXPECT_FALSE(Holds(kKey));
}

TEST_F(ConnectionTableUpdate, KeepsToUnsignedAgesAndSoDropsANodeOfTheFuture) {
    table.Insert(kKey, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 999, 0));
    EXPECT_FALSE(Holds(kKey));
}

TEST_F(ConnectionTableUpdate, CountsTheAgeAcrossTheWrapOfTheClock) {
    table.Insert(kKey, 0xFFFFFFFF, 5);
    EXPECT_TRUE(table.Update(kKey, 299, 0));
    EXPECT_TRUE(Holds(kKey));
}

TEST_F(ConnectionTableUpdate, SweepsTheWholeBucketAndNoOther) {
    table.Insert(kKey, 2000, 5);
    table.Insert(kNeighbour, 1000, 5);
    table.Insert(kKey + 1, 1000, 5);
    EXPECT_TRUE(table.Update(kKey, 2000, 0));
    EXPECT_TRUE(Holds(kKey));
    EXPECT_FALSE(Holds(kNeighbour));
    EXPECT_TRUE(Holds(kKey + 1));
    EXPECT_EQ(2U, table.NodeCount());
}

TEST_F(ConnectionTableUpdate, SweepsTheBucketOfAnAbsentKey) {
    table.Insert(kNeighbour, 1000, 5);
    EXPECT_FALSE(table.Update(kKey, 2000, 0));
    EXPECT_FALSE(Holds(kNeighbour));
    EXPECT_EQ(0U, table.NodeCount());
}

TEST_F(ConnectionTableRemove, TakesOutOneKeyOfABucket) {
    table.Insert(kKey, 0, 1);
    table.Insert(kNeighbour, 0, 1);
    table.Remove(kKey);
    EXPECT_FALSE(Holds(kKey));
    EXPECT_TRUE(Holds(kNeighbour));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(ConnectionTableRemove, LeavesTheTableAloneForAnAbsentKey) {
    table.Insert(kKey, 0, 1);
    table.Remove(kNeighbour);
    EXPECT_TRUE(Holds(kKey));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(ConnectionTableRemove, OfABucketTakesOutAllItsKeys) {
    table.Insert(kKey, 0, 1);
    table.Insert(kNeighbour, 0, 1);
    table.Insert(kKey + 1, 0, 1);
    table.ClearBucket(kKey);
    EXPECT_FALSE(Holds(kKey));
    EXPECT_FALSE(Holds(kNeighbour));
    EXPECT_TRUE(Holds(kKey + 1));
    EXPECT_EQ(1U, table.NodeCount());
}

TEST_F(ConnectionTableInitialize, ResetsTheCountAndLeavesTheNodes) {
    table.Insert(kKey, 0, 1);
    table.Initialize();
    EXPECT_EQ(0U, table.NodeCount());
    EXPECT_TRUE(Holds(kKey));
}

TEST_F(ConnectionTableDump, ShowsTheKeysOfEachBucketOnOneLine) {
    table.Insert(1, 0, 1);
    table.Insert(16385, 0, 1);
    table.Insert(2, 0, 1);
    EXPECT_EQ(
        "-----------------------------\n"
        "Bucket Size: 16384\n"
        "-----------------------------\n"
        "Bucket[1] => (1) -> (16385) -> \n"
        "Bucket[2] => (2) -> \n"
        "-----------------------------\n",
        Dumped());
}

TEST_F(ConnectionTableThreads, CountStaysTrueWhenThreadsMeetInOneBucket) {
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (uint64_t number = 0; number < 4; ++number) {
        threads.emplace_back([this, number] {
            const uint64_t key = kKey + number * LOCK_FREE_HASH_MAP::kBucketCount;
            for (int round = 0; round < kRounds; ++round) {
                table.Insert(key, 1000, 2);
                table.Update(key, 1000, 0);
                table.Update(key, 1000, 0);  // and here the node goes
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0U, table.NodeCount());
    EXPECT_FALSE(Holds(kKey));
}

}  // namespace

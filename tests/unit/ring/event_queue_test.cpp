#include "ring/event_queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "support/ring_fixture.h"

namespace {

// A queue name of this process's own, nothing of which stays.
class EventQueueTest : public testing::Test {
  protected:
    EventQueueTest() { Clear(); }
    ~EventQueueTest() override { Clear(); }

    std::string Ring(int index, int ring) const {
        return "/var/tmp/EventQueue" + m_name + std::to_string(index) + "-" + std::to_string(ring);
    }
    std::string Semaphore() const { return "/EventQueue" + m_name + ".sem"; }

    // The mode that a queue gives its semaphore lets only a privileged process attach to it again,
    // so the tests that attach twice bring one of their own.
    void MakeSemaphore(unsigned posts = 0) const {
        sem_t* const semaphore = sem_open(Semaphore().c_str(), O_CREAT, 0600, posts);
        ASSERT_NE(SEM_FAILED, semaphore);
        sem_close(semaphore);
    }
    bool SemaphoreExists() const {
        return std::filesystem::exists("/dev/shm/sem." + Semaphore().substr(1));
    }

    void Clear() const {
        for (int index = 0; index < 16; ++index) {
            std::filesystem::remove_all(Ring(index, 0));
            std::filesystem::remove_all(Ring(index, 1));
        }
        sem_unlink(Semaphore().c_str());
    }

    static void Send(EventQueue& queue, size_t ring, const Bytes& message) {
        const auto length = static_cast<uint32_t>(message.size());
        ASSERT_EQ(PIPE_OK, queue.m_pairs[0]->m_aPipes[ring].write(message.data(), &length));
        ASSERT_EQ(0, sem_post(queue.m_pSem));
    }

    static Bytes Receive(EventQueue& queue, size_t pair, size_t ring) {
        Bytes message(4096);
        uint32_t size = 4096;
        (void)queue.m_pairs[pair]->m_aPipes[ring].read(message.data(), &size);
        message.resize(size);
        return message;
    }

    const std::string m_name = "Test" + std::to_string(getpid()) + "x";
    const char* const m_szName = m_name.c_str();
};

using EventQueueWriter = EventQueueTest;
using EventQueueReader = EventQueueTest;
using EventQueueOpen = EventQueueTest;
using EventQueueDestroy = EventQueueTest;
using ShmEventPipePairTest = EventQueueTest;

TEST_F(EventQueueWriter, HasThePairOfItsIndexAlone) {
    const EventQueue queue("CRM", 3, 1);
    EXPECT_EQ(0U, queue.m_uReserved);
    EXPECT_EQ(1U, queue.m_uPairCount);
    ASSERT_EQ(1U, queue.m_pairs.size());
    EXPECT_EQ("/EventQueueCRM.sem", queue.m_strSemName);
    EXPECT_EQ(nullptr, queue.m_pSem);
    EXPECT_EQ(1, queue.m_iWriterSide);
    EXPECT_EQ(nullptr, queue.m_pfnLog);
    const ShmEventPipePair& pair = *queue.m_pairs[0];
    EXPECT_EQ(WRITER, pair.m_eRole);
    EXPECT_EQ(WRITER, pair.m_aPipes[0].m_eRole);
    EXPECT_EQ("/var/tmp/EventQueueCRM3-0", pair.m_aPipes[0].m_strPath);
    EXPECT_EQ(8388608U, pair.m_aPipes[0].m_uSize);
    EXPECT_EQ(WRITER, pair.m_aPipes[1].m_eRole);
    EXPECT_EQ("/var/tmp/EventQueueCRM3-1", pair.m_aPipes[1].m_strPath);
    EXPECT_EQ(262144U, pair.m_aPipes[1].m_uSize);
    EXPECT_EQ(nullptr, pair.m_aPipes[0].m_pfnLog);
}

TEST_F(EventQueueWriter, PutsIndexAndSuffixAfterTheNameWithNoSeparator) {
    const EventQueue queue("CRM", 12, 1);
    EXPECT_EQ("/var/tmp/EventQueueCRM12-0", queue.m_pairs[0]->m_aPipes[0].m_strPath);
}

TEST_F(EventQueueWriter, LeavesTheFilesOfAnEarlierRun) {
    std::ofstream(Ring(3, 0)) << "earlier";
    const EventQueue queue(m_szName, 3, 1);
    EXPECT_TRUE(std::filesystem::exists(Ring(3, 0)));
}

TEST_F(EventQueueReader, HasOnePairForEachIndexBelowItsCount) {
    const EventQueue queue(m_szName, EventQueue::ForReader::kTag, 3);
    EXPECT_EQ(3U, queue.m_uPairCount);
    ASSERT_EQ(3U, queue.m_pairs.size());
    EXPECT_EQ(Semaphore(), queue.m_strSemName);
    EXPECT_EQ(0, queue.m_iWriterSide);
    for (int index = 0; index < 3; ++index) {
        const ShmEventPipePair& pair = *queue.m_pairs[static_cast<size_t>(index)];
        EXPECT_EQ(READER, pair.m_eRole);
        EXPECT_EQ(Ring(index, 0), pair.m_aPipes[0].m_strPath);
        EXPECT_EQ(Ring(index, 1), pair.m_aPipes[1].m_strPath);
        EXPECT_EQ(READER, pair.m_aPipes[1].m_eRole);
    }
}

TEST_F(EventQueueReader, RemovesTheFilesOfAnEarlierRun) {
    std::ofstream(Ring(0, 0)) << "earlier";
    std::ofstream(Ring(1, 1)) << "earlier";
    std::ofstream(Ring(2, 0)) << "not this reader's";
    const EventQueue queue(m_szName, EventQueue::ForReader::kTag, 2);
    EXPECT_FALSE(std::filesystem::exists(Ring(0, 0)));
    EXPECT_FALSE(std::filesystem::exists(Ring(1, 1)));
    EXPECT_TRUE(std::filesystem::exists(Ring(2, 0)));
}

TEST_F(EventQueueReader, WithACountOfZeroOpensTheSemaphoreAlone) {
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 0);
    EXPECT_EQ(0U, queue.m_uPairCount);
    EXPECT_EQ(0, queue.Open());
    EXPECT_NE(nullptr, queue.m_pSem);
    EXPECT_TRUE(SemaphoreExists());
}

TEST_F(EventQueueOpen, MakesSemaphoreAndBothRings) {
    EventQueue queue(m_szName, 4, 1);
    EXPECT_EQ(0, queue.Open());
    EXPECT_EQ(8388608U, std::filesystem::file_size(Ring(4, 0)));
    EXPECT_EQ(262144U, std::filesystem::file_size(Ring(4, 1)));
    int posts = -1;
    EXPECT_EQ(0, sem_getvalue(queue.m_pSem, &posts));
    EXPECT_EQ(0, posts);
}

TEST_F(EventQueueOpen, KeepsMakingASemaphoreThatOnlyOthersMayWrite) {
    const mode_t former = umask(0);
    EventQueue queue(m_szName, 4, 1);
    EXPECT_EQ(0, queue.Open());
    umask(former);
    struct stat status {};
    ASSERT_EQ(0, stat(("/dev/shm/sem." + Semaphore().substr(1)).c_str(), &status));
    EXPECT_EQ(2U, status.st_mode & 07777U);
}

TEST_F(EventQueueOpen, AttachesToASemaphoreThatExists) {
    MakeSemaphore(5);
    EventQueue queue(m_szName, 4, 1);
    ASSERT_EQ(0, queue.Open());
    int posts = 0;
    EXPECT_EQ(0, sem_getvalue(queue.m_pSem, &posts));
    EXPECT_EQ(5, posts);
}

TEST_F(EventQueueOpen, ReturnsTheErrnoOfTheSemaphoreAndOpensNoRing) {
    const std::string bad = m_name + "/";
    EventQueue queue(bad.c_str(), 4, 1);
    EXPECT_EQ(EINVAL, queue.Open());
    EXPECT_EQ(nullptr, queue.m_pSem);
    EXPECT_FALSE(queue.m_pairs[0]->m_aPipes[0].m_bMapped);
}

TEST_F(EventQueueOpen, GoesOnPastARingThatFails) {
    std::filesystem::create_directory(Ring(0, 0));
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 2);
    EXPECT_EQ(-1, queue.Open());
    EXPECT_FALSE(queue.m_pairs[0]->m_aPipes[0].m_bMapped);
    EXPECT_TRUE(queue.m_pairs[0]->m_aPipes[1].m_bMapped);
    EXPECT_TRUE(queue.m_pairs[1]->m_aPipes[0].m_bMapped);
}

TEST_F(EventQueueOpen, AgainKeepsOneSemaphore) {
    MakeSemaphore();
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 0);
    ASSERT_EQ(0, queue.Open());
    ASSERT_EQ(0, queue.Open());
    EXPECT_EQ(0, sem_post(queue.m_pSem));
    EXPECT_EQ(0, sem_trywait(queue.m_pSem));
}

TEST_F(EventQueueOpen, LetsTwoWritersShareASemaphoreAndNoRing) {
    MakeSemaphore();
    EventQueue reader(m_szName, EventQueue::ForReader::kTag, 2);
    EventQueue first(m_szName, 0, 1);
    EventQueue second(m_szName, 1, 1);
    ASSERT_EQ(0, reader.Open());
    ASSERT_EQ(0, first.Open());
    ASSERT_EQ(0, second.Open());
    Send(first, 0, {1, 2, 3});
    Send(second, 1, {4, 5});
    EXPECT_EQ(0, sem_trywait(reader.m_pSem));
    EXPECT_EQ(0, sem_trywait(reader.m_pSem));
    EXPECT_EQ(-1, sem_trywait(reader.m_pSem));
    EXPECT_EQ((Bytes{1, 2, 3}), Receive(reader, 0, 0));
    EXPECT_EQ(Bytes{}, Receive(reader, 0, 1));
    EXPECT_EQ(Bytes{}, Receive(reader, 1, 0));
    EXPECT_EQ((Bytes{4, 5}), Receive(reader, 1, 1));
}

TEST_F(EventQueueOpen, InEitherOrderJoinsWriterAndReader) {
    MakeSemaphore();
    EventQueue reader(m_szName, EventQueue::ForReader::kTag, 1);
    EventQueue writer(m_szName, 0, 1);
    ASSERT_EQ(0, writer.Open());
    Send(writer, 0, {9});
    ASSERT_EQ(0, reader.Open());
    EXPECT_EQ(0, sem_trywait(reader.m_pSem));
    EXPECT_EQ(Bytes{9}, Receive(reader, 0, 0));
}

TEST_F(EventQueueOpen, KeepsPostsThatNobodyTookAcrossARestart) {
    MakeSemaphore();
    {
        EventQueue writer(m_szName, 0, 1);
        ASSERT_EQ(0, writer.Open());
        Send(writer, 0, {9});
    }
    EventQueue writer(m_szName, 0, 1);
    ASSERT_EQ(0, writer.Open());
    int posts = 0;
    EXPECT_EQ(0, sem_getvalue(writer.m_pSem, &posts));
    EXPECT_EQ(1, posts);
}

TEST_F(EventQueueDestroy, OfAWriterLeavesTheSemaphore) {
    EventQueue queue(m_szName, 0, 1);
    ASSERT_EQ(0, queue.Open());
    EXPECT_EQ(0, queue.Destroy());
    EXPECT_TRUE(SemaphoreExists());
    EXPECT_TRUE(std::filesystem::exists(Ring(0, 0)));
}

TEST_F(EventQueueDestroy, OfAReaderRemovesTheSemaphoreAndLeavesFilesThatOpenMade) {
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 1);
    ASSERT_EQ(0, queue.Open());
    EXPECT_EQ(0, queue.Destroy());
    EXPECT_FALSE(SemaphoreExists());
    EXPECT_TRUE(std::filesystem::exists(Ring(0, 0)));
}

TEST_F(EventQueueDestroy, GoesOnPastARingThatFails) {
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 2);
    ASSERT_TRUE(queue.m_pairs[0]->m_aPipes[0].Create());
    ASSERT_TRUE(queue.m_pairs[1]->m_aPipes[1].Create());
    std::filesystem::remove(Ring(0, 0));
    MakeSemaphore();
    EXPECT_EQ(1, queue.Destroy());
    EXPECT_FALSE(std::filesystem::exists(Ring(1, 1)));
    EXPECT_FALSE(SemaphoreExists());
}

TEST_F(EventQueueDestroy, ByTheDestructorRemovesNothing) {
    { EXPECT_EQ(0, EventQueue(m_szName, EventQueue::ForReader::kTag, 1).Open()); }
    EXPECT_TRUE(SemaphoreExists());
    EXPECT_TRUE(std::filesystem::exists(Ring(0, 0)));
    EXPECT_TRUE(std::filesystem::exists(Ring(0, 1)));
}

TEST_F(EventQueueOpen, FollowedByCloseUnmapsEveryRingAndKeepsTheSemaphore) {
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 2);
    ASSERT_EQ(0, queue.Open());
    EXPECT_EQ(0, queue.Close());
    for (const auto& pair : queue.m_pairs) {
        EXPECT_FALSE(pair->m_aPipes[0].m_bMapped);
        EXPECT_FALSE(pair->m_aPipes[1].m_bMapped);
    }
    ASSERT_NE(nullptr, queue.m_pSem);
    EXPECT_EQ(0, sem_post(queue.m_pSem));
}

TEST_F(EventQueueOpen, FollowedByACloseThatFailsGoesOnToTheOtherRings) {
    EventQueue queue(m_szName, EventQueue::ForReader::kTag, 2);
    ASSERT_EQ(0, queue.Open());
    ShmEventPipe& failing = queue.m_pairs[0]->m_aPipes[0];
    void* const map = failing.m_pMap;
    failing.m_pMap = static_cast<std::byte*>(map) + 4;
    EXPECT_EQ(1, queue.Close());
    failing.m_pMap = map;
    EXPECT_FALSE(queue.m_pairs[0]->m_aPipes[1].m_bMapped);
    EXPECT_FALSE(queue.m_pairs[1]->m_aPipes[0].m_bMapped);
}

TEST_F(ShmEventPipePairTest, KeepsTakingTheSecondRingsSizeFirst) {
    const ShmEventPipePair pair(READER, "/tmp/base", 101, 202, false);
    EXPECT_EQ("/tmp/base-0", pair.m_aPipes[0].m_strPath);
    EXPECT_EQ(204U, pair.m_aPipes[0].m_uSize);
    EXPECT_EQ("/tmp/base-1", pair.m_aPipes[1].m_strPath);
    EXPECT_EQ(104U, pair.m_aPipes[1].m_uSize);
}

TEST_F(ShmEventPipePairTest, RemovesStaleFilesOnlyWhenAsked) {
    const std::string base = Ring(0, 0).substr(0, Ring(0, 0).size() - 2);
    std::ofstream(Ring(0, 0)) << "stale";
    std::ofstream(Ring(0, 1)) << "stale";
    { const ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, false); }
    EXPECT_TRUE(std::filesystem::exists(Ring(0, 0)));
    { const ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, true); }
    EXPECT_FALSE(std::filesystem::exists(Ring(0, 0)));
    EXPECT_FALSE(std::filesystem::exists(Ring(0, 1)));
}

TEST_F(ShmEventPipePairTest, AppliesEveryOperationToBothRings) {
    const std::string base = Ring(0, 0).substr(0, Ring(0, 0).size() - 2);
    std::filesystem::create_directory(Ring(0, 0));
    ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, false);
    EXPECT_EQ(1, pair.Open());
    EXPECT_TRUE(pair.m_aPipes[1].m_bMapped);
    EXPECT_EQ(0, pair.Close());
    EXPECT_EQ(0, pair.Destroy());
}

TEST_F(ShmEventPipePairTest, DestroysTheSecondRingWhenTheFirstFails) {
    const std::string base = Ring(0, 0).substr(0, Ring(0, 0).size() - 2);
    ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, false);
    ASSERT_TRUE(pair.m_aPipes[0].Create() && pair.m_aPipes[1].Create());
    std::filesystem::remove(Ring(0, 0));
    EXPECT_EQ(1, pair.Destroy());
    EXPECT_FALSE(std::filesystem::exists(Ring(0, 1)));
}

TEST_F(ShmEventPipePairTest, FailsWhenTheSecondRingAloneFails) {
    const std::string base = Ring(0, 0).substr(0, Ring(0, 0).size() - 2);
    ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, false);
    std::filesystem::create_directory(Ring(0, 1));
    EXPECT_EQ(1, pair.Open());
    EXPECT_TRUE(pair.m_aPipes[0].m_bMapped);
    std::filesystem::remove(Ring(0, 1));
    ASSERT_TRUE(pair.m_aPipes[1].Create() && pair.m_aPipes[1].Open(true));
    void* const map = pair.m_aPipes[1].m_pMap;
    pair.m_aPipes[1].m_pMap = static_cast<std::byte*>(map) + 4;
    EXPECT_EQ(1, pair.Close());
    pair.m_aPipes[1].m_pMap = map;
    std::filesystem::remove(Ring(0, 1));
    EXPECT_EQ(1, pair.Destroy());
}

TEST_F(ShmEventPipePairTest, ClosesTheSecondRingWhenTheFirstFails) {
    const std::string base = Ring(0, 0).substr(0, Ring(0, 0).size() - 2);
    ShmEventPipePair pair(WRITER, base.c_str(), 64, 64, false);
    ASSERT_EQ(0, pair.Open());
    EXPECT_FALSE(pair.m_aPipes[0].m_bOpenOption || pair.m_aPipes[1].m_bOpenOption);
    void* const map = pair.m_aPipes[0].m_pMap;
    pair.m_aPipes[0].m_pMap = static_cast<std::byte*>(map) + 4;
    EXPECT_EQ(1, pair.Close());
    pair.m_aPipes[0].m_pMap = map;
    EXPECT_FALSE(pair.m_aPipes[1].m_bMapped);
}

}  // namespace

#include <fcntl.h>
#include <gmock/gmock.h>
#include <semaphore.h>

#include "ring/shm_event_pipe.h"
#include "tarnctl/health/parts.h"
#include "unit/tarnctl/health/made_up_machine.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint32_t kFileSize = 4096;
constexpr uint32_t kRingSize = kFileSize - kShmRingHeaderSize;

class QueueHealthTest : public testing::Test {
  protected:
    QueueHealthTest() : m_writer(WRITER, RingPath(0), kFileSize) {
        machine.AddProcess(MadeUpMachine::kDaemon, "tarn");
    }

    std::string RingPath(int ring) const {
        return machine.places.ringBase + "2-" + std::to_string(ring);
    }
    QueueHealth Look() {
        return LookAtQueue(machine.places, ProcessTable(machine.places.proc),
                           Known(2, std::string("test")), MadeUpMachine::kDaemon);
    }
    // The second of two looks, with something done between them.
    template <typename Between>
    RingHealth LookTwice(Between between) {
        const QueueHealth before = Look();
        between();
        QueueHealth now = Look();
        CompareQueues(before, now);
        return now.rings[0];
    }
    RingHealth LookTwice() {
        return LookTwice([] {});
    }
    void Open() { ASSERT_TRUE(m_writer.Open(true)); }
    void Write(uint32_t length) {
        const std::string bytes(length, 'x');
        ASSERT_EQ(PIPE_OK, m_writer.write(bytes.data(), &length));
    }
    void Read() {
        ShmEventPipe reader(READER, RingPath(0), kFileSize);
        ASSERT_TRUE(reader.Open(true));
        std::string bytes(kRingSize, '\0');
        uint32_t size = kRingSize;
        ASSERT_EQ(PIPE_OK, reader.read(bytes.data(), &size));
    }
    // Puts a word into the file.
    void Poke(off_t offset, uint32_t word) {
        const int fd = open(RingPath(0).c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_EQ(static_cast<ssize_t>(sizeof word), pwrite(fd, &word, sizeof word, offset));
        close(fd);
    }

    MadeUpMachine machine;
    ShmEventPipe m_writer;
};

TEST_F(QueueHealthTest, KnowsThatThereAreNoRings) {
    const QueueHealth health = Look();
    ASSERT_EQ(2U, health.rings.size());
    EXPECT_TRUE(health.rings[0].isThere.Is(false));
    EXPECT_EQ(RingPath(1), health.rings[1].path);
    EXPECT_FALSE(health.semaphore.IsKnown());
    EXPECT_FALSE(health.readers.IsKnown());
}

TEST_F(QueueHealthTest, CountsWhatWaits) {
    Open();
    for (const uint32_t length : {10U, 1U, 40U}) {
        Write(length);
    }
    const RingHealth ring = Look().rings[0];
    EXPECT_TRUE(ring.sizeBytes.Is(kRingSize));
    EXPECT_TRUE(ring.messages.Is(3));
    EXPECT_TRUE(ring.usedBytes.Is(16U + 8U + 44U));
    EXPECT_TRUE(ring.readIndex.Is(0U));
    EXPECT_TRUE(ring.writeIndex.Is(68U));
    EXPECT_FALSE(ring.motion.IsKnown());
    EXPECT_EQ("it takes two looks", ring.motion.reason);
}

TEST_F(QueueHealthTest, CountsAcrossTheEndOfTheRing) {
    Open();
    for (int turn = 0; turn < 9; ++turn) {
        Write(1000);
        Write(500);
        Read();
        Read();
    }
    Write(1000);
    Write(1000);
    const RingHealth ring = Look().rings[0];
    EXPECT_TRUE(ring.messages.Is(2));
    EXPECT_TRUE(ring.usedBytes.Is(2008));
}

TEST_F(QueueHealthTest, TellsEmptyMovingAndWaitingApart) {
    Open();
    EXPECT_TRUE(LookTwice().motion.Is(RingMotion::kEmpty));
    EXPECT_TRUE(LookTwice([this] { Write(8); }).motion.Is(RingMotion::kMoving));
    EXPECT_TRUE(LookTwice().motion.Is(RingMotion::kWaiting));
    EXPECT_TRUE(LookTwice([this] { Read(); }).motion.Is(RingMotion::kMoving));
}

TEST_F(QueueHealthTest, KnowsTheStatesThatNothingMoves) {
    Open();
    Write(8);
    constexpr off_t kFirstLength = kShmRingHeaderSize;
    Poke(kFirstLength, 0);
    RingHealth ring = LookTwice();
    EXPECT_TRUE(ring.motion.Is(RingMotion::kStuck));
    EXPECT_THAT(ring.stuckReason, HasSubstr("the length word at offset 0 is 0"));
    Poke(kFirstLength, kRingSize + 1);
    ring = LookTwice();
    EXPECT_TRUE(ring.motion.Is(RingMotion::kStuck));
    EXPECT_THAT(ring.stuckReason, HasSubstr("is 4089 in a ring of 4088"));
    Poke(kFirstLength, 8);
    EXPECT_TRUE(LookTwice().motion.Is(RingMotion::kWaiting));
    Poke(0, 2);
    ring = LookTwice();
    EXPECT_TRUE(ring.motion.Is(RingMotion::kStuck));
    EXPECT_EQ("the read index is 2, no multiple of 4", ring.stuckReason);
}

TEST_F(QueueHealthTest, DoesNotCallARingStuckThatOneLookFindsSo) {
    Open();
    Write(8);
    Write(8);
    EXPECT_TRUE(LookTwice([this] { Poke(kShmRingHeaderSize, 0); }).motion.Is(RingMotion::kWaiting));
    EXPECT_TRUE(LookTwice([this] { Poke(0, 12); }).motion.Is(RingMotion::kMoving));
}

TEST_F(QueueHealthTest, ChangesNothing) {
    Open();
    Write(8);
    const std::string before = machine.dir.Read("tmp/EventQueueCRM2-0");
    (void)LookTwice();
    EXPECT_EQ(before, machine.dir.Read("tmp/EventQueueCRM2-0"));
}

TEST_F(QueueHealthTest, SaysWhatIsNoRing) {
    machine.dir.Write("tmp/EventQueueCRM2-0", "short");
    EXPECT_THAT(Look().rings[0].usedBytes.reason, HasSubstr("is no ring"));
    std::filesystem::create_directory(RingPath(1));
    EXPECT_TRUE(Look().rings[1].isThere.Is(false));
    EXPECT_THAT(Look().rings[1].usedBytes.reason, HasSubstr("is no plain file"));
}

TEST_F(QueueHealthTest, ReadsTheSemaphoreWithoutTakingAPost) {
    sem_t semaphore = {};
    sem_init(&semaphore, 1, 3);
    machine.dir.Write("shm/sem.EventQueueCRM.sem",
                      std::string(reinterpret_cast<const char*>(&semaphore), sizeof semaphore));
    EXPECT_TRUE(Look().semaphore.Is(3));
    EXPECT_TRUE(Look().semaphore.Is(3));
    machine.dir.Write("shm/sem.EventQueueCRM.sem", "short");
    EXPECT_THAT(Look().semaphore.reason, HasSubstr("is no semaphore"));
}

TEST_F(QueueHealthTest, FindsTheReaderAndNotTheDaemon) {
    Open();
    machine.AddDescriptor(MadeUpMachine::kDaemon, 5, RingPath(0), O_RDWR);
    EXPECT_THAT(*Look().readers.value, IsEmpty());
    machine.AddProcess(50, "crm");
    machine.AddDescriptor(50, 4, RingPath(0), O_RDWR);
    machine.AddDescriptor(50, 6, RingPath(0), O_RDWR);
    machine.AddProcess(51, "looks");
    machine.AddDescriptor(51, 4, RingPath(0), O_RDONLY);
    EXPECT_THAT(*Look().readers.value, ElementsAre(Holder{50, 4, "crm"}));
}

}  // namespace
}  // namespace tarnctl

// The two sides at once, each against a peer that was written from the format alone: as threads
// for the thread sanitizer, and as processes.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "ring/shm_event_pipe.h"
#include "support/independent_ring.h"
#include "support/ring_fixture.h"
#include "support/ring_traffic.h"

namespace {

constexpr uint32_t kMessages = 200000;
constexpr uint32_t kFileSize = 8192 + 8;
constexpr uint32_t kLargest = 4000;
constexpr uint32_t kSeed = 7;

class ShmEventPipeExchange : public RingTest {
  protected:
    ShmEventPipeExchange() { EXPECT_TRUE(ShmEventPipe(WRITER, m_path, kFileSize).Create()); }

    // Each side returns whether all went well.
    bool PipeWrites() const {
        ShmEventPipe pipe(WRITER, m_path, kFileSize);
        bool sound = pipe.Open(true);
        RingTraffic traffic(kSeed);
        for (uint32_t number = 0; sound && number < kMessages; ++number) {
            Bytes message = traffic.Next(kLargest);
            const auto length = static_cast<uint32_t>(message.size());
            const iovec pieces[] = {{message.data(), 5}, {&message[5], length - 5}};
            ShmPipeResult result = PIPE_FULL;
            while (result == PIPE_FULL) {
                result =
                    number % 2 == 0 ? pipe.write(message.data(), &length) : pipe.write(pieces, 2);
                if (result == PIPE_FULL) {
                    sched_yield();
                }
            }
            sound = result == PIPE_OK;
        }
        return sound;
    }
    bool PipeReads() const {
        ShmEventPipe pipe(READER, m_path, kFileSize);
        bool sound = pipe.Open(true);
        for (uint32_t number = 0; sound && number < kMessages;) {
            const Outcome outcome = Read(pipe, kLargest);
            if (outcome.status == READ_EMPTY) {
                sched_yield();
                continue;
            }
            sound = RingTraffic::IsIntact(outcome.message, number++);
        }
        return sound;
    }
    bool PeerWrites() const {
        IndependentRing peer(m_path);
        RingTraffic traffic(kSeed);
        for (uint32_t number = 0; number < kMessages; ++number) {
            const Bytes& message = traffic.Next(kLargest);
            while (!peer.Put(message)) {
                sched_yield();
            }
        }
        return true;
    }
    bool PeerReads() const {
        IndependentRing peer(m_path);
        Bytes message;
        for (uint32_t number = 0; number < kMessages; ++number) {
            while (!peer.Take(message)) {
                sched_yield();
            }
            if (!RingTraffic::IsIntact(message, number)) {
                return false;
            }
        }
        return true;
    }

    template <typename Side>
    static pid_t InAnotherProcess(Side side) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(side() ? 0 : 1);
        }
        return child;
    }
    static bool EndedWell(pid_t child) {
        int status = -1;
        return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
};

TEST_F(ShmEventPipeExchange, HandsEveryMessageToAnotherThread) {
    bool written = false;
    std::thread writer([&] { written = PipeWrites(); });
    EXPECT_TRUE(PipeReads());
    writer.join();
    EXPECT_TRUE(written);
}

TEST_F(ShmEventPipeExchange, HandsEveryMessageToAnIndependentReaderProcess) {
    const pid_t reader = InAnotherProcess([this] { return PeerReads(); });
    ASSERT_GT(reader, 0);
    EXPECT_TRUE(PipeWrites());
    EXPECT_TRUE(EndedWell(reader));
}

TEST_F(ShmEventPipeExchange, TakesEveryMessageFromAnIndependentWriterProcess) {
    const pid_t writer = InAnotherProcess([this] { return PeerWrites(); });
    ASSERT_GT(writer, 0);
    EXPECT_TRUE(PipeReads());
    EXPECT_TRUE(EndedWell(writer));
}

}  // namespace

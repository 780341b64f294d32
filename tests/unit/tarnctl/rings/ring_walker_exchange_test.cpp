// A walk through rings whose writer and reader run in processes of their own at full speed.

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "support/ring_fixture.h"
#include "support/ring_traffic.h"
#include "tarnctl/rings/ring_walker.h"

using namespace std::chrono_literals;

namespace tarnctl {
namespace {

// Whether the walker's result is worth a turn of the other processes on a machine with few of them.
bool IsPause(WalkResult result) {
    return result != WalkResult::kMessage;
}

class RingWalkerExchange : public RingTest {
  protected:
    static constexpr uint32_t kMessages = 60'000;

    ~RingWalkerExchange() override {
        for (const pid_t child : m_children) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    void InAnotherProcess(const std::function<void()>& side) {
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            side();
            _exit(0);
        }
        m_children.push_back(child);
    }

    // Writes messages until it is killed.
    void RunWriter(uint32_t fileSize, uint32_t largest) {
        ASSERT_TRUE(ShmEventPipe(WRITER, m_path, fileSize).Open(true));  // makes the file
        InAnotherProcess([this, fileSize, largest] {
            ShmEventPipe pipe(WRITER, m_path, fileSize);
            RingTraffic traffic(11);
            while (pipe.Open(true)) {
                while (true) {
                    const Bytes& message = traffic.Next(largest);
                    while (Write(pipe, message) != PIPE_OK) {
                        sched_yield();
                    }
                }
            }
        });
    }
    void RunReader(uint32_t fileSize) {
        InAnotherProcess([this, fileSize] {
            ShmEventPipe pipe(READER, m_path, fileSize);
            Bytes buffer(fileSize);
            while (pipe.Open(true)) {
                while (true) {
                    uint32_t size = fileSize;
                    if (pipe.read(buffer.data(), &size) != PIPE_OK) {
                        sched_yield();
                    }
                }
            }
        });
    }

    // Walks until so many messages were seen: each is whole, and none comes before an older one.
    void SeeMessages(uint32_t messages) {
        RingWalker walker;
        ASSERT_TRUE(walker.Open(m_path));
        int64_t last = -1;
        uint32_t seen = 0;
        const auto end = std::chrono::steady_clock::now() + 60s;
        while (seen < messages && std::chrono::steady_clock::now() < end) {
            const WalkResult result = walker.Next();
            if (IsPause(result)) {
                sched_yield();
                continue;
            }
            const std::span<const unsigned char> body(
                reinterpret_cast<const unsigned char*>(walker.Body().data()), walker.Body().size());
            uint32_t number = 0;
            ASSERT_LE(sizeof number, body.size());
            std::memcpy(&number, body.data(), sizeof number);
            ASSERT_TRUE(RingTraffic::IsIntact(body, number))
                << "message " << number << " at " << walker.BodyAt();
            ASSERT_GT(int64_t{number}, last);
            last = number;
            ++seen;
        }
        EXPECT_EQ(messages, seen);
    }

    std::vector<pid_t> m_children;
};

}  // namespace

TEST_F(RingWalkerExchange, DeliversWholeMessagesOnlyWhileBothSidesRun) {
    constexpr uint32_t kFileSize = 16384;
    RunWriter(kFileSize, 2000);
    RunReader(kFileSize);
    SeeMessages(kMessages);
}

// The reader and the writer go round this ring many times between two looks.
TEST_F(RingWalkerExchange, DeliversWholeMessagesOnlyWhileItIsLapped) {
    constexpr uint32_t kFileSize = 2048;
    RunWriter(kFileSize, 900);
    RunReader(kFileSize);
    SeeMessages(kMessages / 4);
}

TEST_F(RingWalkerExchange, DeliversAllMessagesWhenNobodyTakesThem) {
    constexpr uint32_t kFileSize = 1U << 20;
    RunWriter(kFileSize, 600);
    RingWalker walker;
    ASSERT_TRUE(walker.Open(m_path));
    uint32_t number = 0;
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (number < 3000 && std::chrono::steady_clock::now() < end) {
        if (walker.Next() != WalkResult::kMessage) {
            sched_yield();
            continue;
        }
        const std::span<const unsigned char> body(
            reinterpret_cast<const unsigned char*>(walker.Body().data()), walker.Body().size());
        ASSERT_TRUE(RingTraffic::IsIntact(body, number));
        ++number;
    }
    EXPECT_EQ(3000U, number);
}

}  // namespace tarnctl

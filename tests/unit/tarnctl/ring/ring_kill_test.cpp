// Readers and writers of saturated rings that are killed at any moment. What a reader left behind
// is found and mended, and no reader ever gets a message that nobody wrote.
//
// TARN_RING_KILLS is the number of kills of each kind; a release is tried with 100000.

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>

#include "support/ring_fixture.h"
#include "support/ring_traffic.h"
#include "tarnctl/ring/ring_repair.h"
#include "unit/tarnctl/rings/crm_reports.h"

namespace tarnctl {
namespace {

constexpr uint32_t kFileSize = 16384;

// What the processes of a test share.
struct Board {
    std::atomic<uint32_t> taken;    // number of the message that was taken last
    std::atomic<uint32_t> written;  // number of the message that is written next
    std::atomic<uint32_t> faults;   // messages that nobody wrote, or that came in a wrong order
    std::atomic<uint32_t> passes;   // messages taken in all
};

int Kills() {
    const char* const text = std::getenv("TARN_RING_KILLS");
    return text == nullptr ? 300 : std::atoi(text);
}

class RingKillTest : public RingTest {
  protected:
    RingKillTest()
        : m_board(new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board{}) {}
    ~RingKillTest() override {
        for (const pid_t child : m_children) {
            End(child);
        }
        munmap(m_board, sizeof(Board));
    }

    static pid_t Begin(const std::function<void()>& side) {
        const pid_t child = fork();
        if (child == 0) {
            side();
            _exit(0);
        }
        return child;
    }
    static void End(pid_t child) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    // Lets a process run for a moment of any length, most of them short.
    void LetRun() {
        const auto micros = static_cast<useconds_t>(m_random() % 400);
        if (micros < 40) {
            return;
        }
        usleep(micros);
    }

    // A report that has its number in its event ID, and content that follows from it.
    static const Bytes& ReportOf(uint32_t number) {
        static Bytes bytes;
        static CrmReport message;
        message.report.eventId = number;
        message.userData.assign(number % 97 + 1, static_cast<char>('a' + number % 26));
        const CrmBytes encoded = Encode(message);
        bytes.resize(encoded.size());
        std::memcpy(bytes.data(), encoded.data(), encoded.size());
        return bytes;
    }
    // The number of a report that is whole; 0 for any other bytes.
    static uint32_t NumberOf(const Bytes& message) {
        CrmReport report;
        const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(message.data()),
                                               message.size());
        if (!DecodeCrmReport(bytes, report).empty() || ReportOf(report.report.eventId) != message) {
            return 0;
        }
        return report.report.eventId;
    }

    // Writes until it is killed. A writer that is killed after it has published a message and
    // before it has noted so writes that one again.
    void WriteAll() const {
        ShmEventPipe pipe(WRITER, m_path, kFileSize);
        if (!pipe.Open(true)) {
            return;
        }
        while (true) {
            const uint32_t number = m_board->written.load();
            while (Write(pipe, ReportOf(number)) != PIPE_OK) {
                sched_yield();
            }
            m_board->written.store(number + 1);
        }
    }
    // Reads until it is killed. With `mayMiss` a message may be missing.
    void ReadAll(bool mayMiss) const {
        ShmEventPipe pipe(READER, m_path, kFileSize);
        if (!pipe.Open(true)) {
            return;
        }
        Bytes message(kFileSize);
        uint32_t last = m_board->taken.load();
        while (true) {
            message.resize(kFileSize);
            uint32_t size = kFileSize;
            const ShmPipeResult result = pipe.read(message.data(), &size);
            if (result == PIPE_ERROR) {
                m_board->faults.fetch_add(1);
            }
            if (result != PIPE_OK) {
                sched_yield();
                continue;
            }
            message.resize(size);
            const uint32_t number = NumberOf(message);
            // A writer that is killed leaves one message twice.
            const bool isNext = number == last + 1 || number == last || (mayMiss && number > last);
            if (number == 0 || !isNext) {
                m_board->faults.fetch_add(1);
            }
            last = number;
            m_board->taken.store(number);
            m_board->passes.fetch_add(1);
        }
    }

    RepairOptions Options() const {
        RepairOptions options;
        options.interval = std::chrono::milliseconds(0);
        options.writer = m_writer;
        options.isForced = true;
        return options;
    }

    // What waits first follows what was taken last. A reader that is killed after it has taken a
    // message may not have noted so; one that has left the ring stuck has not taken it.
    void NoteWhatWasTaken(RingWalker& walker, bool wasStuck) {
        walker.Restart();
        WalkResult result = walker.Next();
        while (result == WalkResult::kEnd) {
            sched_yield();
            result = walker.Next();
        }
        ASSERT_EQ(WalkResult::kMessage, result);
        const auto* const first = reinterpret_cast<const unsigned char*>(walker.Body().data());
        const uint32_t number = NumberOf(Bytes(first, first + walker.Body().size()));
        const uint32_t taken = m_board->taken.load();
        EXPECT_TRUE(number == taken + 1 || (!wasStuck && number == taken + 2))
            << number << " after " << taken << ", stuck: " << wasStuck;
        m_board->taken.store(number - 1);
    }

    // Kills readers beside a writer that always runs. Returns how many rings were found stuck.
    int KillReaders(RingKind kind) {
        RingPlace place;
        place.path = place.name = m_path;
        place.kind = kind;
        const bool isLossy = kind == RingKind::kUnknown;
        m_board->written.store(1);
        EXPECT_TRUE(ShmEventPipe(WRITER, m_path, kFileSize).Open(true));
        m_writer = Begin([this] { WriteAll(); });
        m_children.push_back(m_writer);
        RingWalker walker;
        EXPECT_TRUE(walker.Open(m_path));
        int stuck = 0;
        for (int i = 0; i < Kills() && m_board->faults.load() == 0; ++i) {
            const pid_t reader = Begin([this, isLossy] { ReadAll(isLossy); });
            LetRun();
            End(reader);
            const bool isStuck = LookAtState(walker).fault != RingFault::kNone;
            if (isStuck) {
                ++stuck;
                const Repair repair = RepairRing(place, Options());
                EXPECT_EQ(RepairOutcome::kRepaired, repair.outcome) << repair.text;
                EXPECT_EQ(isLossy, repair.lostBytes != 0) << repair.text;
                EXPECT_EQ(RingFault::kNone, LookAtState(walker).fault);
            }
            if (!isLossy) {
                NoteWhatWasTaken(walker, isStuck);
            }
        }
        EXPECT_EQ(0U, m_board->faults.load());
        EXPECT_GT(m_board->passes.load(), 0U);
        return stuck;
    }

    std::mt19937 m_random{12};
    Board* m_board;
    pid_t m_writer = 0;
    std::vector<pid_t> m_children;
};

TEST_F(RingKillTest, LosesNoReportToReadersThatAreKilled) {
    RecordProperty("stuck", KillReaders(RingKind::kReports));
}

TEST_F(RingKillTest, DeliversNoFalseMessageAfterReadersThatAreKilled) {
    RecordProperty("stuck", KillReaders(RingKind::kUnknown));
}

// A writer leaves nothing behind that a reader would stop at.
TEST_F(RingKillTest, NeverSticksForWritersThatAreKilled) {
    m_board->written.store(1);
    EXPECT_TRUE(ShmEventPipe(WRITER, m_path, kFileSize).Open(true));
    m_children.push_back(Begin([this] { ReadAll(false); }));
    RingWalker walker;
    ASSERT_TRUE(walker.Open(m_path));
    for (int i = 0; i < Kills() && m_board->faults.load() == 0; ++i) {
        const pid_t writer = Begin([this] { WriteAll(); });
        LetRun();
        End(writer);
        // The reader may be between two stores at one look, for as long as a busy machine does not
        // let it run. Then it moves on.
        const RingState first = LookAtState(walker);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (IsSameFault(first, LookAtState(walker))) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << FaultText(first);
            usleep(1000);
        }
    }
    EXPECT_EQ(0U, m_board->faults.load());
    EXPECT_GT(m_board->passes.load(), 0U);
}

}  // namespace
}  // namespace tarnctl

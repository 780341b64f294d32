#include "tarnctl/common/alert_fifo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <csignal>
#include <thread>

#include "support/temp_dir.h"
#include "tarnctl/common/signals.h"
#include "unit/tarnctl/common/fifo_reader.h"
#include "unit/tarnctl/common/unified2_files.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace tarnctl {
namespace {

class AlertFifoTest : public testing::Test {
  protected:
    AlertFifoTest() : m_path(m_dir.File("alerts.fifo")) {
        std::signal(SIGPIPE, SIG_IGN);
        m_limits.reopen = 0s;
    }
    void MakeFifo() const { ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600)); }

    TempDir m_dir;
    const std::string m_path;
    AlertFifo::Limits m_limits;
};

TEST_F(AlertFifoTest, SaysThatTheFifoIsMissing) {
    AlertFifo fifo(m_path, m_limits);
    EXPECT_EQ(FifoResult::kFailed, fifo.Open());
    EXPECT_EQ(fifo.Error(),
              m_path + ": no such FIFO; start tarn, which makes it, or wait for it with --wait");
}

TEST_F(AlertFifoTest, SaysThatThePathIsNoFifoAndLeavesTheFileAlone) {
    m_dir.Write("alerts.fifo", "kept");
    AlertFifo fifo(m_path, m_limits);
    EXPECT_EQ(FifoResult::kFailed, fifo.Open());
    EXPECT_EQ(fifo.Error(), m_path + ": not a FIFO; name the alert FIFO with --fifo");
    EXPECT_EQ("kept", m_dir.Read("alerts.fifo"));
}

TEST_F(AlertFifoTest, SaysThatNobodyReads) {
    MakeFifo();
    AlertFifo fifo(m_path, m_limits);
    EXPECT_EQ(FifoResult::kFailed, fifo.Open());
    EXPECT_EQ(fifo.Error(), m_path + ": nobody is reading; start tarn, or wait for it with --wait");
}

TEST_F(AlertFifoTest, WaitsForAReaderWhenItIsToldTo) {
    MakeFifo();
    m_limits.open = 30s;
    AlertFifo fifo(m_path, m_limits);
    std::jthread late([this] {
        const FifoReader reader(m_path);
        EXPECT_TRUE(reader.Wait());
    });
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    EXPECT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert())));
}

TEST_F(AlertFifoTest, PutsInARecordAsItIs) {
    MakeFifo();
    const FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert())));
    EXPECT_EQ(reader.ReadNow(1000), Alert());
    EXPECT_EQ(FifoResult::kDone, fifo.Drain());
}

// A reader that finds the header of a record finds all of the record.
TEST_F(AlertFifoTest, NeverShowsAReaderHalfARecord) {
    MakeFifo();
    const FifoReader reader(m_path);
    const size_t sizes[] = {60, 4088, 4089, 5000, 60000, 1, 65528, 3000, 8192};
    constexpr int kRounds = 40;
    std::jthread writer([&] {
        AlertFifo fifo(m_path, m_limits);
        ASSERT_EQ(FifoResult::kDone, fifo.Open());
        for (int round = 0; round < kRounds; ++round) {
            for (const size_t size : sizes) {
                ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Record(2, size))));
            }
        }
        EXPECT_EQ(FifoResult::kDone, fifo.Drain());
    });
    for (int round = 0; round < kRounds; ++round) {
        for (const size_t size : sizes) {
            ASSERT_TRUE(reader.Wait());
            ASSERT_EQ(reader.ReadNow(8), Record(2, size).substr(0, 8));
            ASSERT_EQ(reader.ReadNow(size).size(), size);
        }
    }
}

TEST_F(AlertFifoTest, WaitsForRoomAndLosesNothing) {
    MakeFifo();
    const FifoReader reader(m_path);
    constexpr int kRecords = 3000;
    std::jthread writer([&] {
        AlertFifo fifo(m_path, m_limits);
        ASSERT_EQ(FifoResult::kDone, fifo.Open());
        for (int i = 0; i < kRecords; ++i) {
            ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Packet(100))));
        }
    });
    EXPECT_EQ(kRecords * Packet(100).size(), reader.ReadAll().size());
}

TEST_F(AlertFifoTest, EnlargesThePipeForARecordThatIsLonger) {
    MakeFifo();
    const FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    const std::string record = Record(2, 200000);
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(record)));
    EXPECT_EQ(reader.ReadNow(record.size()), record);
}

TEST_F(AlertFifoTest, RefusesARecordThatNoPipeCanTakeAndSendsNothingOfIt) {
    MakeFifo();
    const FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    // More than any size that a pipe can report. Nobody may look at the bytes, so none are there.
    constexpr size_t kLength = 0x80000001;
    void* const nothing =
        mmap(nullptr, kLength, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, nothing);
    EXPECT_EQ(FifoResult::kFailed, fifo.Send({static_cast<const std::byte*>(nothing), kLength}));
    munmap(nothing, kLength);
    EXPECT_THAT(fifo.Error(), HasSubstr("does not fit into the pipe of "));
    EXPECT_EQ("", reader.ReadNow(1));
}

TEST_F(AlertFifoTest, SaysThatTheReaderIsGone) {
    MakeFifo();
    FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert())));
    reader.Close();
    EXPECT_EQ(FifoResult::kFailed, fifo.Send(AsBytes(Alert())));
    EXPECT_EQ(fifo.Error(),
              m_path + ": the reader is gone, with 68 bytes unread; start tarn and play again");
}

TEST_F(AlertFifoTest, KeepsTheBytesForAReaderThatComesBack) {
    MakeFifo();
    m_limits.reopen = 30s;
    FifoReader first(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert('1'))));
    first.Close();
    std::jthread second([this] {
        const FifoReader reader(m_path);
        std::string bytes;
        while (bytes.size() < 2 * Alert().size() && reader.Wait()) {
            bytes += reader.ReadNow(1000);
        }
        EXPECT_EQ(bytes, Alert('1') + Alert('2'));
    });
    EXPECT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert('2'))));
    EXPECT_EQ(FifoResult::kDone, fifo.Drain());
}

TEST_F(AlertFifoTest, SaysHowMuchAReaderThatLeavesHasNotTaken) {
    MakeFifo();
    FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert())));
    ASSERT_EQ(8U, reader.ReadNow(8).size());
    reader.Close();
    EXPECT_EQ(FifoResult::kFailed, fifo.Drain());
    EXPECT_EQ(fifo.Error(),
              m_path + ": the reader is gone, with 60 bytes unread; start tarn and play again");
}

TEST_F(AlertFifoTest, GivesAReaderUpThatTakesNothing) {
    MakeFifo();
    m_limits.stall = 10ms;
    const FifoReader reader(m_path);
    AlertFifo fifo(m_path, m_limits);
    ASSERT_EQ(FifoResult::kDone, fifo.Open());
    ASSERT_EQ(FifoResult::kDone, fifo.Send(AsBytes(Alert())));
    EXPECT_EQ(FifoResult::kFailed, fifo.Drain());
    EXPECT_EQ(fifo.Error(),
              m_path + ": the reader takes nothing: 68 bytes stand unread; see the log of tarn");
}

// The flag stays set for the life of a process, so this case has one of its own.
TEST_F(AlertFifoTest, EndsAWaitAtAStopSignal) {
    MakeFifo();
    const FifoReader reader(m_path);
    EXPECT_EXIT(
        {
            CatchStopSignals();
            AlertFifo fifo(m_path, m_limits);
            const bool isSent = fifo.Open() == FifoResult::kDone &&
                                fifo.Send(AsBytes(Alert())) == FifoResult::kDone;
            std::raise(SIGTERM);
            _exit(isSent && fifo.Drain() == FifoResult::kStopped ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarnctl

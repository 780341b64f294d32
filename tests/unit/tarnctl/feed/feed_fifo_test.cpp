#include "tarnctl/feed/feed_fifo.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <vector>

#include "support/temp_dir.h"
#include "unit/tarnctl/common/fifo_reader.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

using Result = FeedFifo::Result;

std::vector<std::byte> Bytes(size_t length, char filler = 'r') {
    return std::vector<std::byte>(length, static_cast<std::byte>(filler));
}

class FeedFifoTest : public testing::Test {
  protected:
    FeedFifoTest() { std::signal(SIGPIPE, SIG_IGN); }
    void MakeFifo() const { ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600)); }
    // As many records of this length as the pipe takes.
    int Fill(size_t length) {
        int count = 0;
        while (m_fifo.Send(Bytes(length)) == Result::kDone) {
            ++count;
        }
        return count;
    }
    static int CapacityOf(const FifoReader& reader) {
        return fcntl(reader.Descriptor(), F_GETPIPE_SZ);
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("alerts.fifo");
    FeedFifo m_fifo{m_path};
};

TEST_F(FeedFifoTest, WaitsForAFifoAndForItsReader) {
    EXPECT_EQ(Result::kNoReader, m_fifo.Open());
    EXPECT_THAT(m_fifo.Error(), HasSubstr("No such file"));
    MakeFifo();
    EXPECT_EQ(Result::kNoReader, m_fifo.Open());
    EXPECT_FALSE(m_fifo.IsOpen());
    const FifoReader reader(m_path);
    EXPECT_EQ(Result::kDone, m_fifo.Open());
    EXPECT_TRUE(m_fifo.IsOpen());
}

TEST_F(FeedFifoTest, LeavesAFileAloneThatIsNoFifo) {
    m_dir.Write("alerts.fifo", "kept");
    EXPECT_EQ(Result::kFailed, m_fifo.Open());
    EXPECT_EQ(m_path + ": not a FIFO; name the alert FIFO with --fifo", m_fifo.Error());
    EXPECT_EQ("kept", m_dir.Read("alerts.fifo"));
}

TEST_F(FeedFifoTest, KeepsASecondFeederOut) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    FeedFifo second(m_path);
    EXPECT_EQ(Result::kFailed, second.Open());
    EXPECT_THAT(second.Error(), HasSubstr("another tarnctl feeds it"));
    EXPECT_FALSE(second.IsOpen());
    m_fifo.Close();
    EXPECT_EQ(Result::kDone, second.Open());
}

TEST_F(FeedFifoTest, PutsInARecordAsItIsAndCountsWhatIsUnread) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    EXPECT_EQ(0, m_fifo.Unread());
    EXPECT_EQ(Result::kDone, m_fifo.Send(Bytes(68)));
    EXPECT_EQ(68, m_fifo.Unread());
    EXPECT_EQ(std::string(68, 'r'), reader.ReadNow(100));
    EXPECT_EQ(0, m_fifo.Unread());
}

TEST_F(FeedFifoTest, APipeWithoutRoomTakesNoPartOfARecord) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    const int count = Fill(3000);
    EXPECT_EQ(Result::kNoRoom, m_fifo.Send(Bytes(3000)));
    EXPECT_EQ(count * 3000, m_fifo.Unread());
    EXPECT_EQ(static_cast<size_t>(count) * 3000, reader.ReadNow(1U << 20).size());
    EXPECT_EQ(Result::kDone, m_fifo.Send(Bytes(3000)));
}

TEST_F(FeedFifoTest, ALongRecordGoesOnlyIntoAnEmptyPipe) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    ASSERT_EQ(Result::kDone, m_fifo.Send(Bytes(1)));
    EXPECT_EQ(Result::kNoRoom, m_fifo.Send(Bytes(PIPE_BUF + 1)));
    EXPECT_EQ(Result::kDone, m_fifo.Send(Bytes(PIPE_BUF)));
    EXPECT_EQ(PIPE_BUF + 1, m_fifo.Unread());
    EXPECT_EQ(size_t{PIPE_BUF} + 1, reader.ReadNow(1U << 20).size());
    EXPECT_EQ(Result::kDone, m_fifo.Send(Bytes(PIPE_BUF + 1)));
    EXPECT_EQ(PIPE_BUF + 1, m_fifo.Unread());
}

TEST_F(FeedFifoTest, APipeIsStretchedForALongRecord) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    const int before = CapacityOf(reader);
    const auto length = static_cast<size_t>(before) + 1;
    EXPECT_EQ(Result::kDone, m_fifo.Send(Bytes(length)));
    EXPECT_GT(CapacityOf(reader), before);
    EXPECT_EQ(length, reader.ReadNow(length + 1).size());
}

TEST_F(FeedFifoTest, ARecordThatNoPipeTakesIsTooLong) {
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    EXPECT_EQ(Result::kTooLong, m_fifo.Send({Bytes(1).data(), size_t{INT_MAX} + 1}));
    EXPECT_THAT(m_fifo.Error(), HasSubstr("of 2147483648 bytes does not fit into the pipe"));
    EXPECT_EQ(0, m_fifo.Unread());
}

TEST_F(FeedFifoTest, NoticesThatTheReaderIsGone) {
    MakeFifo();
    FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    EXPECT_TRUE(m_fifo.HasReader());
    ASSERT_EQ(Result::kDone, m_fifo.Send(Bytes(1)));
    reader.Close();
    EXPECT_FALSE(m_fifo.HasReader());
    EXPECT_EQ(Result::kNoReader, m_fifo.Send(Bytes(1)));
    EXPECT_EQ(Result::kNoReader, m_fifo.Send(Bytes(PIPE_BUF + 1)));
    m_fifo.Close();
    EXPECT_FALSE(m_fifo.HasReader());
    EXPECT_EQ(0, m_fifo.Unread());
}

TEST_F(FeedFifoTest, CountsEachTimeThatAReaderCloses) {
    MakeFifo();
    {
        const FifoReader before(m_path);
        ASSERT_EQ(Result::kDone, m_fifo.Open());
    }
    FifoReader again(m_path);
    EXPECT_EQ(1U, m_fifo.TakeReaderCloses());
    EXPECT_EQ(0U, m_fifo.TakeReaderCloses());
    again.Close();
    EXPECT_EQ(1U, m_fifo.TakeReaderCloses());
    m_fifo.Close();
    EXPECT_EQ(0U, m_fifo.TakeReaderCloses());
}

TEST_F(FeedFifoTest, WaitsForRoomOnlyAsLongAsThereIsNone) {
    using Clock = std::chrono::steady_clock;
    MakeFifo();
    const FifoReader reader(m_path);
    ASSERT_EQ(Result::kDone, m_fifo.Open());
    ASSERT_GT(Fill(4000), 0);
    auto started = Clock::now();
    m_fifo.WaitForRoom(50);
    EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(49));
    (void)reader.ReadNow(1U << 20);
    started = Clock::now();
    m_fifo.WaitForRoom(60000);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(30));
}

}  // namespace
}  // namespace tarnctl

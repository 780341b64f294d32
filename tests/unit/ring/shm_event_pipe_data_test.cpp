#include "ring/shm_event_pipe.h"

#include <gtest/gtest.h>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr uint32_t kFileSize = 72;  // a ring of 64 bytes
constexpr uint32_t kRing = kFileSize - 8;

class ShmEventPipeWrite : public RingTest {
  protected:
    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    ShmEventPipe m_reader{READER, m_path, kFileSize};
    const bool m_open = m_writer.Open(true) && m_reader.Open(true);
    IndependentRing m_raw{m_path};  // throws when there is no file
};
using ShmEventPipeRead = ShmEventPipeWrite;

TEST_F(ShmEventPipeWrite, AcceptsUpToEightBytesLessThanAnEmptyRing) {
    EXPECT_EQ(PIPE_OK, Write(m_writer, Counting(kRing - 8)));
    EXPECT_EQ(Counting(kRing - 8), Read(m_reader).message);
}

TEST_F(ShmEventPipeWrite, KeepsCallingAMessageOfNearlyTheRingFullForEver) {
    for (uint32_t length = kRing - 7; length <= kRing; ++length) {
        EXPECT_EQ(PIPE_FULL, Write(m_writer, Counting(length))) << length;
    }
    EXPECT_EQ(PIPE_ERROR, Write(m_writer, Counting(kRing + 1)));
    EXPECT_EQ(Bytes(kFileSize, 0), m_raw.Bytes());
}

TEST_F(ShmEventPipeWrite, RefusesAMessageThatWouldMeetTheReadIndex) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(28)));  // 32 of 64 bytes
    const Bytes before = m_raw.Bytes();
    EXPECT_EQ(PIPE_FULL, Write(m_writer, Counting(28)));
    EXPECT_EQ(before, m_raw.Bytes());
    EXPECT_EQ(PIPE_OK, Write(m_writer, Counting(24)));
}

TEST_F(ShmEventPipeWrite, WrapsToZeroWhenTheRoundedEndIsTheEndOfTheRing) {
    m_raw.Poke(0, 40);
    m_raw.Poke(4, 40);
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(18)));  // 40 + 4 + 18 rounds up to 64
    EXPECT_EQ(0U, m_raw.Word(4));
    EXPECT_EQ(Counting(18), Read(m_reader).message);
    EXPECT_EQ(0U, m_raw.Word(0));
}

TEST_F(ShmEventPipeWrite, PutsTheWholeBodyAtTheStartWhenTheLengthWordIsTheLastWord) {
    m_raw.Poke(0, kRing - 4);
    m_raw.Poke(4, kRing - 4);
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(6)));
    const Bytes file = m_raw.Bytes();
    EXPECT_EQ(6U, m_raw.Word(8 + kRing - 4));
    EXPECT_EQ(Bytes(file.begin() + 8, file.begin() + 14), Counting(6));
    EXPECT_EQ(Counting(6), Read(m_reader).message);
}

TEST_F(ShmEventPipeWrite, WritesZeroesAsPadding) {
    m_raw.Fill(0x33);
    m_raw.Poke(0, 56);
    m_raw.Poke(4, 56);
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(1)));
    const Bytes file = m_raw.Bytes();
    EXPECT_EQ((Bytes{1, 0, 0, 0, 1, 0, 0, 0}), Bytes(file.end() - 8, file.end()));
}

TEST_F(ShmEventPipeWrite, KeepsAcceptingAMessageOfNoBytesThatBlocksTheReader) {
    const uint32_t zero = 0;
    const iovec nothing[] = {{nullptr, 0}, {nullptr, 0}};
    const auto stuck = [&](ShmPipeResult result) {
        EXPECT_EQ(PIPE_OK, result);
        EXPECT_EQ(4U, m_raw.Word(4));
        EXPECT_EQ(PIPE_OK, Write(m_writer, Counting(3)));
        EXPECT_EQ((Outcome{PIPE_NO_DATA, READ_EMPTY, {}}), Read(m_reader));
        EXPECT_EQ((Outcome{PIPE_NO_DATA, READ_EMPTY, {}}), Read(m_reader));
        EXPECT_EQ(0U, m_raw.Word(0));
        EXPECT_TRUE(m_writer.Reset());
        EXPECT_EQ(PIPE_OK, Write(m_writer, Counting(3)));
        EXPECT_EQ(Counting(3), Read(m_reader).message);
        EXPECT_TRUE(m_writer.Reset());
    };
    stuck(m_writer.write(nullptr, &zero));
    stuck(m_writer.write(nothing, 2));
    stuck(m_writer.write(nothing, 0));
    stuck(m_writer.write(nothing, -1));
}

TEST_F(ShmEventPipeWrite, SkipsEmptyPiecesWithNoAddress) {
    Bytes first = Counting(3);
    Bytes second = Counting(4, 4);
    const iovec pieces[] = {{nullptr, 0}, {first.data(), 3}, {nullptr, 0}, {second.data(), 4}};
    ASSERT_EQ(PIPE_OK, m_writer.write(pieces, 4));
    EXPECT_EQ(Counting(7), Read(m_reader).message);
}

TEST_F(ShmEventPipeWrite, TakesNoMoreThanTheSumOfLengthsInThirtyTwoBits) {
    Bytes first = Counting(8);
    // The second piece claims all of 32 bits and 5 bytes; the sum keeps 3 + 5 of them.
    const iovec pieces[] = {{first.data(), 3}, {&first[3], 0x100000005U}, {&first[0], 0}};
    ASSERT_EQ(PIPE_OK, m_writer.write(pieces, 2));
    EXPECT_EQ(8U, m_raw.Word(8));
    EXPECT_EQ(Counting(8), Read(m_reader).message);
    // The sum of these is 4, which the first piece alone exceeds.
    const iovec exceeding[] = {{first.data(), 8}, {first.data(), 0xFFFFFFFCU}};
    ASSERT_EQ(PIPE_OK, m_writer.write(exceeding, 2));
    EXPECT_EQ(Counting(4), Read(m_reader).message);
    EXPECT_EQ(20U, m_raw.Word(4));
    const iovec wrapped[] = {{first.data(), 0x80000000U}, {first.data(), 0x80000000U}};
    ASSERT_EQ(PIPE_OK, m_writer.write(wrapped, 2));
    EXPECT_EQ(24U, m_raw.Word(4));
}

TEST_F(ShmEventPipeWrite, FailsOnAReaderAndChangesNothing) {
    const Bytes before = m_raw.Bytes();
    EXPECT_EQ(PIPE_ERROR, Write(m_reader, Counting(4)));
    iovec piece{nullptr, 0};
    EXPECT_EQ(PIPE_ERROR, m_reader.write(&piece, 1));
    EXPECT_EQ(before, m_raw.Bytes());
}

// ---- read ----

TEST_F(ShmEventPipeRead, FailsOnAWriterAndChangesNothing) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(4)));
    const Bytes before = m_raw.Bytes();
    Bytes buffer(16);
    uint32_t size = 16;
    uint32_t status = 0;
    EXPECT_EQ(PIPE_ERROR, m_writer.read(buffer.data(), &size, &status));
    EXPECT_EQ(16U, size);
    EXPECT_EQ(READ_WRONG_ROLE, status);
    EXPECT_EQ(before, m_raw.Bytes());
}

TEST_F(ShmEventPipeRead, FindsAnEmptyRing) {
    EXPECT_EQ((Outcome{PIPE_NO_DATA, READ_EMPTY, {}}), Read(m_reader));
}

TEST_F(ShmEventPipeRead, NeedsNoStatus) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(4)));
    Bytes buffer(4);
    uint32_t size = 4;
    EXPECT_EQ(PIPE_OK, m_reader.read(buffer.data(), &size));
    EXPECT_EQ(Counting(4), buffer);
    EXPECT_EQ(PIPE_NO_DATA, m_reader.read(buffer.data(), &size));
    EXPECT_EQ(0U, size);
}

TEST_F(ShmEventPipeRead, ZeroesTheLengthWordOfWhatItConsumes) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(4)));
    EXPECT_EQ(4U, m_raw.Word(8));
    EXPECT_EQ(PIPE_OK, Read(m_reader).result);
    EXPECT_EQ(0U, m_raw.Word(8));
    EXPECT_EQ(8U, m_raw.Word(0));
}

TEST_F(ShmEventPipeRead, KeepsLosingAMessageThatExceedsTheBuffer) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(9)));
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(8)));
    EXPECT_EQ((Outcome{PIPE_NO_DATA, READ_BUFFER_TOO_SMALL, {}}), Read(m_reader, 8));
    EXPECT_EQ((Outcome{PIPE_OK, READ_OK, Counting(8)}), Read(m_reader, 8));
}

TEST_F(ShmEventPipeRead, KeepsDroppingAllThatIsPendingForOneBadLengthWord) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(4)));
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(5)));
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(6)));
    m_raw.Poke(8, kRing + 1);
    EXPECT_EQ((Outcome{PIPE_ERROR, READ_BAD_SIZE, {}}), Read(m_reader));
    EXPECT_EQ(m_raw.Word(4), m_raw.Word(0));
    EXPECT_EQ(READ_EMPTY, Read(m_reader).status);
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(7)));
    EXPECT_EQ(Counting(7), Read(m_reader).message);
}

TEST_F(ShmEventPipeRead, StopsAtALengthWordOfZero) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(4)));
    m_raw.Poke(8, 0);
    EXPECT_EQ((Outcome{PIPE_NO_DATA, READ_EMPTY, {}}), Read(m_reader));
    EXPECT_EQ(0U, m_raw.Word(0));
}

TEST_F(ShmEventPipeRead, TakesALengthOfTheWholeRingWithoutLeavingIt) {
    for (uint32_t start = 0; start < kRing; start += 4) {
        m_raw.Fill(0x44);
        m_raw.Poke(0, start);
        m_raw.Poke(4, (start + 8) % kRing);
        m_raw.Poke(8 + start, kRing);
        Bytes expected(kRing, 0x44);
        expected[kRing - 4] = kRing;  // the body ends with its own length word
        expected[kRing - 3] = expected[kRing - 2] = expected[kRing - 1] = 0;
        EXPECT_EQ((Outcome{PIPE_OK, READ_OK, expected}), Read(m_reader)) << start;
        EXPECT_EQ((start + 4) % kRing, m_raw.Word(0)) << start;
    }
}

}  // namespace

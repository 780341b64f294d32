// The bytes of a ring file after a fixed sequence of operations, as tests/golden tells them.

#include <gtest/gtest.h>

#include "ring/shm_event_pipe.h"
#include "support/golden_bytes.h"
#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr uint32_t kFileSize = 40;

// The bytes of the file after one of the steps.
Bytes GoldenStep(ptrdiff_t step) {
    const Bytes all = GoldenBytes("ring_sequence.txt");
    EXPECT_EQ(7 * kFileSize, all.size());
    const auto begin = all.begin() + step * kFileSize;
    return {begin, begin + kFileSize};
}

using ShmEventPipeGolden = RingTest;

TEST_F(ShmEventPipeGolden, EveryStepOfAFixedSequenceLeavesTheAgreedBytes) {
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ASSERT_TRUE(writer.Create());
    ASSERT_TRUE(writer.Open(true));
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    const IndependentRing raw(m_path);
    EXPECT_EQ(GoldenStep(0), raw.Bytes());

    EXPECT_EQ(PIPE_OK, Write(writer, {'a', 'l', 'e', 'r', 't'}));
    EXPECT_EQ(GoldenStep(1), raw.Bytes());

    char head[] = "pack";
    char body[] = "et";
    const iovec pieces[] = {{head, 4}, {nullptr, 0}, {body, 2}};
    EXPECT_EQ(PIPE_OK, writer.write(pieces, 3));
    EXPECT_EQ(GoldenStep(2), raw.Bytes());

    EXPECT_EQ((Bytes{'a', 'l', 'e', 'r', 't'}), Read(reader).message);
    EXPECT_EQ(GoldenStep(3), raw.Bytes());

    EXPECT_EQ(PIPE_OK, Write(writer, {'w', 'r', 'a', 'p', 'p', 'e', 'd'}));
    EXPECT_EQ(GoldenStep(4), raw.Bytes());

    EXPECT_EQ(PIPE_OK, Read(reader).result);
    EXPECT_EQ((Bytes{'w', 'r', 'a', 'p', 'p', 'e', 'd'}), Read(reader).message);
    EXPECT_EQ(GoldenStep(5), raw.Bytes());

    EXPECT_TRUE(reader.Reset());
    EXPECT_EQ(GoldenStep(6), raw.Bytes());
}

}  // namespace

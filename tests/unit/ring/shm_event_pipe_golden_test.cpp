// The bytes of a ring file after a fixed sequence of operations, as tests/golden tells them.

#include <gtest/gtest.h>

#include "ring/shm_event_pipe.h"
#include "support/golden_bytes.h"
#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr std::uint32_t kFileSize = 40;

// The bytes of the file after one of the steps.
Bytes GoldenStep(std::ptrdiff_t step) {
    const Bytes all = GoldenBytes("ring_sequence.txt");
    EXPECT_EQ(all.size(), 7 * kFileSize);
    const auto begin = all.begin() + step * kFileSize;
    return {begin, begin + kFileSize};
}

using ShmEventPipeGolden = RingTest;

}  // namespace

TEST_F(ShmEventPipeGolden, EveryStepOfAFixedSequenceLeavesTheAgreedBytes) {
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ASSERT_TRUE(writer.Create());
    ASSERT_TRUE(writer.Open(true));
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    const IndependentRing raw(m_path);
    EXPECT_EQ(raw.Bytes(), GoldenStep(0));

    EXPECT_EQ(Write(writer, {'a', 'l', 'e', 'r', 't'}), PIPE_OK);
    EXPECT_EQ(raw.Bytes(), GoldenStep(1));

    char head[] = "pack";
    char body[] = "et";
    const iovec pieces[] = {{head, 4}, {nullptr, 0}, {body, 2}};
    EXPECT_EQ(writer.write(pieces, 3), PIPE_OK);
    EXPECT_EQ(raw.Bytes(), GoldenStep(2));

    EXPECT_EQ(Read(reader).message, (Bytes{'a', 'l', 'e', 'r', 't'}));
    EXPECT_EQ(raw.Bytes(), GoldenStep(3));

    EXPECT_EQ(Write(writer, {'w', 'r', 'a', 'p', 'p', 'e', 'd'}), PIPE_OK);
    EXPECT_EQ(raw.Bytes(), GoldenStep(4));

    EXPECT_EQ(Read(reader).result, PIPE_OK);
    EXPECT_EQ(Read(reader).message, (Bytes{'w', 'r', 'a', 'p', 'p', 'e', 'd'}));
    EXPECT_EQ(raw.Bytes(), GoldenStep(5));

    EXPECT_TRUE(reader.Reset());
    EXPECT_EQ(raw.Bytes(), GoldenStep(6));
}

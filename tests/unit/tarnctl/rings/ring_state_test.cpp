#include "tarnctl/rings/ring_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

constexpr uint32_t kFileSize = 72;
constexpr uint32_t kReadWord = 0;
constexpr uint32_t kWriteWord = 4;
constexpr uint32_t kRing = 8;

class RingStateTest : public RingTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_writer.Open(true));
        ASSERT_TRUE(m_walker.Open(m_path));
        m_raw = std::make_unique<IndependentRing>(m_path);
        ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(8)));
        ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(3)));
    }
    RingState State() { return LookAtState(m_walker); }

    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    std::unique_ptr<IndependentRing> m_raw;
    RingWalker m_walker;
};

TEST_F(RingStateTest, IsFineWhereMessagesLeadToTheWriteIndex) {
    const RingState state = State();
    EXPECT_EQ(RingFault::kNone, state.fault);
    EXPECT_FALSE(state.IsStuck());
    EXPECT_EQ(2U, state.messages);
    EXPECT_EQ(20U, state.look.used);
    EXPECT_EQ("none", FaultName(state.fault));
    EXPECT_EQ("", FaultText(state));
}

TEST_F(RingStateTest, IsStuckAtALengthOfZero) {
    m_raw->Poke(kRing, 0);
    const RingState state = State();
    EXPECT_EQ(RingFault::kNoLength, state.fault);
    EXPECT_TRUE(state.IsStuck());
    EXPECT_EQ(0U, state.at);
    EXPECT_EQ("no-length", FaultName(state.fault));
    EXPECT_EQ("the length word at offset 0 is 0 and the write index is 20", FaultText(state));
    EXPECT_THAT(FaultMeaning(state), HasSubstr("a reader was killed"));
}

TEST_F(RingStateTest, IsStuckAtALengthBeyondTheRing) {
    m_raw->Poke(kRing, 65);
    const RingState state = State();
    EXPECT_EQ(RingFault::kLengthBeyondRing, state.fault);
    EXPECT_EQ("length-beyond-ring", FaultName(state.fault));
    EXPECT_EQ("the length word at offset 0 is 65 in a ring of 64 bytes", FaultText(state));
    EXPECT_THAT(FaultMeaning(state), HasSubstr("drops everything"));
}

TEST_F(RingStateTest, IsStuckAtALengthThatReachesPastTheWriteIndex) {
    m_raw->Poke(kRing, 64);
    const RingState state = State();
    EXPECT_EQ(RingFault::kLengthPastWriteEnd, state.fault);
    EXPECT_EQ("length-past-write-index", FaultName(state.fault));
    EXPECT_EQ("the message at offset 0 has 64 bytes and reaches past the write index, 20",
              FaultText(state));
    EXPECT_THAT(FaultMeaning(state), HasSubstr("no message"));
}

TEST_F(RingStateTest, IsDamagedAndNotStuckWhereAMessageCanStillBeTaken) {
    m_raw->Poke(kRing + 12, 0);
    const RingState state = State();
    EXPECT_EQ(RingFault::kNoLength, state.fault);
    EXPECT_FALSE(state.IsStuck());
    EXPECT_EQ(12U, state.at);
    EXPECT_EQ(1U, state.messages);
    EXPECT_EQ("a reader takes what is in front of it and then stops", FaultMeaning(state));
}

TEST_F(RingStateTest, KnowsAnIndexThatIsNone) {
    const struct {
        uint32_t word;
        uint32_t value;
        RingFault fault;
        const char* name;
        const char* text;
    } cases[] = {
        {kReadWord, 2, RingFault::kReadIndexOffGrid, "read-index-off-grid",
         "the read index is 2, no multiple of 4"},
        {kReadWord, 64, RingFault::kReadIndexOutside, "read-index-outside",
         "the read index is 64 in a ring of 64 bytes"},
        {kWriteWord, 63, RingFault::kWriteIndexOffGrid, "write-index-off-grid",
         "the write index is 63, no multiple of 4"},
        {kWriteWord, 0xFFFFFFFF, RingFault::kWriteIndexOutside, "write-index-outside",
         "the write index is 4294967295 in a ring of 64 bytes"},
    };
    for (const auto& expected : cases) {
        const uint32_t before = m_raw->Word(expected.word);
        m_raw->Poke(expected.word, expected.value);
        const RingState state = State();
        EXPECT_EQ(expected.fault, state.fault);
        EXPECT_TRUE(state.IsStuck());
        EXPECT_EQ(expected.name, FaultName(state.fault));
        EXPECT_EQ(expected.text, FaultText(state));
        EXPECT_THAT(FaultMeaning(state),
                    HasSubstr(expected.word == kReadWord ? "begins" : "tarn mends this index"));
        m_raw->Poke(expected.word, before);
    }
    m_raw->Poke(kReadWord, 65);
    m_raw->Poke(kWriteWord, 66);
    EXPECT_EQ(RingFault::kWriteIndexOutside, State().fault) << "the write index counts first";
}

TEST_F(RingStateTest, StaysTheSameOnlyWhereNothingMoved) {
    EXPECT_FALSE(IsSameFault(State(), State())) << "nothing is wrong";
    m_raw->Poke(kRing, 0);
    const RingState first = State();
    EXPECT_TRUE(IsSameFault(first, State()));
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(3)));
    EXPECT_TRUE(IsSameFault(first, State())) << "the writer may move";
    m_raw->Poke(kReadWord, 12);
    m_raw->Poke(kRing + 12, 0);
    EXPECT_FALSE(IsSameFault(first, State())) << "at another place";
    m_raw->Poke(kReadWord, 0);
    m_raw->Poke(kRing, 1000);
    EXPECT_FALSE(IsSameFault(first, State())) << "another fault";
    m_raw->Poke(kWriteWord, 21);
    const RingState write = State();
    EXPECT_TRUE(IsSameFault(write, State()));
    m_raw->Poke(kWriteWord, 22);
    EXPECT_FALSE(IsSameFault(write, State())) << "the write index has moved";
    m_raw->Poke(kWriteWord, 20);
    m_raw->Poke(kReadWord, 1);
    const RingState read = State();
    m_raw->Poke(kReadWord, 2);
    EXPECT_FALSE(IsSameFault(read, State())) << "the read index has moved";
}

}  // namespace
}  // namespace tarnctl

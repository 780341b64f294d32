#include "tarnctl/rings/ring_walker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

// A ring of 64 bytes.
constexpr uint32_t kFileSize = 72;
constexpr uint32_t kReadWord = 0;
constexpr uint32_t kWriteWord = 4;
constexpr uint32_t kRing = 8;

class RingWalkerTest : public RingTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(m_writer.Open(true));
        ASSERT_TRUE(m_reader.Open(true));
        m_raw = std::make_unique<IndependentRing>(m_path);
        ASSERT_TRUE(m_walker.Open(m_path)) << m_walker.Error();
    }

    bool Put(const std::string& text) {
        return Write(m_writer, Bytes(text.begin(), text.end())) == PIPE_OK;
    }
    std::string Take() {
        const Outcome outcome = Read(m_reader);
        return {outcome.message.begin(), outcome.message.end()};
    }
    // The next message of the walk, or what there is instead.
    std::string Step() {
        switch (m_walker.Next()) {
            case WalkResult::kMessage: {
                const auto body = m_walker.Body();
                return {reinterpret_cast<const char*>(body.data()), body.size()};
            }
            case WalkResult::kEnd:
                return "(end)";
            case WalkResult::kOvertaken:
                return "(overtaken)";
            case WalkResult::kHole:
                return "(hole)";
            default:
                return "(too long)";
        }
    }
    // Moves both indexes on by messages of four bytes.
    void MoveOn(int messages) {
        for (int i = 0; i < messages; ++i) {
            ASSERT_TRUE(Put("move"));
            ASSERT_EQ("move", Take());
        }
    }

    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    ShmEventPipe m_reader{READER, m_path, kFileSize};
    std::unique_ptr<IndependentRing> m_raw;
    RingWalker m_walker;
};

TEST_F(RingWalkerTest, EndsAtOnceInAnEmptyRing) {
    EXPECT_EQ("(end)", Step());
}

TEST_F(RingWalkerTest, DeliversWhatWaitsInItsOrder) {
    ASSERT_TRUE(Put("one") && Put("three") && Put("fours"));
    EXPECT_EQ("one", Step());
    EXPECT_EQ(0U, m_walker.BodyAt());
    EXPECT_EQ(8U, m_walker.At());
    EXPECT_EQ("three", Step());
    EXPECT_EQ("fours", Step());
    EXPECT_EQ("(end)", Step());
}

TEST_F(RingWalkerTest, ChangesNoByteOfTheFile) {
    MoveOn(5);
    ASSERT_TRUE(Put("one") && Put("a message that goes round the end"));
    const std::vector<unsigned char> before = m_raw->Bytes();
    m_walker.Restart();
    EXPECT_EQ("one", Step());
    EXPECT_EQ("a message that goes round the end", Step());
    EXPECT_EQ("(end)", Step());
    (void)m_walker.CountFrom(0, nullptr);
    EXPECT_EQ(before, m_raw->Bytes());
}

TEST_F(RingWalkerTest, FollowsAMessageOfAnyLengthRoundTheEndFromAnyPlace) {
    for (uint32_t length = 1; length <= 56; ++length) {
        for (int place = 0; place < 16; ++place) {
            std::string text(length, ' ');
            for (uint32_t i = 0; i < length; ++i) {
                text[i] = static_cast<char>('0' + i + length + static_cast<uint32_t>(place));
            }
            ASSERT_TRUE(Put(text));
            m_walker.Restart();
            ASSERT_EQ(text, Step()) << "length " << length << ", place " << place;
            ASSERT_EQ("(end)", Step());
            ASSERT_EQ(text, Take());
        }
    }
}

TEST_F(RingWalkerTest, FindsWhatComesAfterItsEnd) {
    ASSERT_TRUE(Put("one"));
    EXPECT_EQ("one", Step());
    EXPECT_EQ("(end)", Step());
    ASSERT_TRUE(Put("two"));
    EXPECT_EQ("two", Step());
}

TEST_F(RingWalkerTest, GoesOnWhereItWasWhenTheReaderIsStillBehindIt) {
    ASSERT_TRUE(Put("one") && Put("two") && Put("three"));
    EXPECT_EQ("one", Step());
    EXPECT_EQ("two", Step());
    ASSERT_EQ("one", Take());
    EXPECT_EQ("three", Step());
}

TEST_F(RingWalkerTest, GoesOnAtTheReadIndexWhenTheReaderHasPassedIt) {
    ASSERT_TRUE(Put("one") && Put("two") && Put("three") && Put("four"));
    EXPECT_EQ("one", Step());
    ASSERT_EQ("one", Take());
    ASSERT_EQ("two", Take());
    EXPECT_EQ("(overtaken)", Step());
    EXPECT_EQ("three", Step());
    EXPECT_EQ("four", Step());
    EXPECT_EQ("(end)", Step());
}

TEST_F(RingWalkerTest, KnowsAfterALapThatNoMessageBeginsWhereItWas) {
    ASSERT_TRUE(Put("a message"));
    EXPECT_EQ("a message", Step());  // the next one begins at 16
    ASSERT_EQ("a message", Take());
    MoveOn(6);  // to 0
    ASSERT_TRUE(Put("this one lies over the place") && Put("two"));
    EXPECT_EQ("(overtaken)", Step());
    EXPECT_EQ("this one lies over the place", Step());
    EXPECT_EQ("two", Step());
}

TEST_F(RingWalkerTest, KnowsAfterALapThatAMessageBeforeItIsAnotherOne) {
    ASSERT_TRUE(Put("one") && Put("two"));
    EXPECT_EQ("one", Step());
    EXPECT_EQ("two", Step());
    ASSERT_EQ("one", Take());
    ASSERT_EQ("two", Take());
    MoveOn(5);  // to 56
    ASSERT_TRUE(Put("a message that lies over the place"));
    EXPECT_EQ("(overtaken)", Step());
}

TEST_F(RingWalkerTest, GoesOnAfterALapWhereAMessageBeginsAgain) {
    ASSERT_TRUE(Put("a message"));
    EXPECT_EQ("a message", Step());
    ASSERT_EQ("a message", Take());
    MoveOn(6);
    ASSERT_TRUE(Put("another 1") && Put("two"));
    EXPECT_EQ("two", Step());
}

TEST_F(RingWalkerTest, StopsAtALengthOfZero) {
    ASSERT_TRUE(Put("one") && Put("two"));
    m_raw->Poke(kRing, 0);
    EXPECT_EQ("(hole)", Step());
    EXPECT_EQ("(hole)", Step());
    m_raw->Poke(kRing, 3);
    EXPECT_EQ("one", Step());
}

TEST_F(RingWalkerTest, StopsAtALengthThatReachesPastTheWriteIndex) {
    ASSERT_TRUE(Put("one") && Put("two"));
    for (const uint32_t length : {13U, 64U, 65U, 0x7FFFFFFFU, 0xFFFFFFFCU, 0xFFFFFFFFU}) {
        m_raw->Poke(kRing, length);
        EXPECT_EQ("(too long)", Step()) << length;
    }
    m_raw->Poke(kRing, 12);
    EXPECT_EQ(12U, Step().size()) << "up to the write index it may reach";
}

TEST_F(RingWalkerTest, ReadsTheHead) {
    MoveOn(6);  // to 48
    ASSERT_TRUE(Put("twelve bytes") && Put("eleven byte"));
    const RingLook look = m_walker.Look();
    EXPECT_EQ(64U, look.size);
    EXPECT_EQ(48U, look.readWord);
    EXPECT_EQ(48U, look.readIndex);
    EXPECT_EQ(16U, look.writeWord);
    EXPECT_EQ(16U, look.writeIndex);
    EXPECT_EQ(32U, look.used);
    EXPECT_EQ(12U, look.firstLength);
    EXPECT_EQ(uint64_t{kFileSize}, m_walker.FileSize());
}

TEST_F(RingWalkerTest, TakesAnIndexThatIsNoneAsTheDaemonDoes) {
    m_raw->Poke(kReadWord, 65);
    m_raw->Poke(kWriteWord, 0xFFFFFFFE);
    const RingLook look = m_walker.Look();
    EXPECT_EQ(65U, look.readWord);
    EXPECT_EQ(4U, look.readIndex);
    EXPECT_EQ(0xFFFFFFFEU, look.writeWord);
    EXPECT_EQ(0U, look.writeIndex);
    EXPECT_EQ(60U, look.used);
}

TEST_F(RingWalkerTest, TellsWhetherTheFileIsStillTheOne) {
    EXPECT_TRUE(m_walker.IsCurrent());
    ASSERT_EQ(0, truncate(m_path.c_str(), kFileSize + 4));
    EXPECT_FALSE(m_walker.IsCurrent()) << "of another size";
    ASSERT_TRUE(m_walker.Open(m_path));
    EXPECT_EQ(68U, m_walker.Look().size);
    ASSERT_EQ(0, rename(m_path.c_str(), m_dir.File("old").c_str()));
    EXPECT_FALSE(m_walker.IsCurrent()) << "gone";
    m_dir.Write("ring", std::string(kFileSize + 4, '\0'));
    EXPECT_FALSE(m_walker.IsCurrent()) << "another one";
}

TEST_F(RingWalkerTest, SaysWhyThereIsNoRing) {
    RingWalker walker;
    EXPECT_FALSE(walker.IsCurrent());
    EXPECT_EQ(WalkResult::kEnd, walker.Next());
    EXPECT_EQ(0U, walker.Look().size);
    EXPECT_EQ(0U, walker.BytesAt(0).Size());
    EXPECT_FALSE(walker.CountFrom(0, nullptr).isWhole);

    EXPECT_FALSE(walker.Open(m_dir.File("missing")));
    EXPECT_THAT(walker.Error(), HasSubstr("missing: No such file or directory; check the name"));
    EXPECT_FALSE(walker.Open(m_dir.Path().string()));
    EXPECT_THAT(walker.Error(), HasSubstr("is no ring: it is not a plain file"));
    ASSERT_EQ(0, mkfifo(m_dir.File("fifo").c_str(), 0600));
    EXPECT_FALSE(walker.Open(m_dir.File("fifo")));
    EXPECT_FALSE(walker.Open(m_dir.Write("small", std::string(11, 'x'))));
    EXPECT_THAT(walker.Error(), HasSubstr("is no ring: it has 11 bytes"));
    EXPECT_TRUE(walker.Open(m_dir.Write("least", std::string(12, '\0'))));
    EXPECT_EQ(4U, walker.Look().size);
    EXPECT_EQ(WalkResult::kEnd, walker.Next());
    const std::string huge = m_dir.Write("huge", "");
    ASSERT_EQ(0, truncate(huge.c_str(), off_t{UINT32_MAX} + 1));
    EXPECT_FALSE(walker.Open(huge));
    EXPECT_EQ(WalkResult::kEnd, walker.Next()) << "what was mapped before is not";
}

TEST_F(RingWalkerTest, LeavesBytesAfterTheLastWordOutOfTheRing) {
    RingWalker walker;
    ASSERT_TRUE(walker.Open(m_dir.Write("odd", std::string(75, '\0'))));
    EXPECT_EQ(64U, walker.Look().size);
}

// A file that ends with its page, so that a read past the ring meets no memory.
TEST_F(RingWalkerTest, ReadsNothingOutsideTheRingWhateverIsInIt) {
    std::mt19937 random(7);
    for (int round = 0; round < 400; ++round) {
        std::string bytes(4096, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random() % 3 == 0 ? random() : 0);
        }
        const std::string path = m_dir.Write("random", bytes);
        RingWalker walker;
        ASSERT_TRUE(walker.Open(path));
        const RingLook look = walker.Look();
        ASSERT_LT(look.readIndex, look.size);
        ASSERT_LT(look.writeIndex, look.size);
        uint32_t total = 0;
        while (walker.Next() == WalkResult::kMessage) {
            total += static_cast<uint32_t>(walker.Body().size()) + 4;
        }
        ASSERT_LE(total, look.used);
        const RingCount count = walker.CountFrom(
            look.readIndex, [&random](const RingBytes& body) -> std::optional<uint32_t> {
                std::array<std::byte, 8> first = {};
                (void)body.Copy(static_cast<uint32_t>(random() % 5000), first);
                return static_cast<uint32_t>(random());
            });
        ASSERT_LE(count.messages * 4, look.size);
    }
}

// The messages of these tests are letters that say how many there are.
std::optional<uint32_t> LengthByLetter(const RingBytes& body) {
    std::byte first = {};
    if (!body.Copy(0, {&first, 1})) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(first) - 'a' + 1;
}

class RingWalkerCountTest : public RingWalkerTest {
  protected:
    bool PutLetters(uint32_t length) {
        return Put(std::string(length, static_cast<char>('a' + length - 1)));
    }
    static std::string Text(const RingCount& count) {
        return std::to_string(count.messages) + " to " + std::to_string(count.end) +
               (count.isWhole ? "" : ", not whole");
    }
};

TEST_F(RingWalkerCountTest, CountsWhatWaits) {
    EXPECT_EQ("0 to 0", Text(m_walker.CountFrom(0, nullptr)));
    ASSERT_TRUE(PutLetters(3) && PutLetters(8) && PutLetters(1));
    EXPECT_EQ("3 to 28", Text(m_walker.CountFrom(0, nullptr)));
    EXPECT_EQ("2 to 28", Text(m_walker.CountFrom(8, nullptr)));
    EXPECT_EQ("0 to 28", Text(m_walker.CountFrom(28, nullptr)));
}

TEST_F(RingWalkerCountTest, CountsWhatWasTakenMeanwhile) {
    for (uint32_t length = 1; length <= 24; ++length) {
        const uint32_t start = m_walker.Look().writeIndex;
        ASSERT_TRUE(PutLetters(length) && PutLetters(2) && PutLetters(11));
        EXPECT_EQ(length, Take().size());
        const RingCount count = m_walker.CountFrom(start, LengthByLetter);
        EXPECT_EQ(3U, count.messages);
        EXPECT_TRUE(count.isWhole);
        EXPECT_EQ(m_walker.Look().writeIndex, count.end);
        EXPECT_EQ(2U, Take().size());
        EXPECT_EQ(11U, Take().size());
        EXPECT_EQ(Text(count), Text(m_walker.CountFrom(start, LengthByLetter)));
    }
}

TEST_F(RingWalkerCountTest, SaysHowFarItCameWhenItCannotGoOn) {
    ASSERT_TRUE(PutLetters(3) && PutLetters(8) && PutLetters(1));
    ASSERT_EQ("ccc", Take());
    EXPECT_EQ("0 to 0, not whole", Text(m_walker.CountFrom(0, nullptr)));
    m_raw->Poke(kRing + 8, 0);
    const MessageLength never = [](const RingBytes&) { return std::nullopt; };
    EXPECT_EQ("0 to 0, not whole", Text(m_walker.CountFrom(0, never)));
    m_raw->Poke(kRing, 3);
    EXPECT_EQ("1 to 8, not whole", Text(m_walker.CountFrom(0, never)));
    m_raw->Poke(kRing + 8, 0xFFFFFFFF);
    EXPECT_EQ("1 to 8, not whole", Text(m_walker.CountFrom(0, never)));
}

TEST_F(RingWalkerCountTest, RefusesAStartThatIsNoPlaceInTheRing) {
    ASSERT_TRUE(PutLetters(3));
    EXPECT_FALSE(m_walker.CountFrom(2, nullptr).isWhole);
    EXPECT_FALSE(m_walker.CountFrom(64, nullptr).isWhole);
    EXPECT_TRUE(m_walker.CountFrom(0, nullptr).isWhole);
}

TEST_F(RingWalkerCountTest, ShowsTheBytesOfAMessageUpToTheWriteIndexOnly) {
    MoveOn(7);  // to 56
    ASSERT_TRUE(Put("abcdefgh"));
    EXPECT_EQ("abcdefgh", Take());
    const RingBytes body = m_walker.BytesAt(56);
    EXPECT_EQ(8U, body.Size());
    std::array<std::byte, 5> part = {};
    ASSERT_TRUE(body.Copy(3, part));
    EXPECT_EQ(0, std::memcmp("defgh", part.data(), 5));
    EXPECT_FALSE(body.Copy(4, part));
    EXPECT_FALSE(body.Copy(9, {}));
    EXPECT_FALSE(body.Copy(0xFFFFFFFF, part));
    EXPECT_EQ(0U, m_walker.BytesAt(4).Size()) << "at the write index nothing begins";
}

}  // namespace
}  // namespace tarnctl

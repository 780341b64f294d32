// Every wrap position of small rings, held against a model that moves one byte at a time.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "ring/shm_event_pipe.h"
#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr uint32_t kPage = 4096;
constexpr unsigned char kOutside = 0xA5;

// The file as the format describes it, byte by byte and by remainders only.
struct RingModel {
    explicit RingModel(uint32_t ring) : file(8 + ring, 0xEE) {}

    uint32_t Ring() const { return static_cast<uint32_t>(file.size()) - 8; }

    void PutWord(uint32_t at, uint32_t value) {
        for (unsigned i = 0; i < 4; ++i) {
            file[at + i] = static_cast<unsigned char>(value >> (8 * i));
        }
    }
    uint32_t Word(uint32_t at) const {
        uint32_t value = 0;
        std::memcpy(&value, &file[at], sizeof value);
        return value;
    }

    static uint32_t Padded(uint32_t length) { return (length + 3) / 4 * 4; }

    ShmPipeResult Write(const Bytes& message) {
        const auto length = static_cast<uint32_t>(message.size());
        if (length > Ring()) {
            return PIPE_ERROR;
        }
        const uint32_t read = Word(0);
        uint32_t at = Word(4);
        const uint32_t used = (Ring() + at - read) % Ring();
        if (Ring() - used <= 4 + Padded(length)) {
            return PIPE_FULL;
        }
        PutWord(8 + at, length);
        for (uint32_t i = 0; i < Padded(length); ++i) {
            file[8 + (at + 4 + i) % Ring()] = i < length ? message[i] : 0;
        }
        at = (at + 4 + Padded(length)) % Ring();
        PutWord(8 + at, 0);
        PutWord(4, at);
        return PIPE_OK;
    }

    Bytes file;
};

class ShmEventPipeWrap : public RingTest {
  protected:
    // Runs `visit` with a ring of every size, mapped for both roles.
    template <typename Visit>
    void ForEveryRing(Visit visit) {
        for (uint32_t ring = 16; ring <= 64; ring += 4) {
            ShmEventPipe writer(WRITER, m_path, ring + 8);
            ShmEventPipe reader(READER, m_path, ring + 8);
            ASSERT_TRUE(writer.Open(true) && reader.Open(true));
            IndependentRing raw(m_path);
            visit(writer, reader, raw, ring);
        }
    }

    // Brings the file into the state of the model.
    static void Lay(ShmEventPipe& pipe, const RingModel& model) {
        std::memcpy(pipe.m_pMap, model.file.data(), model.file.size());
    }

    static RingModel At(uint32_t ring, uint32_t read, uint32_t write) {
        RingModel model(ring);
        model.PutWord(0, read);
        model.PutWord(4, write);
        model.PutWord(8 + write, 0);
        return model;
    }
};

// The bytes of the page after the end of the file belong to the same mapping, so a step over the
// end of a small ring shows there.
void MarkOutside(ShmEventPipe& pipe) {
    std::memset(pipe.m_pDataEnd, kOutside, kPage - 8 - pipe.m_uSize);
}
bool OutsideIsUntouched(const ShmEventPipe& pipe) {
    const auto* const end = static_cast<const std::byte*>(pipe.m_pMap) + kPage;
    return std::all_of(static_cast<const std::byte*>(pipe.m_pDataEnd), end,
                       [](std::byte byte) { return byte == std::byte{kOutside}; });
}

TEST_F(ShmEventPipeWrap, SingleFormMatchesTheModelFromEveryPairOfIndexes) {
    ForEveryRing([](ShmEventPipe& writer, ShmEventPipe&, IndependentRing& raw, uint32_t ring) {
        for (uint32_t read = 0; read < ring; read += 4) {
            for (uint32_t write = 0; write < ring; write += 4) {
                for (uint32_t length = 0; length <= ring + 1; ++length) {
                    RingModel model = At(ring, read, write);
                    Lay(writer, model);
                    const Bytes message = Counting(length);
                    const ShmPipeResult expected = model.Write(message);
                    ASSERT_EQ(expected, Write(writer, message))
                        << ring << ' ' << read << ' ' << write << ' ' << length;
                    ASSERT_EQ(model.file, raw.Bytes())
                        << ring << ' ' << read << ' ' << write << ' ' << length;
                }
            }
        }
    });
}

TEST_F(ShmEventPipeWrap, GatherFormMatchesTheModelForEveryCutOfEveryMessage) {
    ForEveryRing([](ShmEventPipe& writer, ShmEventPipe&, IndependentRing& raw, uint32_t ring) {
        for (uint32_t start = 0; start < ring; start += 4) {
            for (uint32_t length = 0; length <= ring + 1; ++length) {
                Bytes message = Counting(length);
                for (uint32_t cut = 0; cut <= length; ++cut) {
                    RingModel model = At(ring, start, start);
                    Lay(writer, model);
                    const uint32_t second = (length - cut) / 2;
                    const iovec pieces[] = {{message.data(), cut},
                                            {nullptr, 0},
                                            {message.data() + cut, second},
                                            {message.data() + cut + second, length - cut - second}};
                    const ShmPipeResult expected = model.Write(message);
                    ASSERT_EQ(expected, writer.write(pieces, 4))
                        << ring << ' ' << start << ' ' << length << ' ' << cut;
                    ASSERT_EQ(model.file, raw.Bytes())
                        << ring << ' ' << start << ' ' << length << ' ' << cut;
                }
            }
        }
    });
}

TEST_F(ShmEventPipeWrap, ReadDeliversEveryMessageFromEveryOffset) {
    ForEveryRing([](ShmEventPipe&, ShmEventPipe& reader, IndependentRing& raw, uint32_t ring) {
        for (uint32_t start = 0; start < ring; start += 4) {
            for (uint32_t length = 1; length <= ring - 8; ++length) {
                RingModel model = At(ring, start, start);
                const Bytes message = Counting(length);
                ASSERT_EQ(PIPE_OK, model.Write(message));
                Lay(reader, model);
                ASSERT_EQ((Outcome{PIPE_OK, READ_OK, message}), Read(reader))
                    << ring << ' ' << start << ' ' << length;
                model.PutWord(8 + start, 0);
                model.PutWord(0, model.Word(4));
                ASSERT_EQ(model.file, raw.Bytes()) << ring << ' ' << start << ' ' << length;
                ASSERT_EQ(READ_EMPTY, Read(reader).status);
            }
        }
    });
}

TEST_F(ShmEventPipeWrap, TooSmallABufferPassesOverTheMessageFromEveryOffset) {
    ForEveryRing([](ShmEventPipe&, ShmEventPipe& reader, IndependentRing& raw, uint32_t ring) {
        for (uint32_t start = 0; start < ring; start += 4) {
            for (uint32_t length = 1; length <= ring - 8; ++length) {
                RingModel model = At(ring, start, start);
                ASSERT_EQ(PIPE_OK, model.Write(Counting(length)));
                Lay(reader, model);
                ASSERT_EQ(READ_BUFFER_TOO_SMALL, Read(reader, length - 1).status);
                model.PutWord(8 + start, 0);
                model.PutWord(0, model.Word(4));
                ASSERT_EQ(model.file, raw.Bytes()) << ring << ' ' << start << ' ' << length;
            }
        }
    });
}

TEST_F(ShmEventPipeWrap, ReadWithAnyLengthWordStaysInTheRing) {
    ForEveryRing([](ShmEventPipe&, ShmEventPipe& reader, IndependentRing&, uint32_t ring) {
        MarkOutside(reader);
        for (uint32_t start = 0; start < ring; start += 4) {
            for (uint32_t length = 1; length <= ring; ++length) {
                RingModel model = At(ring, start, (start + 4) % ring);
                model.PutWord(8 + start, length);
                Lay(reader, model);
                Bytes expected(length);
                for (uint32_t i = 0; i < length; ++i) {
                    expected[i] = model.file[8 + (start + 4 + i) % ring];
                }
                ASSERT_EQ((Outcome{PIPE_OK, READ_OK, expected}), Read(reader))
                    << ring << ' ' << start << ' ' << length;
            }
        }
        ASSERT_TRUE(OutsideIsUntouched(reader));
    });
}

TEST_F(ShmEventPipeWrap, AnIndexThatIsNoneIsRoundedUpAndWrapped) {
    const Bytes message = Counting(5);
    ForEveryRing([&](ShmEventPipe& writer, ShmEventPipe& reader, IndependentRing& raw,
                     uint32_t ring) {
        for (const uint32_t poked : {1U, ring - 1, ring, ring + 6, 0x80000001U, 0xFFFFFFFFU}) {
            const uint32_t meant = ((poked + 3) & ~3U) % ring;
            RingModel model = At(ring, meant, meant);
            ASSERT_EQ(PIPE_OK, model.Write(message));

            Lay(writer, At(ring, meant, meant));
            raw.Poke(4, poked);
            ASSERT_EQ(PIPE_OK, Write(writer, message)) << ring << ' ' << poked;
            ASSERT_EQ(model.file, raw.Bytes()) << ring << ' ' << poked;

            raw.Poke(0, poked);
            ASSERT_EQ((Outcome{PIPE_OK, READ_OK, message}), Read(reader)) << ring << ' ' << poked;
            ASSERT_EQ(raw.Word(4), raw.Word(0));
        }
    });
}

TEST_F(ShmEventPipeWrap, AnyReadIndexOnlyDecidesWhetherThereIsRoom) {
    ForEveryRing([](ShmEventPipe& writer, ShmEventPipe&, IndependentRing& raw, uint32_t ring) {
        for (const uint32_t read : {1U, 7U, ring, ring + 4, ring * 3 + 1, 0xFFFFFFFCU}) {
            for (uint32_t write = 0; write < ring; write += 4) {
                for (uint32_t length = 0; length <= ring; ++length) {
                    RingModel model = At(ring, read, write);
                    Lay(writer, model);
                    const Bytes message = Counting(length);
                    ASSERT_EQ(model.Write(message), Write(writer, message));
                    ASSERT_EQ(model.file, raw.Bytes());
                }
            }
        }
    });
}

TEST_F(ShmEventPipeWrap, ABadLengthWordUnderABadWriteIndexLeavesASoundReadIndex) {
    ForEveryRing([](ShmEventPipe&, ShmEventPipe& reader, IndependentRing& raw, uint32_t ring) {
        Lay(reader, At(ring, 0, 4));
        raw.Poke(4, ring + 9);
        raw.Poke(8, 0xFFFFFFFFU);
        ASSERT_EQ(READ_BAD_SIZE, Read(reader).status);
        ASSERT_EQ(12U % ring, raw.Word(0));
        ASSERT_EQ(READ_EMPTY, Read(reader).status);
    });
}

TEST_F(ShmEventPipeWrap, StaysInsideWhateverThePeerWrites) {
    std::mt19937 generator(20240517);
    const auto random = [&] { return static_cast<uint32_t>(generator()); };
    const auto word = [&](uint32_t ring) -> uint32_t {
        switch (random() % 4) {
            case 0:
                return random() % ring / 4 * 4;
            case 1:
                return random() % (ring + 9);
            case 2:
                return random();
            default:
                return 0xFFFFFFFFU - random() % 16;
        }
    };
    ForEveryRing(
        [&](ShmEventPipe& writer, ShmEventPipe& reader, IndependentRing& raw, uint32_t ring) {
            MarkOutside(writer);
            for (int round = 0; round < 20000; ++round) {
                raw.Poke(random() % (ring + 8) / 4 * 4, word(ring));
                if (random() % 2 == 0) {
                    raw.Poke(0, word(ring));
                }
                if (random() % 2 == 0) {
                    raw.Poke(4, word(ring));
                }
                if (random() % 2 == 0) {
                    Bytes message = Counting(random() % (ring + 4));
                    const size_t cut = random() % (message.size() + 1);
                    const iovec pieces[] = {{message.data(), cut},
                                            {message.data() + cut, message.size() - cut}};
                    ASSERT_LE(writer.write(pieces, 2), PIPE_ERROR);
                } else {
                    const Outcome outcome = Read(reader, ring);
                    ASSERT_LE(outcome.message.size(), ring);
                }
            }
            ASSERT_TRUE(OutsideIsUntouched(writer));
        });
}

}  // namespace

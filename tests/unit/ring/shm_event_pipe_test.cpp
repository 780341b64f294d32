#include "ring/shm_event_pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr uint32_t kFileSize = 72;  // a ring of 64 bytes
constexpr uint32_t kRing = kFileSize - 8;

int64_t DescriptorCount() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
}

bool IsMappedAnywhere(const std::string& path) {
    std::FILE* const maps = std::fopen("/proc/self/maps", "r");
    char line[4096];
    bool found = false;
    while (std::fgets(line, sizeof line, maps) != nullptr) {
        found = found || std::strstr(line, path.c_str()) != nullptr;
    }
    std::fclose(maps);
    return found;
}

// ---- lifecycle ----

using ShmEventPipeLifecycle = RingTest;

TEST_F(ShmEventPipeLifecycle, StartsWithTheStatedFields) {
    const ShmEventPipe pipe(WRITER, m_path, 70);
    EXPECT_EQ(WRITER, pipe.m_eRole);
    EXPECT_EQ(-1, pipe.m_iFd);
    EXPECT_EQ(nullptr, pipe.m_pMap);
    EXPECT_EQ(m_path, pipe.m_strPath);
    EXPECT_EQ(72U, pipe.m_uSize);
    EXPECT_FALSE(pipe.m_bOpenOption);
    EXPECT_FALSE(pipe.m_bMapped);
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_EQ(1, pipe.m_iErrorLevel);
    EXPECT_EQ(0, pipe.m_iInfoLevel);
    EXPECT_EQ(nullptr, pipe.m_pfnLog);
    EXPECT_STREQ("ShmEventPipe", ShmEventPipe::m_szClass);
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ShmEventPipeLifecycle, CreateMakesAnEmptyRingOfTheGivenSize) {
    const mode_t former = umask(0);
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    EXPECT_TRUE(pipe.Create());
    umask(former);
    EXPECT_TRUE(pipe.m_bCreated);
    EXPECT_FALSE(pipe.m_bMapped);
    struct stat status {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(kFileSize, status.st_size);
    EXPECT_EQ(0700U, status.st_mode & 07777U);
    EXPECT_EQ(IndependentRing(m_path).Bytes(), Bytes(kFileSize, 0));
}

TEST_F(ShmEventPipeLifecycle, OpenMakesAMissingFileAndTakesTheHeaderOffTheSize) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    EXPECT_TRUE(pipe.Open(true));
    EXPECT_TRUE(pipe.m_bMapped);
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_FALSE(pipe.m_bOpenOption);
    EXPECT_EQ(kRing, pipe.m_uSize);
    EXPECT_EQ(static_cast<void*>(pipe.m_pHeader), pipe.m_pMap);
    EXPECT_EQ(static_cast<std::byte*>(pipe.m_pMap) + 8, pipe.m_pData);
    EXPECT_EQ(pipe.m_pData + kRing, pipe.m_pDataEnd);
    EXPECT_EQ(kFileSize, std::filesystem::file_size(m_path));
}

TEST_F(ShmEventPipeLifecycle, OpenStoresTheInverseOfItsArgument) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    EXPECT_TRUE(pipe.Open(false));
    EXPECT_TRUE(pipe.m_bOpenOption);
}

TEST_F(ShmEventPipeLifecycle, OpenUsesTheDescriptorThatCreateLeft) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    ASSERT_TRUE(pipe.Create());
    const int descriptor = pipe.m_iFd;
    std::filesystem::remove(m_path);
    EXPECT_TRUE(pipe.Open(true));
    EXPECT_EQ(descriptor, pipe.m_iFd);
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ShmEventPipeLifecycle, OpenResizesAnExistingFileAndKeepsItsMessages) {
    {
        ShmEventPipe longer(WRITER, m_path, 4096);
        ASSERT_TRUE(longer.Open(true));
        ASSERT_EQ(PIPE_OK, Write(longer, Counting(10)));
    }
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(kFileSize, std::filesystem::file_size(m_path));
    EXPECT_EQ((Outcome{PIPE_OK, READ_OK, Counting(10)}), Read(reader));
}

TEST_F(ShmEventPipeLifecycle, MessagesOutliveTheirWriterAndAReaderThatComesBack) {
    {
        ShmEventPipe writer(WRITER, m_path, kFileSize);
        ASSERT_TRUE(writer.Open(true));
        ASSERT_EQ(PIPE_OK, Write(writer, Counting(5)));
        ASSERT_EQ(PIPE_OK, Write(writer, Counting(6)));
    }
    {
        ShmEventPipe reader(READER, m_path, kFileSize);
        ASSERT_TRUE(reader.Open(true));
        EXPECT_EQ(Counting(5), Read(reader).message);
    }
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ASSERT_TRUE(writer.Open(true));
    ASSERT_EQ(PIPE_OK, Write(writer, Counting(7)));
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(Counting(6), Read(reader).message);
    EXPECT_EQ(Counting(7), Read(reader).message);
    EXPECT_EQ(READ_EMPTY, Read(reader).status);
}

TEST_F(ShmEventPipeLifecycle, OpenRoundsAndWrapsOnlyItsOwnIndex) {
    ShmEventPipe maker(WRITER, m_path, kFileSize);
    ASSERT_TRUE(maker.Create());
    IndependentRing raw(m_path);
    raw.Fill(0x11);
    raw.Poke(0, 61);
    raw.Poke(4, 69);
    {
        ShmEventPipe writer(WRITER, m_path, kFileSize);
        ASSERT_TRUE(writer.Open(true));
        EXPECT_EQ(61U, raw.Word(0));
        EXPECT_EQ(8U, raw.Word(4));
        EXPECT_EQ(0U, raw.Word(8 + 8));  // the terminator
    }
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(0U, raw.Word(0));
    EXPECT_EQ(8U, raw.Word(4));
    EXPECT_EQ(0x11111111U, raw.Word(8));  // a reader puts no terminator
}

TEST_F(ShmEventPipeLifecycle, KeepsTakingTheHeaderOffAtEveryOpen) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    ASSERT_TRUE(pipe.Open(true));
    ASSERT_TRUE(pipe.Close());
    ASSERT_TRUE(pipe.Open(true));
    EXPECT_EQ(kFileSize - 16, pipe.m_uSize);
    EXPECT_EQ(kFileSize - 8, std::filesystem::file_size(m_path));
}

TEST_F(ShmEventPipeLifecycle, CloseReleasesTheWholeMappingAndTheDescriptor) {
    const auto descriptors = DescriptorCount();
    // One page and the header more: releasing the ring's size alone would leave the second page.
    ShmEventPipe pipe(WRITER, m_path, 4096 + 8);
    ASSERT_TRUE(pipe.Open(true));
    EXPECT_TRUE(IsMappedAnywhere(m_path));
    EXPECT_TRUE(pipe.Close());
    EXPECT_FALSE(pipe.m_bMapped);
    EXPECT_FALSE(IsMappedAnywhere(m_path));
    EXPECT_EQ(descriptors, DescriptorCount());
    EXPECT_TRUE(pipe.Close());
}

TEST_F(ShmEventPipeLifecycle, LeavesNothingOpenAfterAFailedOpen) {
    const auto descriptors = DescriptorCount();
    ShmEventPipe noRing(WRITER, m_path, 0);
    EXPECT_FALSE(noRing.Open(true)) << "cannot be mapped";
    EXPECT_EQ(-1, noRing.m_iFd);
    std::filesystem::remove(m_path);
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    ShmEventPipe noFile(WRITER, m_path, kFileSize);
    EXPECT_FALSE(noFile.Open(true)) << "cannot be sized";
    EXPECT_EQ(-1, noFile.m_iFd);
    EXPECT_FALSE(noFile.Create());
    EXPECT_EQ(-1, noFile.m_iFd);
    EXPECT_EQ(descriptors, DescriptorCount());
}

TEST_F(ShmEventPipeLifecycle, FailedOpenLeavesTheDescriptorOfCreate) {
    ShmEventPipe pipe(WRITER, m_path, 0);
    ASSERT_TRUE(pipe.Create());
    const int descriptor = pipe.m_iFd;
    EXPECT_FALSE(pipe.Open(true));
    EXPECT_EQ(descriptor, pipe.m_iFd);
    EXPECT_TRUE(pipe.m_bCreated);
}

TEST_F(ShmEventPipeLifecycle, OpensAFileThatItsOwnerAloneMayUse) {
    const mode_t former = umask(0);
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    EXPECT_TRUE(pipe.Open(true));
    umask(former);
    struct stat status {};
    ASSERT_EQ(0, stat(m_path.c_str(), &status));
    EXPECT_EQ(0700U, status.st_mode & 07777U);
}

TEST_F(ShmEventPipeLifecycle, GivesNoDescriptorToAChild) {
    ShmEventPipe created(WRITER, m_path, kFileSize);
    ASSERT_TRUE(created.Create());
    EXPECT_EQ(FD_CLOEXEC, fcntl(created.m_iFd, F_GETFD));
    ShmEventPipe opened(READER, m_path, kFileSize);
    ASSERT_TRUE(opened.Open(true));
    EXPECT_EQ(FD_CLOEXEC, fcntl(opened.m_iFd, F_GETFD));
}

TEST_F(ShmEventPipeLifecycle, OpenOfAMappedObjectReleasesTheFormerMapping) {
    {
        ShmEventPipe pipe(WRITER, m_path, kFileSize);
        ASSERT_TRUE(pipe.Open(true));
        ASSERT_TRUE(pipe.Open(true));
    }
    EXPECT_FALSE(IsMappedAnywhere(m_path));
}

TEST_F(ShmEventPipeLifecycle, RefusesAFileWithNoPlaceForARing) {
    for (const uint32_t size : {0U, 4U, 8U}) {
        ShmEventPipe pipe(WRITER, m_path, size);
        EXPECT_FALSE(pipe.Open(true)) << size;
    }
    ShmEventPipe smallest(WRITER, m_path, 12);
    EXPECT_TRUE(smallest.Open(true));
    EXPECT_EQ(PIPE_FULL, Write(smallest, Counting(4)));
    EXPECT_EQ(PIPE_ERROR, Write(smallest, Counting(5)));
}

TEST_F(ShmEventPipeLifecycle, DestroyRemovesAFileThatCreateMade) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    ASSERT_TRUE(pipe.Create());
    EXPECT_TRUE(pipe.Destroy());
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ShmEventPipeLifecycle, DestroyAfterOpenAloneReturnsTrueAndLeavesTheFile) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    ASSERT_TRUE(pipe.Open(true));
    EXPECT_TRUE(pipe.Destroy());
    EXPECT_TRUE(std::filesystem::exists(m_path));
}

TEST_F(ShmEventPipeLifecycle, DoesNothingOnTheRingWhileItIsNotMapped) {
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ShmEventPipe reader(READER, m_path, kFileSize);
    EXPECT_EQ(PIPE_ERROR, Write(writer, Counting(4)));
    EXPECT_EQ((Outcome{PIPE_ERROR, READ_EMPTY, {}}), Read(reader));
    EXPECT_FALSE(writer.Reset());
}

// ---- Reset ----

using ShmEventPipeReset = RingTest;

TEST_F(ShmEventPipeReset, ReturnsFalseOnAnObjectThatIsNotMapped) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    EXPECT_FALSE(pipe.Reset());
}

TEST_F(ShmEventPipeReset, EmptiesTheRingInEitherRole) {
    for (const ShmPipeRole role : {READER, WRITER}) {
        ShmEventPipe writer(WRITER, m_path, kFileSize);
        ASSERT_TRUE(writer.Open(true));
        IndependentRing raw(m_path);
        raw.Fill(0x22);
        raw.Poke(0, 12);
        raw.Poke(4, 24);
        ShmEventPipe pipe(role, m_path, kFileSize);
        ASSERT_TRUE(pipe.Open(true));
        EXPECT_TRUE(pipe.Reset());
        EXPECT_EQ(0U, raw.Word(0));
        EXPECT_EQ(0U, raw.Word(4));
        EXPECT_EQ(0U, raw.Word(8));
        EXPECT_EQ(0x22222222U, raw.Word(12));
    }
}

// ---- State ----

class ShmEventPipeState : public RingTest {
  protected:
    ShmEventPipe m_writer{WRITER, m_path, kFileSize};
    ShmEventPipe m_reader{READER, m_path, kFileSize};
    const bool m_open = m_writer.Open(true) && m_reader.Open(true);
    IndependentRing m_raw{m_path};
};

TEST_F(ShmEventPipeState, IsAllZeroWhileNothingIsMapped) {
    const ShmEventPipe pipe(READER, m_path, kFileSize);
    const ShmRingState state = pipe.State();
    EXPECT_EQ(0U, state.size + state.readIndex + state.writeIndex + state.used);
    EXPECT_FALSE(state.isStuck);
}

TEST_F(ShmEventPipeState, CountsWhatWaitsInEitherRole) {
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(5)));
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(8)));
    ASSERT_EQ(PIPE_OK, Read(m_reader).result);
    for (const ShmEventPipe* const pipe : {&m_writer, &m_reader}) {
        const ShmRingState state = pipe->State();
        EXPECT_EQ(kRing, state.size);
        EXPECT_EQ(12U, state.readIndex);
        EXPECT_EQ(24U, state.writeIndex);
        EXPECT_EQ(12U, state.used);
        EXPECT_FALSE(state.isStuck);
    }
}

TEST_F(ShmEventPipeState, CountsAcrossTheEndOfTheRing) {
    m_raw.Poke(0, 56);
    m_raw.Poke(4, 8);
    m_raw.Poke(8 + 56, 12);
    EXPECT_EQ(16U, m_reader.State().used);
    EXPECT_FALSE(m_reader.State().isStuck);
}

TEST_F(ShmEventPipeState, TellsAMessageOfNoBytesFromAnEmptyRing) {
    EXPECT_FALSE(m_reader.State().isStuck) << "nothing waits";
    const uint32_t zero = 0;
    ASSERT_EQ(PIPE_OK, m_writer.write(nullptr, &zero));
    EXPECT_TRUE(m_reader.State().isStuck);
    EXPECT_EQ(4U, m_reader.State().used);
    ASSERT_EQ(PIPE_OK, Write(m_writer, Counting(5)));
    EXPECT_TRUE(m_reader.State().isStuck) << "whatever comes after it";
}

TEST_F(ShmEventPipeState, StaysInTheRingWhateverThePeerWrites) {
    for (const uint32_t poked : {1U, kRing - 1, kRing, kRing + 6, 0x80000001U, 0xFFFFFFFFU}) {
        m_raw.Poke(0, poked);
        m_raw.Poke(4, poked);
        const ShmRingState state = m_reader.State();
        EXPECT_EQ(((poked + 3) & ~3U) % kRing, state.readIndex) << poked;
        EXPECT_EQ(state.readIndex, state.writeIndex) << poked;
        EXPECT_EQ(0U, state.used) << poked;
    }
}

}  // namespace

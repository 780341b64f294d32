#include "ring/shm_event_pipe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "support/independent_ring.h"
#include "support/ring_fixture.h"

namespace {

constexpr std::uint32_t kFileSize = 72;  // a ring of 64 bytes
constexpr std::uint32_t kRing = kFileSize - 8;

std::int64_t DescriptorCount() {
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

}  // namespace

// ---- lifecycle ----

using ShmEventPipeLifecycle = RingTest;

TEST_F(ShmEventPipeLifecycle, StartsWithTheStatedFields) {
    const ShmEventPipe pipe(WRITER, m_path, 70);
    EXPECT_EQ(pipe.m_eRole, WRITER);
    EXPECT_EQ(pipe.m_iFd, -1);
    EXPECT_EQ(pipe.m_pMap, nullptr);
    EXPECT_EQ(pipe.m_strPath, m_path);
    EXPECT_EQ(pipe.m_uSize, 72U);
    EXPECT_FALSE(pipe.m_bOpenOption);
    EXPECT_FALSE(pipe.m_bMapped);
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_EQ(pipe.m_iErrorLevel, 1);
    EXPECT_EQ(pipe.m_iInfoLevel, 0);
    EXPECT_EQ(pipe.m_pfnLog, nullptr);
    EXPECT_STREQ(ShmEventPipe::m_szClass, "ShmEventPipe");
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
    ASSERT_EQ(stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, kFileSize);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    EXPECT_EQ(IndependentRing(m_path).Bytes(), Bytes(kFileSize, 0));
}

TEST_F(ShmEventPipeLifecycle, OpenMakesAMissingFileAndTakesTheHeaderOffTheSize) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    EXPECT_TRUE(pipe.Open(true));
    EXPECT_TRUE(pipe.m_bMapped);
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_FALSE(pipe.m_bOpenOption);
    EXPECT_EQ(pipe.m_uSize, kRing);
    EXPECT_EQ(static_cast<void*>(pipe.m_pHeader), pipe.m_pMap);
    EXPECT_EQ(pipe.m_pData, static_cast<std::byte*>(pipe.m_pMap) + 8);
    EXPECT_EQ(pipe.m_pDataEnd, pipe.m_pData + kRing);
    EXPECT_EQ(std::filesystem::file_size(m_path), kFileSize);
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
    EXPECT_EQ(pipe.m_iFd, descriptor);
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ShmEventPipeLifecycle, OpenResizesAnExistingFileAndKeepsItsMessages) {
    {
        ShmEventPipe longer(WRITER, m_path, 4096);
        ASSERT_TRUE(longer.Open(true));
        ASSERT_EQ(Write(longer, Counting(10)), PIPE_OK);
    }
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(std::filesystem::file_size(m_path), kFileSize);
    EXPECT_EQ(Read(reader), (Outcome{PIPE_OK, READ_OK, Counting(10)}));
}

TEST_F(ShmEventPipeLifecycle, MessagesOutliveTheirWriterAndAReaderThatComesBack) {
    {
        ShmEventPipe writer(WRITER, m_path, kFileSize);
        ASSERT_TRUE(writer.Open(true));
        ASSERT_EQ(Write(writer, Counting(5)), PIPE_OK);
        ASSERT_EQ(Write(writer, Counting(6)), PIPE_OK);
    }
    {
        ShmEventPipe reader(READER, m_path, kFileSize);
        ASSERT_TRUE(reader.Open(true));
        EXPECT_EQ(Read(reader).message, Counting(5));
    }
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ASSERT_TRUE(writer.Open(true));
    ASSERT_EQ(Write(writer, Counting(7)), PIPE_OK);
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(Read(reader).message, Counting(6));
    EXPECT_EQ(Read(reader).message, Counting(7));
    EXPECT_EQ(Read(reader).status, READ_EMPTY);
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
        EXPECT_EQ(raw.Word(0), 61U);
        EXPECT_EQ(raw.Word(4), 8U);
        EXPECT_EQ(raw.Word(8 + 8), 0U);  // the terminator
    }
    ShmEventPipe reader(READER, m_path, kFileSize);
    ASSERT_TRUE(reader.Open(true));
    EXPECT_EQ(raw.Word(0), 0U);
    EXPECT_EQ(raw.Word(4), 8U);
    EXPECT_EQ(raw.Word(8), 0x11111111U);  // a reader puts no terminator
}

TEST_F(ShmEventPipeLifecycle, KeepsTakingTheHeaderOffAtEveryOpen) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    ASSERT_TRUE(pipe.Open(true));
    ASSERT_TRUE(pipe.Close());
    ASSERT_TRUE(pipe.Open(true));
    EXPECT_EQ(pipe.m_uSize, kFileSize - 16);
    EXPECT_EQ(std::filesystem::file_size(m_path), kFileSize - 8);
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
    EXPECT_EQ(DescriptorCount(), descriptors);
    EXPECT_TRUE(pipe.Close());
}

TEST_F(ShmEventPipeLifecycle, LeavesNothingOpenBehindAFailedOpen) {
    const auto descriptors = DescriptorCount();
    {
        ShmEventPipe pipe(WRITER, m_path, 0);
        EXPECT_FALSE(pipe.Open(true));
        EXPECT_NE(pipe.m_iFd, -1);
        EXPECT_FALSE(pipe.Open(true));
    }
    EXPECT_EQ(DescriptorCount(), descriptors);
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
    for (const std::uint32_t size : {0U, 4U, 8U}) {
        ShmEventPipe pipe(WRITER, m_path, size);
        EXPECT_FALSE(pipe.Open(true)) << size;
    }
    ShmEventPipe smallest(WRITER, m_path, 12);
    EXPECT_TRUE(smallest.Open(true));
    EXPECT_EQ(Write(smallest, Counting(4)), PIPE_FULL);
    EXPECT_EQ(Write(smallest, Counting(5)), PIPE_ERROR);
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
    EXPECT_EQ(Write(writer, Counting(4)), PIPE_ERROR);
    EXPECT_EQ(Read(reader), (Outcome{PIPE_ERROR, READ_EMPTY, {}}));
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
        EXPECT_EQ(raw.Word(0), 0U);
        EXPECT_EQ(raw.Word(4), 0U);
        EXPECT_EQ(raw.Word(8), 0U);
        EXPECT_EQ(raw.Word(12), 0x22222222U);
    }
}

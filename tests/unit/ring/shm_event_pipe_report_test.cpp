#include "ring/shm_event_pipe.h"

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

class ShmEventPipeReport : public RingTest {
  protected:
    static std::string Text(const char* call, int error) {
        return std::string(call) + ": " + std::strerror(error);
    }
};

TEST_F(ShmEventPipeReport, SaysNothingWithoutACallback) {
    ShmEventPipe pipe(WRITER, m_path + "/no/such/place", kFileSize);
    EXPECT_FALSE(pipe.Create());
    EXPECT_FALSE(pipe.Open(true));
    EXPECT_TRUE(s_reports.empty());
}

TEST_F(ShmEventPipeReport, TellsWhyCreateCannotOpen) {
    ShmEventPipe pipe(WRITER, m_path + "/no/such/place", kFileSize);
    pipe.m_pfnLog = Remember;
    pipe.m_iInfoLevel = 17;
    EXPECT_FALSE(pipe.Create());
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Create", 17, Text("open", ENOENT)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyCreateCannotSizeAndRemovesTheFile) {
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    pipe.m_pfnLog = Remember;
    EXPECT_FALSE(pipe.Create());
    EXPECT_FALSE(pipe.m_bCreated);
    EXPECT_FALSE(std::filesystem::exists(m_path));
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Create", 0, Text("ftruncate", EINVAL)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyOpenCannotOpen) {
    ShmEventPipe pipe(READER, m_path + "/no/such/place", kFileSize);
    pipe.m_pfnLog = Remember;
    EXPECT_FALSE(pipe.Open(true));
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Open", 0, Text("open", ENOENT)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyOpenCannotSizeAndLeavesTheFile) {
    ASSERT_EQ(0, mkfifo(m_path.c_str(), 0600));
    ShmEventPipe pipe(READER, m_path, kFileSize);
    pipe.m_pfnLog = Remember;
    EXPECT_FALSE(pipe.Open(true));
    EXPECT_TRUE(std::filesystem::exists(m_path));
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Open", 0, Text("ftruncate", EINVAL)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyOpenCannotMap) {
    ShmEventPipe pipe(READER, m_path, 0);
    pipe.m_pfnLog = Remember;
    EXPECT_FALSE(pipe.Open(true));
    EXPECT_FALSE(pipe.m_bMapped);
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Open", 0, Text("mmap", EINVAL)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyCloseFailedAndStaysMapped) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    pipe.m_pfnLog = Remember;
    ASSERT_TRUE(pipe.Open(true));
    void* const map = pipe.m_pMap;
    pipe.m_pMap = static_cast<std::byte*>(map) + 4;
    EXPECT_FALSE(pipe.Close());
    EXPECT_TRUE(pipe.m_bMapped);
    EXPECT_NE(-1, pipe.m_iFd);
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Close", 0, Text("munmap", EINVAL)}}),
              s_reports);
    pipe.m_pMap = map;
    EXPECT_TRUE(pipe.Close());
}

TEST_F(ShmEventPipeReport, TellsWhyResetFailed) {
    ShmEventPipe pipe(READER, m_path, kFileSize);
    pipe.m_pfnLog = Remember;
    ASSERT_TRUE(pipe.Open(true));
    void* const map = pipe.m_pMap;
    pipe.m_pMap = static_cast<std::byte*>(map) + 4;
    EXPECT_FALSE(pipe.Reset());
    pipe.m_pMap = map;
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Reset", 0, Text("msync", EINVAL)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsWhyDestroyFailedAndMayTryAgain) {
    ShmEventPipe pipe(WRITER, m_path, kFileSize);
    pipe.m_pfnLog = Remember;
    ASSERT_TRUE(pipe.Create());
    std::filesystem::remove(m_path);
    EXPECT_FALSE(pipe.Destroy());
    EXPECT_TRUE(pipe.m_bCreated);
    EXPECT_EQ((std::vector<RingReport>{{"ShmEventPipe", "Destroy", 0, Text("unlink", ENOENT)}}),
              s_reports);
}

TEST_F(ShmEventPipeReport, TellsOfEveryRefusalOnTheDataPath) {
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ShmEventPipe reader(READER, m_path, kFileSize);
    writer.m_pfnLog = reader.m_pfnLog = Remember;
    reader.m_iErrorLevel = 5;
    reader.m_iInfoLevel = 7;
    ASSERT_TRUE(writer.Open(true) && reader.Open(true));
    EXPECT_EQ(PIPE_ERROR, Read(writer).result);
    EXPECT_EQ(PIPE_ERROR, Write(reader, Counting(1)));
    EXPECT_EQ(PIPE_ERROR, Write(writer, Counting(kRing + 1)));
    EXPECT_EQ(PIPE_OK, Write(writer, Counting(9)));
    EXPECT_EQ(PIPE_NO_DATA, Read(reader, 5).result);
    EXPECT_EQ(PIPE_OK, Write(writer, Counting(9)));
    IndependentRing(m_path).Poke(8 + 16, 4000000000U);
    EXPECT_EQ(PIPE_ERROR, Read(reader).result);
    EXPECT_EQ((std::vector<RingReport>{
                  {"ShmEventPipe", "read", 0, "Cannot read from WRITER pipe"},
                  {"ShmEventPipe", "write", 7, "Cannot write to READER pipe"},
                  {"ShmEventPipe", "write", 0, "Cannot write message larger than pipe size"},
                  {"ShmEventPipe", "read", 7, "output buffer too small: size = 5; msgSize = 9"},
                  {"ShmEventPipe", "read", 5,
                   "Invalid message size 4000000000 at offset 16. write index: 32"},
              }),
              s_reports);
}

TEST_F(ShmEventPipeReport, SaysNothingOfAFullOrEmptyRing) {
    ShmEventPipe writer(WRITER, m_path, kFileSize);
    ShmEventPipe reader(READER, m_path, kFileSize);
    writer.m_pfnLog = reader.m_pfnLog = Remember;
    ASSERT_TRUE(writer.Open(true) && reader.Open(true));
    EXPECT_EQ(PIPE_NO_DATA, Read(reader).result);
    EXPECT_EQ(PIPE_FULL, Write(writer, Counting(kRing)));
    EXPECT_TRUE(s_reports.empty());
}

}  // namespace

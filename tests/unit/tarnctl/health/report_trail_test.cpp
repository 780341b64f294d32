#include "tarnctl/health/report_trail.h"

#include <gmock/gmock.h>

#include <cstring>

#include "ring/shm_event_pipe.h"
#include "support/temp_dir.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kFileSize = 2048;

class ReportTrailTest : public testing::Test {
  protected:
    ReportTrailTest() : m_writer(WRITER, m_dir.File("ring"), kFileSize) {}

    void Open() { ASSERT_TRUE(m_writer.Open(true)); }
    // A report with a name of this many bytes.
    void Write(uint32_t signature, uint32_t nameBytes = 2) {
        struct {
            ReportChunkHeader header;
            EventReport report;
        } head;
        head.report.issueId = signature;
        head.header.chunkLength = static_cast<uint32_t>(sizeof head) + nameBytes;
        const ChunkHeader tail[] = {{kChunkNameValues, sizeof(ChunkHeader)},
                                    {kChunkEnd, sizeof(ChunkHeader)}};
        std::string bytes(sizeof head + nameBytes + sizeof tail, 'n');
        std::memcpy(bytes.data(), &head, sizeof head);
        std::memcpy(bytes.data() + sizeof head + nameBytes, tail, sizeof tail);
        const auto length = static_cast<uint32_t>(bytes.size());
        ASSERT_EQ(PIPE_OK, m_writer.write(bytes.data(), &length));
    }
    void TakeAll() {
        ShmEventPipe reader(READER, m_dir.File("ring"), kFileSize);
        ASSERT_TRUE(reader.Open(true));
        std::string bytes(kFileSize, '\0');
        uint32_t size = kFileSize;
        while (reader.read(bytes.data(), &size) == PIPE_OK) {
            size = kFileSize;
        }
    }
    std::vector<uint32_t> Followed() {
        std::vector<uint32_t> signatures;
        m_isWhole = m_trail.Follow(
            [&signatures](const EventReport& report) { signatures.push_back(report.issueId); });
        return signatures;
    }

    TempDir m_dir;
    ShmEventPipe m_writer;
    ReportTrail m_trail{m_dir.File("ring")};
    bool m_isWhole = false;
};

TEST_F(ReportTrailTest, HasNothingToFollowWithoutARing) {
    EXPECT_THAT(Followed(), IsEmpty());
    EXPECT_TRUE(m_isWhole);
    EXPECT_FALSE(m_trail.IsOpen());
}

TEST_F(ReportTrailTest, SeesWhatIsWrittenFromItsFirstCallOn) {
    Open();
    Write(1);
    EXPECT_THAT(Followed(), IsEmpty());
    EXPECT_TRUE(m_trail.IsOpen());
    Write(2);
    Write(3, 7);
    EXPECT_THAT(Followed(), ElementsAre(2U, 3U));
    EXPECT_THAT(Followed(), IsEmpty());
    EXPECT_TRUE(m_isWhole);
}

TEST_F(ReportTrailTest, SeesWhatAReaderHasTakenAndAcrossTheEnd) {
    Open();
    (void)Followed();
    for (uint32_t turn = 1; turn < 20; ++turn) {
        Write(turn, turn);
        Write(turn + 100);
        TakeAll();
        EXPECT_THAT(Followed(), ElementsAre(turn, turn + 100));
        EXPECT_TRUE(m_isWhole);
    }
}

TEST_F(ReportTrailTest, SaysThatReportsWereMissed) {
    Open();
    (void)Followed();
    const std::string other(40, 'x');
    const auto length = static_cast<uint32_t>(other.size());
    ASSERT_EQ(PIPE_OK, m_writer.write(other.data(), &length));
    Write(5);
    EXPECT_THAT(Followed(), IsEmpty());
    EXPECT_FALSE(m_isWhole);
    Write(6);
    EXPECT_THAT(Followed(), ElementsAre(6U));
    EXPECT_TRUE(m_isWhole);
}

TEST_F(ReportTrailTest, FindsARingThatWasMadeAnew) {
    Open();
    (void)Followed();
    std::filesystem::remove(m_dir.File("ring"));
    EXPECT_THAT(Followed(), IsEmpty());
    EXPECT_FALSE(m_isWhole);
    EXPECT_FALSE(m_trail.IsOpen());
    ShmEventPipe writer(WRITER, m_dir.File("ring"), kFileSize);
    ASSERT_TRUE(writer.Open(true));
    (void)Followed();
    EXPECT_TRUE(m_trail.IsOpen());
}

}  // namespace
}  // namespace tarnctl

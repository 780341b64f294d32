#include "tarnctl/feed/spool_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "support/temp_dir.h"
#include "support/unified2_records.h"
#include "tarnctl/feed/alert_key.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace tarnctl {
namespace {

namespace fs = std::filesystem;
using State = SpoolReader::State;
using std::chrono::milliseconds;

class SpoolReaderTest : public testing::Test {
  protected:
    void Append(const std::string& name, const u2test::Bytes& bytes) {
        std::ofstream file(m_dir.File(name), std::ios::app | std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    void AppendAlert(const std::string& name, uint32_t eventId) { Append(name, AlertOf(eventId)); }
    static u2test::Bytes AlertOf(uint32_t eventId) {
        return u2test::Framed(u2test::Alert{.eventId = eventId});
    }
    static u2test::Bytes Half(uint32_t eventId) {
        const u2test::Bytes alert = AlertOf(eventId);
        return {alert.begin(), alert.begin() + 40};
    }
    // Peeks after a time in which the folder is looked through again.
    State PeekLater(milliseconds time = SpoolReader::kLookInterval) {
        m_now += time;
        return m_reader.Peek(m_now);
    }
    // The event ids of all records that are there now.
    std::vector<uint32_t> ReadAll() {
        std::vector<uint32_t> ids;
        for (int looks = 0; looks < 4; ++looks) {
            while (PeekLater() == State::kRecord) {
                ids.push_back(ReadAlert(m_reader.Type(), m_reader.Bytes()).eventId);
                m_reader.Pass();
            }
        }
        return ids;
    }

    const TempDir m_dir;
    std::vector<std::string> m_told;
    SpoolReader m_reader{m_dir.File("u2"),
                         [this](const std::string& text) { m_told.push_back(text); }};
    SpoolReader::Clock::time_point m_now = SpoolReader::Clock::now();
};

TEST_F(SpoolReaderTest, ReadsStampedFilesByTheirNumbersAndThePlainOneLast) {
    AppendAlert("u2", 4);
    AppendAlert("u2.1000", 3);
    AppendAlert("u2.999", 2);
    AppendAlert("u2.5", 1);
    AppendAlert("u2.5.gz", 8);
    AppendAlert("u2x", 9);
    AppendAlert("u2.", 9);
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(4U, m_reader.Counts().files);
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(SpoolReaderTest, FollowsRotationInTheMiddleOfARecord) {
    AppendAlert("u2.1", 1);
    Append("u2.1", Half(2));
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1));
    AppendAlert("u2.2", 3);
    EXPECT_EQ(State::kPartial, PeekLater());
    const u2test::Bytes alert = AlertOf(2);
    Append("u2.1", {alert.begin() + 40, alert.end()});
    EXPECT_THAT(ReadAll(), ElementsAre(2, 3));
    EXPECT_EQ(0U, m_reader.Counts().cut);
}

TEST_F(SpoolReaderTest, GivesATailUpOnceANewerFileIsThereForLong) {
    AppendAlert("u2.1", 1);
    Append("u2.1", Half(2));
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1));
    EXPECT_EQ(State::kPartial, PeekLater(10 * SpoolReader::kTailPatience));
    EXPECT_FALSE(m_reader.IsWaitingForTail());
    AppendAlert("u2.2", 3);
    EXPECT_EQ(State::kPartial, PeekLater());
    EXPECT_TRUE(m_reader.IsWaitingForTail());
    EXPECT_EQ(State::kPartial, PeekLater(SpoolReader::kTailPatience - milliseconds(1)));
    EXPECT_EQ(State::kRecord, PeekLater());
    EXPECT_FALSE(m_reader.IsWaitingForTail());
    EXPECT_THAT(ReadAll(), ElementsAre(3));
    EXPECT_EQ(1U, m_reader.Counts().cut);
    EXPECT_THAT(m_told,
                ElementsAre("u2.1: the record's tail never came at offset 68; going on with "
                            "u2.2"));
}

TEST_F(SpoolReaderTest, ATailThatGrowsIsWaitedForAnew) {
    Append("u2.1", Half(2));
    AppendAlert("u2.2", 3);
    m_reader.Begin(std::nullopt);
    EXPECT_EQ(State::kPartial, PeekLater());
    EXPECT_EQ(State::kPartial, PeekLater(SpoolReader::kTailPatience - milliseconds(1)));
    Append("u2.1", {0});
    EXPECT_EQ(State::kPartial, PeekLater(milliseconds(100)));
    EXPECT_EQ(State::kPartial, PeekLater(SpoolReader::kTailPatience - milliseconds(1)));
    EXPECT_EQ(0U, m_reader.Counts().cut);
}

TEST_F(SpoolReaderTest, FollowsAPlainFileThatIsMovedAway) {
    AppendAlert("u2", 1);
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1));
    AppendAlert("u2", 2);
    fs::rename(m_dir.File("u2"), m_dir.File("u2.100"));
    AppendAlert("u2", 3);
    EXPECT_THAT(ReadAll(), ElementsAre(2, 3));
    EXPECT_EQ("u2", m_reader.FileName());
    fs::rename(m_dir.File("u2"), m_dir.File("u2.101"));
    AppendAlert("u2.102", 4);
    AppendAlert("u2", 5);
    EXPECT_THAT(ReadAll(), ElementsAre(4, 5));
    EXPECT_THAT(m_told, IsEmpty());
}

TEST_F(SpoolReaderTest, GoesOnWithAFileThatWasCut) {
    AppendAlert("u2", 1);
    AppendAlert("u2", 2);
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1, 2));
    fs::resize_file(m_dir.File("u2"), 0);
    AppendAlert("u2", 3);
    EXPECT_THAT(ReadAll(), ElementsAre(3));
    EXPECT_EQ(1U, m_reader.Counts().anew);
    EXPECT_THAT(m_told, ElementsAre(HasSubstr("u2 was cut or written anew at offset 136")));
}

TEST_F(SpoolReaderTest, ReadsAFileToItsEndThatHasBeenRemoved) {
    AppendAlert("u2.1", 1);
    AppendAlert("u2.1", 2);
    m_reader.Begin(std::nullopt);
    ASSERT_EQ(State::kRecord, PeekLater());
    m_reader.Pass();
    fs::remove(m_dir.File("u2.1"));
    AppendAlert("u2.2", 3);
    EXPECT_THAT(ReadAll(), ElementsAre(2, 3));
}

TEST_F(SpoolReaderTest, WaitsWhereAFileIsDamagedAndLeavesItForANewerOne) {
    u2test::Bytes damage;
    u2test::Put32(damage, 104);
    u2test::Put32(damage, 0xFFFFFFFF);
    AppendAlert("u2.1", 1);
    Append("u2.1", damage);
    m_reader.Begin(std::nullopt);
    EXPECT_THAT(ReadAll(), ElementsAre(1));
    EXPECT_THAT(m_told, ElementsAre(HasSubstr("u2.1: damaged at offset 68")));
    AppendAlert("u2.2", 2);
    EXPECT_THAT(ReadAll(), ElementsAre(2));
    EXPECT_EQ(1U, m_reader.Counts().damaged);
}

TEST_F(SpoolReaderTest, WaitsForAFirstFile) {
    m_reader.Begin(std::nullopt);
    EXPECT_EQ(State::kEnd, PeekLater());
    AppendAlert("u2.1", 1);
    EXPECT_THAT(ReadAll(), ElementsAre(1));
}

TEST_F(SpoolReaderTest, GoesOnAtAPlaceInAFileThatWasRenamed) {
    AppendAlert("u2", 1);
    AppendAlert("u2", 2);
    m_reader.Begin(std::nullopt);
    ASSERT_EQ(State::kRecord, PeekLater());
    m_reader.Pass();
    const auto place = m_reader.PlaceOf(m_reader.Here());
    ASSERT_TRUE(place.has_value());
    EXPECT_EQ("u2", place->name);
    EXPECT_EQ(68U, place->offset);

    fs::rename(m_dir.File("u2"), m_dir.File("u2.7"));
    AppendAlert("u2", 3);
    SpoolReader second(m_dir.File("u2"), [](const std::string&) {});
    second.Begin(place);
    ASSERT_EQ(State::kRecord, second.Peek(m_now));
    EXPECT_EQ(2U, ReadAlert(second.Type(), second.Bytes()).eventId);
}

TEST_F(SpoolReaderTest, AFileOfTheSameNumberWithOtherBytesIsAnother) {
    AppendAlert("u2.1", 1);
    m_reader.Begin(std::nullopt);
    ASSERT_EQ(State::kRecord, PeekLater());
    m_reader.Pass();
    const auto place = m_reader.PlaceOf(m_reader.Here());
    ASSERT_TRUE(place.has_value());

    fs::resize_file(m_dir.File("u2.1"), 0);
    AppendAlert("u2.1", 8);
    std::vector<std::string> told;
    SpoolReader second(m_dir.File("u2"), [&](const std::string& text) { told.push_back(text); });
    second.Begin(place);
    ASSERT_EQ(State::kRecord, second.Peek(m_now));
    EXPECT_EQ(8U, ReadAlert(second.Type(), second.Bytes()).eventId);
    EXPECT_EQ(1U, second.Counts().vanished);
    EXPECT_THAT(told, Contains(HasSubstr("u2.1 is gone or written anew")));
}

TEST_F(SpoolReaderTest, GoesOnWithTheNextOneAfterAFileThatVanished) {
    AppendAlert("u2.1", 1);
    AppendAlert("u2.3", 3);
    SpoolPlace place;
    place.name = "u2.2";
    place.inode = 1;
    place.head = "00";
    place.offset = 5;
    m_reader.Begin(place);
    EXPECT_THAT(ReadAll(), ElementsAre(3));
    EXPECT_EQ(1U, m_reader.Counts().vanished);
    EXPECT_THAT(m_told, ElementsAre(HasSubstr("after offset 5 is lost unless it was fed")));
}

TEST_F(SpoolReaderTest, KnowsTheFilesOfPositionsThatAreStillAskedFor) {
    AppendAlert("u2.1", 1);
    AppendAlert("u2.2", 2);
    m_reader.Begin(std::nullopt);
    ASSERT_EQ(State::kRecord, PeekLater());
    const SpoolPosition first = m_reader.Here();
    EXPECT_THAT(ReadAll(), ElementsAre(1, 2));
    const auto place = m_reader.PlaceOf(first);
    ASSERT_TRUE(place.has_value());
    EXPECT_EQ("u2.1", place->name);
    EXPECT_EQ(0U, place->offset);
    EXPECT_EQ(2 * SpoolFile::kHeadBytes, place->head.size());
    EXPECT_LT(first, m_reader.Here());
    m_reader.Forget(m_reader.Here());
    EXPECT_FALSE(m_reader.PlaceOf(first).has_value());
    EXPECT_TRUE(m_reader.PlaceOf(m_reader.Here()).has_value());
}

}  // namespace
}  // namespace tarnctl

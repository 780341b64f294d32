#include "tarnctl/feed/spool_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/temp_dir.h"
#include "support/unified2_records.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

using Result = SpoolFile::Result;

class SpoolFileTest : public testing::Test {
  protected:
    void Append(const u2test::Bytes& bytes) {
        std::ofstream file(m_path, std::ios::app | std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    static u2test::Bytes AlertOf(uint32_t eventId) {
        return u2test::Framed(u2test::Alert{.eventId = eventId});
    }
    // The bytes of the record that was peeked.
    [[nodiscard]] u2test::Bytes Peeked() const {
        const auto* const first = reinterpret_cast<const uint8_t*>(m_file.Bytes().data());
        return {first, first + m_file.Bytes().size()};
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.File("u2");
    SpoolFile m_file;
};

TEST_F(SpoolFileTest, GivesEachRecordUntilItIsPassed) {
    Append(AlertOf(1));
    Append(u2test::Framed(u2test::Packet{}));
    ASSERT_EQ("", m_file.Open(m_path));
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    EXPECT_EQ(104U, m_file.Type());
    EXPECT_EQ(AlertOf(1), Peeked());
    EXPECT_EQ(0U, m_file.Offset());
    m_file.Pass();
    EXPECT_EQ(68U, m_file.Offset());
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    EXPECT_EQ(2U, m_file.Type());
    m_file.Pass();
    EXPECT_EQ(Result::kEnd, m_file.Peek());
}

TEST_F(SpoolFileTest, WaitsForTheTailAtEachPlaceOfARecord) {
    const u2test::Bytes alert = AlertOf(1);
    for (size_t length = 1; length < alert.size(); ++length) {
        std::filesystem::remove(m_path);
        Append({alert.begin(), alert.begin() + static_cast<long>(length)});
        ASSERT_EQ("", m_file.Open(m_path));
        ASSERT_EQ(Result::kPartial, m_file.Peek()) << length;
        Append({alert.begin() + static_cast<long>(length), alert.end()});
        ASSERT_EQ(Result::kRecord, m_file.Peek()) << length;
        ASSERT_EQ(alert, Peeked()) << length;
    }
}

TEST_F(SpoolFileTest, SeesWhatIsWrittenAfterItsEnd) {
    Append(AlertOf(1));
    ASSERT_EQ("", m_file.Open(m_path));
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    m_file.Pass();
    ASSERT_EQ(Result::kEnd, m_file.Peek());
    Append(AlertOf(2));
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    EXPECT_EQ(AlertOf(2), Peeked());
}

TEST_F(SpoolFileTest, ReadsRecordsAcrossItsBuffer) {
    const u2test::Packet packet{.data = u2test::Bytes(100000, 7)};
    constexpr int kRecords = 12;
    for (int i = 0; i < kRecords; ++i) {
        Append(u2test::Framed(packet));
    }
    ASSERT_EQ("", m_file.Open(m_path));
    for (int i = 0; i < kRecords; ++i) {
        ASSERT_EQ(Result::kRecord, m_file.Peek());
        ASSERT_EQ(u2test::Framed(packet), Peeked()) << i;
        m_file.Pass();
    }
    EXPECT_EQ(Result::kEnd, m_file.Peek());
}

TEST_F(SpoolFileTest, ReadsARecordLongerThanItsBuffer) {
    const u2test::Packet packet{.data = u2test::Bytes(400000, 7)};
    Append(u2test::Framed(packet));
    ASSERT_EQ("", m_file.Open(m_path));
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    EXPECT_EQ(u2test::Framed(packet), Peeked());
}

TEST_F(SpoolFileTest, NoticesThatTheFileHasBeenCut) {
    Append(AlertOf(1));
    Append(AlertOf(2));
    ASSERT_EQ("", m_file.Open(m_path));
    while (m_file.Peek() == Result::kRecord) {
        m_file.Pass();
    }
    std::filesystem::resize_file(m_path, 68);
    EXPECT_EQ(Result::kAnew, m_file.Peek());
}

TEST_F(SpoolFileTest, NoticesAFileWrittenAnewThatIsAsLongAsBefore) {
    Append(AlertOf(1));
    ASSERT_EQ("", m_file.Open(m_path));
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    m_file.Pass();
    std::filesystem::resize_file(m_path, 0);
    Append(AlertOf(9));
    EXPECT_EQ(Result::kAnew, m_file.Peek());
}

TEST_F(SpoolFileTest, StopsWhereNoRecordCanBeThatLong) {
    u2test::Bytes bytes;
    u2test::Put32(bytes, 104);
    u2test::Put32(bytes, SpoolFile::kLongest + 1);
    Append(bytes);
    ASSERT_EQ("", m_file.Open(m_path));
    EXPECT_EQ(Result::kDamaged, m_file.Peek());
}

TEST_F(SpoolFileTest, WaitsForTheLongestRecord) {
    u2test::Bytes bytes;
    u2test::Put32(bytes, 104);
    u2test::Put32(bytes, SpoolFile::kLongest);
    Append(bytes);
    ASSERT_EQ("", m_file.Open(m_path));
    EXPECT_EQ(Result::kPartial, m_file.Peek());
}

TEST_F(SpoolFileTest, GoesOnAtAnOffset) {
    Append(AlertOf(1));
    Append(AlertOf(2));
    ASSERT_EQ("", m_file.Open(m_path));
    m_file.GoTo(68);
    ASSERT_EQ(Result::kRecord, m_file.Peek());
    EXPECT_EQ(AlertOf(2), Peeked());
}

TEST_F(SpoolFileTest, IsKnownAgainByItsFirstBytes) {
    Append({0xAB, 0x01});
    ASSERT_EQ("", m_file.Open(m_path));
    EXPECT_EQ("ab01", m_file.Head());
    Append(u2test::Bytes(40, 0x5A));
    EXPECT_EQ(Result::kDamaged, m_file.Peek());
    EXPECT_EQ(2 * SpoolFile::kHeadBytes, m_file.Head().size());
    EXPECT_EQ("ab01", SpoolFile::HeadOf(m_path, "ab01"));
    EXPECT_EQ("ab015a", SpoolFile::HeadOf(m_path, "ffffff"));
    EXPECT_EQ("", SpoolFile::HeadOf("/none", "ab01"));
}

TEST_F(SpoolFileTest, RefusesWhatIsNoPlainFile) {
    EXPECT_THAT(m_file.Open(m_dir.File("none")), HasSubstr("No such file"));
    EXPECT_THAT(m_file.Open("/dev/null"), HasSubstr("not a plain file"));
    EXPECT_FALSE(m_file.IsOpen());
}

}  // namespace
}  // namespace tarnctl

#include "tarnctl/common/record_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "unit/tarnctl/common/unified2_files.h"

using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

class RecordFileTest : public testing::Test {
  protected:
    void OpenFile(const std::string& content) {
        ASSERT_TRUE(m_file.Open(m_dir.Write("alerts.u2", content)));
    }
    std::string Bytes() const {
        return {reinterpret_cast<const char*>(m_file.Bytes().data()), m_file.Bytes().size()};
    }

    TempDir m_dir;
    RecordFile m_file;
};

TEST_F(RecordFileTest, HandsOutEachRecordWithItsHeader) {
    OpenFile(Alert() + Packet(100) + AlertIpv6());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(104U, m_file.Type());
    EXPECT_EQ(Bytes(), Alert());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(2U, m_file.Type());
    EXPECT_EQ(68U, m_file.Offset());
    EXPECT_EQ(Bytes(), Packet(100));
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(Bytes(), AlertIpv6());
    EXPECT_EQ(m_file.Position(), m_file.Size());
    EXPECT_EQ(RecordResult::kEnd, m_file.Next());
}

TEST_F(RecordFileTest, CountsOnlyTheTwoAlertTypesAsAlerts) {
    OpenFile(Alert() + AlertIpv6() + Packet(0) + Record(110, 40) + Record(7, 52));
    std::string alerts;
    while (m_file.Next() == RecordResult::kRecord) {
        alerts += m_file.IsAlert() ? 'A' : '-';
    }
    EXPECT_EQ("AA---", alerts);
}

TEST_F(RecordFileTest, BeginsAgainAfterRewind) {
    OpenFile(Alert() + Packet(1));
    while (m_file.Next() == RecordResult::kRecord) {
    }
    ASSERT_TRUE(m_file.Rewind());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(0U, m_file.Offset());
    EXPECT_EQ(Bytes(), Alert());
}

// Records lie across the ends of what is read at once, and one is longer than that.
TEST_F(RecordFileTest, HandsOutAFileThatIsLongerThanItsBuffer) {
    std::string content;
    std::vector<std::string> records;
    for (int number = 0; number < 3000; ++number) {
        records.push_back(Packet(static_cast<size_t>(number) % 400));
        if (number == 1500) {
            records.push_back(Record(2, (1U << 19) + 5));
        }
    }
    for (const std::string& record : records) {
        content += record;
    }
    OpenFile(content);
    for (int round = 0; round < 2; ++round) {
        uint64_t offset = 0;
        for (const std::string& record : records) {
            ASSERT_EQ(RecordResult::kRecord, m_file.Next());
            EXPECT_EQ(offset, m_file.Offset());
            EXPECT_TRUE(record == Bytes()) << "at " << offset;
            offset += record.size();
            EXPECT_EQ(offset, m_file.Position());
        }
        EXPECT_EQ(RecordResult::kEnd, m_file.Next());
        ASSERT_TRUE(m_file.Rewind());
    }
}

TEST_F(RecordFileTest, BeginsAgainInTheMiddle) {
    OpenFile(Alert() + Packet(1) + AlertIpv6());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    ASSERT_TRUE(m_file.Rewind());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(Bytes(), Alert());
}

TEST_F(RecordFileTest, EndsAtOnceInAnEmptyFile) {
    OpenFile("");
    EXPECT_EQ(RecordResult::kEnd, m_file.Next());
}

TEST_F(RecordFileTest, SaysWhereAHeaderIsCutOff) {
    OpenFile(Alert() + "abc");
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(RecordResult::kTruncated, m_file.Next());
    EXPECT_THAT(m_file.Error(), EndsWith("the file is truncated: the header of the record at "
                                         "offset 68 has 3 of 8 bytes"));
}

TEST_F(RecordFileTest, SaysWhereAPayloadIsCutOff) {
    OpenFile(Alert() + Packet(100).substr(0, 50));
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(RecordResult::kTruncated, m_file.Next());
    EXPECT_THAT(m_file.Error(), EndsWith("the file is truncated: the record at offset 68 has 42 of "
                                         "128 bytes of payload"));
}

TEST_F(RecordFileTest, MakesNoBufferForALengthThatTheFileDoesNotHave) {
    OpenFile(Alert() + BigEndianWord(2) + BigEndianWord(0xFFFFFFFF));
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(RecordResult::kTruncated, m_file.Next());
    EXPECT_THAT(m_file.Error(), EndsWith("has 0 of 4294967295 bytes of payload"));
}

TEST_F(RecordFileTest, RefusesARecordThatIsLongerThanAnyPipe) {
    const std::string head = Alert() + BigEndianWord(2) + BigEndianWord(RecordFile::kLongest + 1);
    OpenFile(head);
    ASSERT_EQ(0, truncate(m_dir.File("alerts.u2").c_str(),
                          static_cast<off_t>(head.size() + RecordFile::kLongest + 1)));
    RecordFile file;
    ASSERT_TRUE(file.Open(m_dir.File("alerts.u2")));
    ASSERT_EQ(RecordResult::kRecord, file.Next());
    EXPECT_EQ(RecordResult::kTooLong, file.Next());
    EXPECT_THAT(file.Error(),
                EndsWith("the record at offset 68 has 16777217 bytes of payload, more than a pipe "
                         "is made for"));
}

TEST_F(RecordFileTest, HandsOnARecordOfNoBytesAndOneOfAnUnknownType) {
    OpenFile(Alert() + Record(104, 0) + Record(4711, 5));
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(Bytes(), Record(104, 0));
    ASSERT_EQ(RecordResult::kRecord, m_file.Next());
    EXPECT_EQ(Bytes(), Record(4711, 5));
    EXPECT_EQ(RecordResult::kEnd, m_file.Next());
}

class ForeignFile : public RecordFileTest, public testing::WithParamInterface<std::string> {};

TEST_P(ForeignFile, IsToldByItsFirstRecord) {
    OpenFile(GetParam());
    EXPECT_EQ(RecordResult::kForeign, m_file.Next());
    EXPECT_THAT(m_file.Error(),
                HasSubstr("not a unified2 file: its first record would be of type"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, ForeignFile,
                         testing::Values(std::string("\xd4\xc3\xb2\xa1\x02\0\x04\0pcap", 12),
                                         std::string("2025/11/13 plain text\n"),
                                         std::string(64, '\0'),             // type 0
                                         Record(104, 59), Record(105, 83),  // too short an alert
                                         Record(2, 27), Record(110, 31),
                                         BigEndianWord(2) + BigEndianWord(0x00100001)));

TEST_F(RecordFileTest, NamesAFileThatIsNotThere) {
    EXPECT_FALSE(m_file.Open(m_dir.File("none")));
    EXPECT_THAT(m_file.Error(), HasSubstr("none: No such file or directory"));
}

TEST_F(RecordFileTest, TakesPlainFilesOnly) {
    EXPECT_FALSE(m_file.Open(m_dir.Path()));
    EXPECT_THAT(m_file.Error(),
                EndsWith(" is not a plain file; copy what it holds into one first"));
}

}  // namespace
}  // namespace tarnctl

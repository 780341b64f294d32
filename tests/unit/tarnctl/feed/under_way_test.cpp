#include "tarnctl/feed/under_way.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <vector>

#include "support/unified2_records.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace tarnctl {
namespace {

using Match = UnderWay::Match;

AlertKey Key(uint64_t second) {
    AlertKey key;
    key.second = second;
    return key;
}

// A record with one byte of payload.
std::vector<std::byte> Record(uint8_t payload) {
    const u2test::Bytes frame = u2test::Framed(2, {payload});
    const auto bytes = std::as_bytes(std::span(frame));
    return {bytes.begin(), bytes.end()};
}

class UnderWayTest : public testing::Test {
  protected:
    void Add(uint64_t second, uint32_t eventId = 1, uint64_t offset = 0) {
        FedAlert alert;
        alert.key = Key(second);
        alert.eventId = eventId;
        alert.position = {1, offset};
        alert.reportBytes = 100;
        alert.records.Add(Record(1));
        m_underWay.Add(std::move(alert));
    }
    [[nodiscard]] std::vector<uint64_t> Lost() const {
        std::vector<uint64_t> seconds;
        for (const FedAlert& alert : m_lost) {
            seconds.push_back(alert.key.second);
        }
        return seconds;
    }

    UnderWay m_underWay;
    std::vector<FedAlert> m_lost;
};

TEST_F(UnderWayTest, AnAlertIsUnderWayUntilItsReport) {
    Add(1);
    Add(2);
    EXPECT_EQ(2U, m_underWay.Size());
    EXPECT_EQ(200U, m_underWay.ReportBytes());
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(1U, m_underWay.Size());
    EXPECT_EQ(100U, m_underWay.ReportBytes());
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(2), m_lost));
    EXPECT_TRUE(m_underWay.IsEmpty());
    EXPECT_EQ(0U, m_underWay.ReportBytes());
    EXPECT_THAT(m_lost, IsEmpty());
}

TEST_F(UnderWayTest, AReportOfALaterAlertShowsThatTheEarlierOnesAreLost) {
    for (const uint64_t second : {1U, 2U, 3U, 4U}) {
        Add(second);
    }
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(3), m_lost));
    EXPECT_THAT(Lost(), ElementsAre(1, 2));
    EXPECT_EQ(1U, m_lost[0].losses);
    EXPECT_EQ(1U, m_underWay.Size());
    EXPECT_EQ(100U, m_underWay.ReportBytes());
}

TEST_F(UnderWayTest, ALostAlertThatIsReportedNeverthelessIsForeignUntilItIsFedAgain) {
    Add(1);
    Add(2);
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(2), m_lost));
    EXPECT_EQ(Match::kForeign, m_underWay.Report(Key(1), m_lost));
    m_underWay.Add(std::move(m_lost[0]));
    m_lost.clear();
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
}

TEST_F(UnderWayTest, TellsASecondReportFromOneOfSomebodyElse) {
    Add(1);
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(Match::kForeign, m_underWay.Report(Key(9), m_lost));
    EXPECT_THAT(m_lost, IsEmpty());
}

TEST_F(UnderWayTest, AlertsThatLookAlikeAreCountedOneByOne) {
    Add(1);
    Add(1);
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(1U, m_underWay.Size());
    EXPECT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(1), m_lost));
    EXPECT_THAT(m_lost, IsEmpty());
}

TEST_F(UnderWayTest, ForgetsReportsThatAreLongPast) {
    constexpr uint64_t kMany = 4096;
    for (uint64_t second = 0; second <= kMany; ++second) {
        Add(second);
        ASSERT_EQ(Match::kOurs, m_underWay.Report(Key(second), m_lost));
    }
    EXPECT_EQ(Match::kForeign, m_underWay.Report(Key(0), m_lost));
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(1), m_lost));
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(kMany), m_lost));
}

TEST_F(UnderWayTest, ForgetsAlertsThatLookAlikeOneByOne) {
    constexpr uint64_t kMany = 4096;
    for (uint64_t second = 0; second <= kMany; ++second) {
        const uint64_t alike = second == 1 ? 0 : second;
        Add(alike);
        ASSERT_EQ(Match::kOurs, m_underWay.Report(Key(alike), m_lost));
    }
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(0), m_lost));
}

TEST_F(UnderWayTest, BlankAlertHasNothingOfTheOneBefore) {
    Add(1);
    ASSERT_EQ(Match::kOurs, m_underWay.Report(Key(1), m_lost));
    const FedAlert blank = m_underWay.Blank();
    EXPECT_TRUE(blank.records.All().empty());
    EXPECT_EQ(Key(0), blank.key);
    EXPECT_EQ(0U, blank.reportBytes);
}

TEST_F(UnderWayTest, KeepsTheRecordsOfAnAlertTogether) {
    Add(1, 7);
    Add(2, 8);
    Add(3, 7);
    const std::vector<std::byte> packet = Record(5);
    EXPECT_TRUE(m_underWay.Append(7, packet, 50));
    EXPECT_FALSE(m_underWay.Append(9, packet, 50));
    EXPECT_EQ(350U, m_underWay.ReportBytes());
    EXPECT_TRUE(m_underWay.IsNewest(7));
    EXPECT_FALSE(m_underWay.IsNewest(8));
    const std::vector<FedAlert> all = m_underWay.TakeAll();
    ASSERT_EQ(3U, all.size());
    EXPECT_EQ(1U, all[0].records.All().size());
    const auto records = all[2].records.All();
    ASSERT_EQ(2U, records.size());
    EXPECT_TRUE(std::ranges::equal(packet, records[1]));
    EXPECT_EQ(0U, m_underWay.ReportBytes());
    EXPECT_FALSE(m_underWay.IsNewest(7));
}

TEST_F(UnderWayTest, TheEarliestPositionIsNotThatOfTheOldestAlert) {
    EXPECT_FALSE(m_underWay.Earliest().has_value());
    Add(1, 1, 500);
    Add(2, 1, 100);
    Add(3, 1, 900);
    EXPECT_EQ((SpoolPosition{1, 100}), m_underWay.Earliest());
}

TEST_F(UnderWayTest, WhatSettlesCountsAsReported) {
    Add(1);
    Add(2);
    m_underWay.Settle();
    EXPECT_TRUE(m_underWay.IsEmpty());
    EXPECT_EQ(0U, m_underWay.ReportBytes());
    EXPECT_EQ(Match::kDuplicate, m_underWay.Report(Key(2), m_lost));
}

}  // namespace
}  // namespace tarnctl

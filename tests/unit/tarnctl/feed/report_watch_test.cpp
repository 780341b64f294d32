#include "tarnctl/feed/report_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

#include "crm/crm_event_producer.h"
#include "crm/crm_event_source.h"
#include "ring/event_queue.h"
#include "support/private_channel.h"

using testing::HasSubstr;

namespace tarnctl {
namespace {

using Look = ReportWatch::Look;

class ReportWatchTest : public testing::Test {
  protected:
    void SetUp() override {
        m_producer = CrmEventProducer::GetInstance();
        ASSERT_EQ(0, m_producer->Open(m_channel.Id()));
        ASSERT_TRUE(m_reader.Open(true));
        ASSERT_EQ("", m_watch.Attach());
    }
    void TearDown() override { m_producer->Release(); }

    void Report(uint64_t second, const std::string& name = "Name") {
        CrmEventSource source(4);
        source.SetIssueId(7);
        source.SetEventTime(second);
        source.SetEventName(name);
        ASSERT_EQ(0, m_producer->SendEvent(&source));
    }
    // Takes the oldest report, as the CRM does.
    void Take() {
        std::array<std::byte, 4096> buffer = {};
        auto size = static_cast<uint32_t>(buffer.size());
        ASSERT_EQ(PIPE_OK, m_reader.read(buffer.data(), &size));
    }
    // The second of the next report that is seen; -1 without one, -2 when the watch is unsure.
    int64_t See() {
        AlertKey key;
        switch (m_watch.Next(key)) {
            case Look::kReport:
                EXPECT_EQ(7U, key.signature);
                return static_cast<int64_t>(key.second);
            case Look::kNothing:
                return -1;
            default:
                return -2;
        }
    }

    PrivateChannel m_channel;
    CrmEventProducer* m_producer = nullptr;
    ShmEventPipe m_reader{READER, m_channel.RingBase() + "-0", kEventQueueFirstRingSize};
    ReportWatch m_watch{m_channel.RingBase() + "-0"};
};

TEST_F(ReportWatchTest, SeesReportsInTheirOrderAndTakesNone) {
    Report(1);
    Report(2, "A longer name");
    EXPECT_EQ(1, See());
    EXPECT_EQ(2, See());
    EXPECT_EQ(-1, See());
    Take();
    Take();
}

TEST_F(ReportWatchTest, SeesReportsThatWereTakenBefore) {
    Report(1);
    Report(2, "abc");
    Report(3);
    Take();
    Take();
    EXPECT_EQ(1, See());
    EXPECT_EQ(2, See());
    EXPECT_EQ(3, See());
    Take();
    EXPECT_EQ(-1, See());
}

TEST_F(ReportWatchTest, FollowsTheRingRoundItsEnd) {
    constexpr uint64_t kReports = 60000;  // about three times round
    for (uint64_t second = 0; second < kReports; ++second) {
        Report(second, std::string(second % 9 + 1, 'x'));
        Take();
        ASSERT_EQ(static_cast<int64_t>(second), See());
    }
    EXPECT_EQ(-1, See());
}

TEST_F(ReportWatchTest, BeginsAtTheReportsThatComeAfterIt) {
    Report(1);
    ReportWatch later(m_watch.Path());
    ASSERT_EQ("", later.Attach());
    AlertKey key;
    EXPECT_EQ(Look::kNothing, later.Next(key));
    Report(2);
    ASSERT_EQ(Look::kReport, later.Next(key));
    EXPECT_EQ(2U, key.second);
}

TEST_F(ReportWatchTest, GoesOnAtAPlaceOfTheSameFileOnly) {
    Report(1);
    EXPECT_EQ(1, See());
    const RingMark place = m_watch.Place();
    Report(2);
    EXPECT_EQ(2, See());
    EXPECT_TRUE(m_watch.GoTo(place));
    EXPECT_EQ(2, See());
    for (const RingMark& other : {RingMark{place.device + 1, place.inode, place.index},
                                  RingMark{place.device, place.inode + 1, place.index},
                                  RingMark{place.device, place.inode, place.index + 1},
                                  RingMark{place.device, place.inode, m_watch.Size()}}) {
        EXPECT_FALSE(m_watch.GoTo(other));
    }
    EXPECT_EQ(-1, See());
}

TEST_F(ReportWatchTest, IsUnsureWhereNoReportBegins) {
    Report(1);
    Report(2);
    RingMark place = m_watch.Place();
    place.index += 8;
    ASSERT_TRUE(m_watch.GoTo(place));
    EXPECT_EQ(-2, See());
    EXPECT_EQ(-1, See());
    Report(3);
    EXPECT_EQ(3, See());
}

TEST_F(ReportWatchTest, KnowsTheRoomInTheRing) {
    const uint32_t all = m_watch.Free();
    EXPECT_EQ(kEventQueueFirstRingSize - 8, all);
    EXPECT_EQ(all, m_watch.Size());
    Report(1);
    const uint32_t less = m_watch.Free();
    EXPECT_LT(less, all - 300);
    EXPECT_GT(less, all - 400);
    Take();
    EXPECT_EQ(all, m_watch.Free());
}

TEST_F(ReportWatchTest, NoticesThatItsFileHasBeenReplaced) {
    EXPECT_FALSE(m_watch.IsReplaced());
    ASSERT_EQ(0, unlink(m_watch.Path().c_str()));
    EXPECT_TRUE(m_watch.IsReplaced());
    ReportWatch none(m_watch.Path());
    EXPECT_THAT(none.Attach(), HasSubstr("No such file"));
    AlertKey key;
    EXPECT_EQ(Look::kNothing, none.Next(key));
    EXPECT_FALSE(none.GoTo({}));
}

}  // namespace
}  // namespace tarnctl

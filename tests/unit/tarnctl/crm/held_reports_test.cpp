#include "tarnctl/crm/held_reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "unit/tarnctl/common/test_channel.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace tarnctl {
namespace {

class HeldReportsTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(m_held.Open()) << m_held.Error(); }

    static CrmBytes Report(uint32_t sid) {
        CrmReport message = SampleReport();
        message.report.issueId = sid;
        return Encode(message);
    }
    // Collects, and yields ring * 1000 + SID of each.
    std::vector<uint32_t> Collect(size_t most = 100) {
        std::vector<uint32_t> sids;
        m_isFine = m_held.Collect(most, [&](const CrmOrigin& origin, auto bytes) {
            CrmReport message;
            EXPECT_EQ("", DecodeCrmReport(bytes, message));
            EXPECT_EQ(TestChannel::kChannel, origin.channel);
            sids.push_back(static_cast<uint32_t>(origin.ring) * 1000 + message.report.issueId);
        });
        return sids;
    }
    uint32_t ReadIndex() { return m_daemon.Ring(0).State().readIndex; }
    uint32_t& WordAt(uint32_t at) {
        return *reinterpret_cast<uint32_t*>(m_daemon.Ring(0).m_pData + at);
    }

    TestChannel m_daemon;
    HeldReports m_held{TestChannel::kChannel, m_daemon.Name()};
    bool m_isFine = true;
};

TEST_F(HeldReportsTest, LooksAndLeavesAllInPlace) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)) &&
                m_daemon.Send(Report(3), 1));
    EXPECT_THAT(Collect(), ElementsAre(1, 2, 1003));
    EXPECT_EQ(3U, m_held.Held());
    EXPECT_EQ(0U, ReadIndex());
    EXPECT_NE(0U, WordAt(0));
    EXPECT_EQ(3, m_daemon.Posts());
    EXPECT_THAT(Collect(), ElementsAre());
}

TEST_F(HeldReportsTest, TakesWhatIsReleasedWithItsPost) {
    const auto length = static_cast<uint32_t>(Report(1).size());
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)) &&
                m_daemon.Send(Report(3), 1));
    (void)Collect();
    m_held.Release(1);
    EXPECT_EQ((length + 7) / 4 * 4, ReadIndex());
    EXPECT_EQ(0U, WordAt(0));
    EXPECT_NE(0U, WordAt(ReadIndex()));
    EXPECT_EQ(2, m_daemon.Posts());
    EXPECT_EQ(2U, m_held.Held());
    m_held.Release(2);
    EXPECT_EQ(0, m_daemon.Posts());
    EXPECT_EQ(0U, m_daemon.Ring(0).State().used + m_daemon.Ring(1).State().used);
    ASSERT_TRUE(m_daemon.Send(Report(4)));
    EXPECT_THAT(Collect(), ElementsAre(4));
}

TEST_F(HeldReportsTest, HoldsNoMoreThanItIsAskedFor) {
    for (uint32_t sid = 1; sid <= 4; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid), sid == 4 ? 1 : 0));
    }
    EXPECT_THAT(Collect(2), ElementsAre(1, 2));
    EXPECT_THAT(Collect(0), ElementsAre());
    EXPECT_THAT(Collect(2), ElementsAre(3, 1004));
}

TEST_F(HeldReportsTest, ShowsAgainWhatAnotherOneHeldAtItsEnd) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    EXPECT_THAT(Collect(), ElementsAre(1, 2));
    m_held.Release(1);
    m_held.~HeldReports();
    new (&m_held) HeldReports(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(m_held.Open());
    EXPECT_THAT(Collect(), ElementsAre(2));
}

// What a reader leaves that is killed between its two stores.
TEST_F(HeldReportsTest, PutsBackTheLengthThatAKilledReaderHasTaken) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    const uint32_t length = WordAt(0);
    WordAt(0) = 0;
    EXPECT_THAT(Collect(), ElementsAre(1, 2));
    EXPECT_EQ(1U, m_held.PutBack());
    EXPECT_EQ(length, WordAt(0));
    m_held.Release(2);
    EXPECT_EQ(0U, m_daemon.Ring(0).State().used);
}

TEST_F(HeldReportsTest, FailsAtAMessageOfNoBytes) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send({}));
    EXPECT_THAT(Collect(), ElementsAre(1));
    EXPECT_FALSE(m_isFine);
    EXPECT_THAT(m_held.Error(), HasSubstr("see 'tarnctl ring check'"));
    m_held.Release(1);
    EXPECT_FALSE(m_held.Collect(1, [](const CrmOrigin&, auto) {}));
}

TEST_F(HeldReportsTest, FailsAtALengthBeyondTheWriteIndexAndTakesNothing) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    WordAt(0) += 4;
    EXPECT_THAT(Collect(), ElementsAre());
    EXPECT_FALSE(m_isFine);
    EXPECT_EQ(0U, ReadIndex());
}

TEST_F(HeldReportsTest, TakesNothingThatAnotherReaderHasTaken) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    EXPECT_THAT(Collect(), ElementsAre(1, 2));
    ShmEventPipe other(READER, m_daemon.RingPath(0), kEventQueueFirstRingSize);
    ASSERT_TRUE(other.Open(true));
    std::vector<std::byte> bytes(4096);
    auto size = static_cast<uint32_t>(bytes.size());
    ASSERT_EQ(PIPE_OK, other.read(bytes.data(), &size));
    const uint32_t index = ReadIndex();
    m_held.Release(1);
    EXPECT_EQ(index, ReadIndex());
    m_held.Release(1);
    EXPECT_EQ(0U, m_daemon.Ring(0).State().used);
}

TEST_F(HeldReportsTest, ForgetsAPostThatHasNoMessage) {
    (void)m_daemon.Posts();
    ShmEventPipe& ring = m_daemon.Ring(0);
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    ASSERT_TRUE(Collect(1).size() == 1);
    m_held.Release(1);
    EXPECT_EQ(1, m_daemon.Posts());
    m_held.Wait(std::chrono::milliseconds(1));
    EXPECT_EQ(0, m_daemon.Posts());
    ASSERT_TRUE(Collect(1).size() == 1);
    m_held.Release(1);
    EXPECT_EQ(0U, ring.State().used);
    EXPECT_EQ(0, m_daemon.Posts());
}

TEST_F(HeldReportsTest, SeesThatAFileWasReplaced) {
    (void)m_daemon.Posts();
    EXPECT_TRUE(m_held.IsCurrent());
    std::filesystem::remove(m_daemon.RingPath(1));
    EXPECT_FALSE(m_held.IsCurrent());
}

}  // namespace
}  // namespace tarnctl

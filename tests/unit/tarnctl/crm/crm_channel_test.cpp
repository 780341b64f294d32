#include "tarnctl/crm/crm_channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "unit/tarnctl/common/test_channel.h"

using namespace std::chrono_literals;
using testing::HasSubstr;
using ReadResult = tarnctl::CrmChannel::ReadResult;

namespace tarnctl {
namespace {

class CrmChannelTest : public testing::Test {
  protected:
    static CrmBytes Text(const std::string& text) {
        CrmBytes bytes;
        Append(bytes, text.data(), text.size());
        return bytes;
    }
    // The next message after its ring's number, or what there is instead.
    static std::string Take(CrmChannel& channel) {
        std::span<const std::byte> bytes;
        int ring = -1;
        switch (channel.Next(bytes, ring)) {
            case ReadResult::kMessage:
                return std::to_string(ring) +
                       std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            case ReadResult::kEmpty:
                return "empty";
            case ReadResult::kDamaged:
                return "damaged";
            default:
                return "stuck";
        }
    }

    TestChannel m_daemon;
};

TEST_F(CrmChannelTest, MakesQueueAndSemaphoreWhenItComesBeforeTheDaemon) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open()) << channel.Error();
    struct stat status = {};
    ASSERT_EQ(0, stat(m_daemon.RingPath(0).c_str(), &status));
    EXPECT_EQ(0x800000, status.st_size);
    ASSERT_EQ(0, stat(m_daemon.RingPath(1).c_str(), &status));
    EXPECT_EQ(0x40000, status.st_size);
    ASSERT_TRUE(m_daemon.Send(Text("first")));
    EXPECT_EQ("0first", Take(channel));
    EXPECT_EQ("empty", Take(channel));
}

TEST_F(CrmChannelTest, FindsWhatTheDaemonHasWrittenBefore) {
    ASSERT_TRUE(m_daemon.Send(Text("old")));
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    ASSERT_TRUE(m_daemon.Send(Text("new")));
    EXPECT_EQ("0old", Take(channel));
    EXPECT_EQ("0new", Take(channel));
}

TEST_F(CrmChannelTest, ReadsBothRings) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    ASSERT_TRUE(m_daemon.Send(Text("second"), 1));
    ASSERT_TRUE(m_daemon.Send(Text("first"), 0));
    EXPECT_EQ("0first", Take(channel));
    EXPECT_EQ("1second", Take(channel));
}

TEST_F(CrmChannelTest, TakesTheLongestMessageThatARingHolds) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    ASSERT_TRUE(m_daemon.Send(CrmBytes(m_daemon.Ring(0).m_uSize - 8, std::byte{'x'})));
    EXPECT_EQ(Take(channel).size(), m_daemon.Ring(0).m_uSize - 8 + 1);
}

TEST_F(CrmChannelTest, LeavesAsManyPostsAsReports) {
    ASSERT_TRUE(m_daemon.Send(Text("a")) && m_daemon.Send(Text("b")) && m_daemon.Send(Text("c")));
    {
        CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
        ASSERT_TRUE(channel.Open());
        channel.Wait(0ms);
        EXPECT_EQ("0a", Take(channel));
    }
    EXPECT_EQ(2, m_daemon.Posts());
}

TEST_F(CrmChannelTest, GivesAPostBackThatItTookAndDidNotUse) {
    ASSERT_TRUE(m_daemon.Send(Text("a")));
    {
        CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
        ASSERT_TRUE(channel.Open());
        channel.Wait(0ms);
    }
    EXPECT_EQ(1, m_daemon.Posts());
}

TEST_F(CrmChannelTest, WakesUpWhenAReportIsPosted) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    (void)m_daemon.Posts();
    const auto start = std::chrono::steady_clock::now();
    std::jthread writer([this] { EXPECT_TRUE(m_daemon.Send(Text("a"))); });
    channel.Wait(60s);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    EXPECT_EQ("0a", Take(channel));
}

TEST_F(CrmChannelTest, RefusesASecondReaderOfTheSameChannel) {
    CrmChannel first(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(first.Open());
    CrmChannel second(TestChannel::kChannel, m_daemon.Name());
    EXPECT_FALSE(second.Open());
    EXPECT_THAT(second.Error(), HasSubstr("another tarnctl reads this channel; stop it first"));
}

TEST_F(CrmChannelTest, TellsOfALengthWordThatCannotBeAndGoesOn) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    ASSERT_TRUE(m_daemon.Send(Text("a")));
    const uint32_t tooLong = 0x7FFFFFFF;
    std::memcpy(m_daemon.Ring(0).m_pData, &tooLong, sizeof tooLong);
    EXPECT_EQ("damaged", Take(channel));
    EXPECT_THAT(channel.Error(), HasSubstr("Invalid message size 2147483647 at offset 0"));
    ASSERT_TRUE(m_daemon.Send(Text("b")));
    EXPECT_EQ("0b", Take(channel));
}

TEST_F(CrmChannelTest, TellsOfARingThatAMessageOfNoBytesBlocks) {
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    ASSERT_TRUE(channel.Open());
    ASSERT_TRUE(m_daemon.Send({}));
    EXPECT_EQ("stuck", Take(channel));
}

TEST_F(CrmChannelTest, SaysWhyARingCannotBeOpened) {
    ASSERT_EQ(0, mkdir(m_daemon.RingPath(1).c_str(), 0700));
    CrmChannel channel(TestChannel::kChannel, m_daemon.Name());
    EXPECT_FALSE(channel.Open());
    EXPECT_THAT(channel.Error(), HasSubstr("open: Is a directory"));
    rmdir(m_daemon.RingPath(1).c_str());
}

}  // namespace
}  // namespace tarnctl

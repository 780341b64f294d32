#include "tarnctl/crm/crm_peek.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <utility>

#include "support/file_text.h"
#include "support/independent_ring.h"
#include "tarnctl/common/exit_status.h"
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/common/test_channel.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace tarnctl {
namespace {

// An output that calls back once, when the first line has come.
class FirstLine : public std::stringbuf {
  public:
    explicit FirstLine(std::function<void()> act) : m_act(std::move(act)) {}

  protected:
    int sync() override {
        if (m_act && str().find('\n') != std::string::npos) {
            std::exchange(m_act, nullptr)();
        }
        return std::stringbuf::sync();
    }

  private:
    std::function<void()> m_act;
};

class CrmPeekTest : public testing::Test {
  protected:
    CrmPeekTest() {
        m_options.channel = TestChannel::kChannel;
        m_options.queueName = m_daemon.Name();
        m_options.peek = true;
    }
    int Run() { return RunCrm(m_options, m_out, m_err); }
    std::vector<std::string> Lines() const { return LinesOf(m_out); }
    static CrmBytes Report(uint32_t sid) {
        CrmReport message = SampleReport();
        message.report.issueId = sid;
        return Encode(message);
    }

    TestChannel m_daemon;
    CrmOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(CrmPeekTest, ShowsWhatWaitsInBothRingsAndTakesNothing) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)) &&
                m_daemon.Send(Report(3), 1));
    const std::string before = ReadFile(m_daemon.RingPath(0)) + ReadFile(m_daemon.RingPath(1));
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(3U, Lines().size());
    EXPECT_THAT(m_out.str(), HasSubstr("  SID 1  "));
    EXPECT_THAT(m_out.str(), HasSubstr("  SID 2  "));
    EXPECT_THAT(m_out.str(), HasSubstr("  SID 3  "));
    EXPECT_EQ("tarnctl crm: 3 reports\n", m_err.str());
    EXPECT_EQ(before, ReadFile(m_daemon.RingPath(0)) + ReadFile(m_daemon.RingPath(1)));
    EXPECT_EQ(3, m_daemon.Posts());
}

TEST_F(CrmPeekTest, EndsAfterAsManyAsItIsAskedFor) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2), 1));
    m_options.count = 1;
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(1U, Lines().size());
    EXPECT_EQ(0, nlohmann::json::parse(Lines()[0]).at("ring"));
}

TEST_F(CrmPeekTest, FollowsWhatComes) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    m_options.follow = true;
    m_options.count = 2;
    m_options.timeout = 30;
    std::jthread daemon([this] {
        std::this_thread::sleep_for(20ms);
        EXPECT_TRUE(m_daemon.Send(Report(2)));
    });
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(2U, Lines().size());
    EXPECT_THAT(Lines()[1], HasSubstr("  SID 2  "));
}

TEST_F(CrmPeekTest, FollowsRingsThatAreMadeLater) {
    m_options.follow = true;
    m_options.count = 1;
    m_options.timeout = 30;
    std::jthread daemon([this] {
        std::this_thread::sleep_for(20ms);
        EXPECT_TRUE(m_daemon.Send(Report(2)));
    });
    EXPECT_EQ(kExitFine, Run());
}

TEST_F(CrmPeekTest, FollowsRingsThatTakeThePlaceOfOthers) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    m_options.follow = true;
    m_options.timeout = 0.5;
    std::jthread daemon([this] {
        std::this_thread::sleep_for(100ms);
        unlink(m_daemon.RingPath(0).c_str());
        ShmEventPipe ring(WRITER, m_daemon.RingPath(0), kEventQueueFirstRingSize);
        ASSERT_TRUE(ring.Open(true));
        const CrmBytes report = Report(9);
        const auto length = static_cast<uint32_t>(report.size());
        EXPECT_EQ(PIPE_OK, ring.write(report.data(), &length));
    });
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(2U, Lines().size());
    EXPECT_THAT(Lines()[1], HasSubstr("  SID 9  "));
}

TEST_F(CrmPeekTest, SaysThatThereIsNoRing) {
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(),
                HasSubstr("no ring at " + m_daemon.RingPath(0) + "; start tarn, which makes it"));
    EXPECT_NE(0, access(m_daemon.RingPath(0).c_str(), F_OK)) << "it makes none";
}

TEST_F(CrmPeekTest, TellsOfAMalformedReportAndGoesOn) {
    ASSERT_TRUE(m_daemon.Send(CrmBytes(10)) && m_daemon.Send(Report(2)));
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(), HasSubstr("malformed report in ring -0 of 10 bytes"));
    EXPECT_EQ(1U, Lines().size());
}

TEST_F(CrmPeekTest, TellsOfDamageOnceItStays) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2), 1));
    IndependentRing(m_daemon.RingPath(0)).Poke(8, 0);
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(),
                HasSubstr("-0: the ring is damaged at offset 0; see 'tarnctl ring check'"));
    EXPECT_THAT(m_err.str(), HasSubstr("1 report, 1 malformed"));
    EXPECT_EQ(1U, Lines().size()) << "the other ring is shown";
}

TEST_F(CrmPeekTest, NamesTheRingOfEachReport) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2), 1));
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(2U, Lines().size());
    EXPECT_EQ(0, nlohmann::json::parse(Lines()[0]).at("ring"));
    EXPECT_EQ(1, nlohmann::json::parse(Lines()[1]).at("ring"));
}

TEST_F(CrmPeekTest, TellsOfALengthThatLeadsBeyondTheRing) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    IndependentRing(m_daemon.RingPath(0)).Poke(8, 0x7FFFFFFF);
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(), HasSubstr("-0: the ring is damaged at offset 0"));
}

// The second ring is shown after the first look at the hole, and that is when it is mended.
TEST_F(CrmPeekTest, DoesNotTellOfDamageThatIsGoneAtTheSecondLook) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2), 1));
    IndependentRing ring(m_daemon.RingPath(0));
    const uint32_t length = ring.Word(8);
    ring.Poke(8, 0);
    FirstLine lines([&ring, length] { ring.Poke(8, length); });
    std::ostream out(&lines);
    EXPECT_EQ(kExitFine, RunCrm(m_options, out, m_err));
    EXPECT_THAT(lines.str(), HasSubstr("  SID 1  "));
    EXPECT_EQ("tarnctl crm: 2 reports\n", m_err.str());
}

TEST_F(CrmPeekTest, CountsTheTimesThatAReaderWasFaster) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)) && m_daemon.Send(Report(3)));
    IndependentRing ring(m_daemon.RingPath(0));
    FirstLine lines([&ring] {
        std::vector<unsigned char> taken;
        EXPECT_TRUE(ring.Take(taken) && ring.Take(taken));
    });
    std::ostream out(&lines);
    EXPECT_EQ(kExitFine, RunCrm(m_options, out, m_err));
    EXPECT_THAT(lines.str(), HasSubstr("  SID 3  "));
    EXPECT_EQ("tarnctl crm: 2 reports, 1 time the reader took what was to be shown next\n",
              m_err.str());
}

TEST_F(CrmPeekTest, IsQuietOnlyAfterTheLastReport) {
    constexpr int kReports = 12;
    m_options.follow = true;
    m_options.timeout = 1;
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    std::jthread daemon([this] {
        for (int number = 1; number < kReports; ++number) {
            std::this_thread::sleep_for(120ms);
            EXPECT_TRUE(m_daemon.Send(Report(1)));
        }
    });
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(size_t{kReports}, Lines().size());
}

}  // namespace
}  // namespace tarnctl

#include "tarnctl/crm/crm_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tarnctl/common/exit_status.h"
#include "tarnctl/common/signals.h"
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/common/test_channel.h"

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

namespace tarnctl {
namespace {

class CrmCommandTest : public testing::Test {
  protected:
    CrmCommandTest() {
        m_options.channel = TestChannel::kChannel;
        m_options.queueName = m_daemon.Name();
        m_options.timeout = 0.05;
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

TEST_F(CrmCommandTest, ShowsALineForEachReportThatWaits) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(2U, Lines().size());
    EXPECT_THAT(Lines()[0], HasSubstr("  SID 1  "));
    EXPECT_THAT(Lines()[1], HasSubstr("  SID 2  "));
}

TEST_F(CrmCommandTest, SaysThatItConsumesAndHowManyThereWere) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(
        "tarnctl crm: reading channel 7; what is shown is consumed and reaches no other "
        "reader\n"
        "tarnctl crm: 1 report\n",
        m_err.str());
}

TEST_F(CrmCommandTest, ShowsJsonLinesOfBothRings) {
    m_options.json = true;
    ASSERT_TRUE(m_daemon.Send(Report(1), 1) && m_daemon.Send(Report(2), 0));
    EXPECT_EQ(kExitFine, Run());
    ASSERT_EQ(2U, Lines().size());
    EXPECT_EQ(0, json::parse(Lines()[0])["ring"]);
    EXPECT_EQ(1, json::parse(Lines()[1])["ring"]);
    EXPECT_EQ(1, json::parse(Lines()[1])["report"]["issueId"]);
}

TEST_F(CrmCommandTest, EndsAfterTheCountAndLeavesTheRest) {
    for (uint32_t sid = 1; sid <= 3; ++sid) {
        ASSERT_TRUE(m_daemon.Send(Report(sid)));
    }
    m_options.count = 2;
    m_options.timeout = 0;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(2U, Lines().size());
    EXPECT_EQ(1, m_daemon.Posts());
    m_options.count = 1;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_THAT(Lines().back(), HasSubstr("  SID 3  "));
}

TEST_F(CrmCommandTest, ThrowsAwayWhatWaitsWhenAskedForFreshReports) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2), 1));
    m_options.fresh = true;
    EXPECT_EQ(kExitFine, Run());
    EXPECT_TRUE(Lines().empty());
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl crm: 2 waiting reports thrown away\n"));
    m_options.fresh = false;
    ASSERT_TRUE(m_daemon.Send(Report(3)));
    EXPECT_EQ(kExitFine, Run());
    EXPECT_EQ(1U, Lines().size());
}

TEST_F(CrmCommandTest, SkipsAMalformedReportWithItsReasonAndShowsTheNext) {
    CrmBytes broken = Report(1);
    broken.pop_back();
    ASSERT_TRUE(m_daemon.Send(broken) && m_daemon.Send(Report(2)));
    EXPECT_EQ(kExitFailure, Run());
    ASSERT_EQ(1U, Lines().size());
    EXPECT_THAT(Lines()[0], HasSubstr("  SID 2  "));
    EXPECT_THAT(m_err.str(), HasSubstr("tarnctl crm: malformed report in ring -0 of " +
                                       std::to_string(broken.size()) +
                                       " bytes skipped: the end chunk is missing\n"));
    EXPECT_THAT(m_err.str(), EndsWith("tarnctl crm: 1 report, 1 malformed\n"));
}

TEST_F(CrmCommandTest, KeepsTheBytesOfAMalformedReportInJson) {
    m_options.json = true;
    ASSERT_TRUE(m_daemon.Send({std::byte{1}, std::byte{2}}));
    EXPECT_EQ(kExitFailure, Run());
    ASSERT_EQ(1U, Lines().size());
    EXPECT_EQ("AQI=", json::parse(Lines()[0])["bytes"]);
}

TEST_F(CrmCommandTest, FailsOnARingThatIsStuck) {
    ASSERT_TRUE(m_daemon.Send({}));
    m_options.timeout = 0;
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(), HasSubstr("stuck at a message of no bytes"));
}

TEST_F(CrmCommandTest, FailsWhenTheOutputTakesNoMore) {
    ASSERT_TRUE(m_daemon.Send(Report(1)) && m_daemon.Send(Report(2)));
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(kExitFailure, Run());
    EXPECT_THAT(m_err.str(), HasSubstr("the last report was taken and not shown"));
    EXPECT_EQ(1, m_daemon.Posts());
}

// The flag stays set for the life of a process, so this case has one of its own.
TEST_F(CrmCommandTest, EndsWithItsCountAtCtrlC) {
    ASSERT_TRUE(m_daemon.Send(Report(1)));
    m_options.timeout = 0;
    EXPECT_EXIT(
        {
            CatchStopSignals();
            m_options.count = 1;
            const bool isShown = Run() == kExitFine;
            m_options.count = 0;
            std::raise(SIGINT);
            _exit(isShown && Run() == kExitFine && m_err.str().ends_with("tarnctl crm: 0 reports\n")
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarnctl

#include "tarnctl/selftest/legs.h"

#include <gmock/gmock.h>

#include "tarnctl/selftest/trial_alert.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string Report(uint32_t signature, bool isBlocked) {
    return "{\"blocked\":" + std::string(isBlocked ? "true" : "false") +
           ",\"report\":{\"issueId\":" + std::to_string(signature) + "}}\n";
}

class LegsTest : public testing::Test {
  protected:
    LegsTest() {
        output.hasBegun = true;
        output.isFed = true;
        output.status = 0;
        output.reports = Report(kReportSignature, false) + Report(kQuarantineSignature, true) +
                         Report(kCaptureSignature, false);
        output.rules = "{\"issueId\":4000002,\"accepted\":true}\n";
        output.requests =
            "{\"type\":1,\"name\":\"EngineStarting\"}\n"
            "{\"type\":4,\"name\":\"OffendingPacketCapture\",\"packet\":\"AAAA\"}\n";
        output.messages = "{\"text\":\"x tarnctl selftest asks y\"}\n";
    }

    std::vector<std::string> Dead() {
        std::vector<std::string> names;
        for (const Leg& leg : JudgeLegs(output)) {
            if (!leg.isProven) {
                names.push_back(leg.name);
                EXPECT_THAT(leg.look, testing::Not(IsEmpty()));
            }
        }
        return names;
    }

    TrialOutput output;
};

TEST_F(LegsTest, AreAllProvenWhereEverythingCame) {
    EXPECT_THAT(Dead(), IsEmpty());
    EXPECT_TRUE(AreProven(JudgeLegs(output)));
    EXPECT_EQ(6U, JudgeLegs(output).size());
    output.status.reset();
    EXPECT_EQ(5U, JudgeLegs(output).size());
}

TEST_F(LegsTest, NameADaemonThatDoesNotBegin) {
    output.hasBegun = false;
    EXPECT_THAT(Dead(), ElementsAre("start"));
    EXPECT_EQ(1U, JudgeLegs(output).size());
}

TEST_F(LegsTest, NameADaemonThatTakesNothing) {
    output.isFed = false;
    EXPECT_THAT(Dead(), ElementsAre("feed"));
}

TEST_F(LegsTest, NeedAllThreeReports) {
    output.reports = Report(kReportSignature, false) + Report(kQuarantineSignature, true);
    EXPECT_THAT(Dead(), ElementsAre("report"));
    EXPECT_EQ("2 of 3 reports reached the CRM", JudgeLegs(output)[1].detail);
    output.reports += Report(kQuarantineSignature, true);
    EXPECT_THAT(Dead(), ElementsAre("report"));
    output.reports = Report(kCaptureSignature, false);
    EXPECT_THAT(Dead(), ElementsAre("report"));
}

TEST_F(LegsTest, NeedAnAcceptedRuleOfTheRightSignature) {
    output.rules = "{\"issueId\":4000002,\"accepted\":false}\n";
    EXPECT_THAT(Dead(), ElementsAre("quarantine"));
    output.rules = "{\"issueId\":4000001,\"accepted\":true}\n";
    EXPECT_THAT(Dead(), ElementsAre("quarantine"));
}

TEST_F(LegsTest, NeedAReportThatSaysThatTheRuleWasAccepted) {
    output.reports = Report(kReportSignature, true) + Report(kQuarantineSignature, false) +
                     Report(kCaptureSignature, true);
    EXPECT_THAT(Dead(), ElementsAre("quarantine"));
    EXPECT_THAT(JudgeLegs(output)[2].detail, HasSubstr("does not say so"));
    output.reports = "";
    EXPECT_THAT(Dead(), ElementsAre("report"));
}

TEST_F(LegsTest, NeedAPacket) {
    output.requests = "{\"type\":1,\"name\":\"EngineStarting\",\"packet\":\"AAAA\"}\n";
    EXPECT_THAT(Dead(), ElementsAre("capture"));
    output.requests = "{\"type\":4,\"name\":\"OffendingPacketCapture\",\"packet\":null}\n";
    EXPECT_THAT(Dead(), ElementsAre("capture"));
    output.requests = "{\"type\":4,\"name\":\"OffendingPacketCapture\"}\n";
    EXPECT_THAT(Dead(), ElementsAre("capture"));
}

TEST_F(LegsTest, NeedTheMessageOfTheErrorLine) {
    output.messages = "{\"text\":\"another\"}\n{\"text\":{\"base64\":\"AA==\"}}\nno json\n";
    EXPECT_THAT(Dead(), ElementsAre("message"));
}

TEST_F(LegsTest, DoNotCountALineThatIsOnItsWay) {
    output.messages.pop_back();
    EXPECT_THAT(Dead(), ElementsAre("message"));
}

TEST_F(LegsTest, NeedAGoodEnd) {
    output.status = 4;
    EXPECT_THAT(Dead(), ElementsAre("stop"));
    EXPECT_EQ("the daemon ended with status 4", JudgeLegs(output).back().detail);
    output.status = -1;
    EXPECT_THAT(JudgeLegs(output).back().detail, HasSubstr("by a fault"));
}

TEST(TrialAlert, IsAnAlertAndItsPacket) {
    const TrialAlert alert{4000001, 7, 1700000000, 40001, true};
    const auto records = RecordsOf(alert);
    ASSERT_EQ(2U, records.size());
    EXPECT_EQ(8U + 60U, records[0].size());
    EXPECT_EQ(std::byte{104}, records[0][3]);
    EXPECT_EQ(std::byte{60}, records[0][7]);
    EXPECT_EQ(std::byte{7}, records[0][8 + 7]);
    EXPECT_EQ(std::byte{192}, records[0][8 + 36]);
    EXPECT_EQ(std::byte{0x9C}, records[0][8 + 44]);
    EXPECT_EQ(std::byte{2}, records[1][3]);
    EXPECT_EQ(8U + 28U + 54U, records[1].size());
    EXPECT_EQ(std::byte{54}, records[1][8 + 27]);
    const TrialAlert bare{4000001, 7, 1700000000, 40001, false};
    EXPECT_EQ(1U, RecordsOf(bare).size());
}

}  // namespace
}  // namespace tarnctl

#include "tarnctl/crm/crm_report_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "unit/tarnctl/crm/crm_reports.h"

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace tarnctl {
namespace {

class ReportLine : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(ReportLine, TellsAllThatAPersonAsksOfAnAlert) {
    EXPECT_EQ(ReportAsLine(SampleReport()),
              "2025-11-13 08:24:17  ET SCAN: probe:high  10.1.2.3:51234 -> 192.168.1.20:80  TCP"
              "  VLAN 12  SID 2019401  blocked  packet 4 bytes  URL=/index.html"
              "  server=example.org");
}

TEST_F(ReportLine, LeavesOutWhatAReportDoesNotHave) {
    CrmReport message;
    message.userData = "x:low";
    EXPECT_EQ(ReportAsLine(message),
              "1970-01-01 00:00:00  x:low  0.0.0.0 -> 0.0.0.0  protocol 0  SID 0  not blocked"
              "  no packet");
}

TEST_F(ReportLine, PutsIpv6AddressesInBracketsBeforeAPort) {
    CrmReport message = SampleReport();
    message.report.etherType = kEtherTypeIpv6;
    message.report.intruderIpv6[15] = 1;
    message.report.victimIpv6[0] = 0xFE;
    message.report.victimIpv6[1] = 0x80;
    EXPECT_THAT(ReportAsLine(message), HasSubstr("  [::1]:51234 -> [fe80::]:80  TCP"));
}

TEST_F(ReportLine, ShowsTypeAndCodeOfIcmpAndNoPorts) {
    CrmReport message = SampleReport();
    message.report.ipProtocol = 1;
    message.report.icmpType = 8;
    EXPECT_THAT(ReportAsLine(message), HasSubstr("  10.1.2.3 -> 192.168.1.20  ICMP type 8 code 0"));
}

TEST_F(ReportLine, TakesIcmpOfTheOtherIpVersionForAnyProtocol) {
    CrmReport message = SampleReport();
    message.report.ipProtocol = 58;
    EXPECT_THAT(ReportAsLine(message), HasSubstr("  ICMPv6  "));
}

TEST_F(ReportLine, LetsNoTextOfTheTrafficReachTheTerminalAsACommand) {
    CrmReport message = SampleReport();
    message.pairs = {{"URL", "/\x1b[2J\n\\\xFF"}};
    EXPECT_THAT(ReportAsLine(message), EndsWith("  URL=/\\x1B[2J\\x0A\\x5C\\xFF"));
}

TEST(ReportJson, HasEveryFieldOfTheReport) {
    CrmReport message = SampleReport();
    message.report.flow_id = 0xFFFFFFFFFFFFFFFF;
    message.report.reserved208[0] = 0xAB;
    const json object = json::parse(ReportAsJson({2, 0}, message));
    EXPECT_EQ(object["report"].size(), 42U);
    EXPECT_EQ(object["report"]["issueId"], 2019401);
    EXPECT_EQ(object["report"]["intruderIp"], "10.1.2.3");
    EXPECT_EQ(object["report"]["victimIpv6"], "::");
    EXPECT_EQ(object["report"]["flow_id"], 0xFFFFFFFFFFFFFFFF);
    EXPECT_EQ(object["report"]["reserved208"], "ab000000000000000000000000000000");
    EXPECT_EQ(object["report"]["adapterId"], 0xFFFFFFFF);
}

TEST(ReportJson, HasStringsPairsAndPacket) {
    const json object = json::parse(ReportAsJson({3, 1}, SampleReport()));
    EXPECT_EQ(object["channel"], 3);
    EXPECT_EQ(object["ring"], 1);
    EXPECT_EQ(object["name"], "ET SCAN: probe");
    EXPECT_EQ(object["severity"], "high");
    EXPECT_EQ(object["blocked"], true);
    EXPECT_EQ(object["blockedStatus"], 5);
    EXPECT_EQ(object["nameValues"], "");
    EXPECT_EQ(object["userResponse"], "DISPLAY:WithRaw");
    EXPECT_EQ(object["userData"], "ET SCAN: probe:high");
    EXPECT_EQ(object["sensorName"], "");
    EXPECT_EQ(object["pairs"], json({{"URL", "/index.html"}, {"server", "example.org"}}));
    EXPECT_EQ(object["packet"]["length"], 4);
    EXPECT_EQ(object["packet"]["capturedSize"], 4);
    EXPECT_EQ(object["packet"]["bytes"], "3q2+7w==");
}

TEST(ReportJson, IsOneLineWhateverTheTextsHold) {
    CrmReport message = SampleReport();
    message.userResponse = "a\nb\"c";
    const std::string line = ReportAsJson({2, 0}, message);
    EXPECT_THAT(line, Not(HasSubstr("\n")));
    EXPECT_EQ(json::parse(line)["userResponse"], "a\nb\"c");
}

TEST(ReportJson, SaysNullWhereThereIsNoPacket) {
    CrmReport message = SampleReport();
    message.packet.reset();
    EXPECT_TRUE(json::parse(ReportAsJson({2, 0}, message))["packet"].is_null());
}

TEST(ReportJson, GivesATextThatIsNoUnicodeByItsBytes) {
    CrmReport message = SampleReport();
    message.pairs = {{"URL", "\xFF"}};
    EXPECT_EQ(json::parse(ReportAsJson({2, 0}, message))["pairs"]["URL"],
              json({{"base64", "/w=="}}));
}

TEST(ReportJson, ListsThePairsWhenANameIsNoUnicode) {
    CrmReport message = SampleReport();
    message.pairs = {{"\xFF", "a"}, {"b", "c"}};
    const json pairs = json::parse(ReportAsJson({2, 0}, message))["pairs"];
    ASSERT_EQ(pairs.size(), 2U);
    EXPECT_EQ(pairs[0], json({{"name", {{"base64", "/w=="}}}, {"value", "a"}}));
    EXPECT_EQ(pairs[1], json({{"name", "b"}, {"value", "c"}}));
}

TEST(MalformedJson, KeepsTheBytesAndTheReason) {
    const CrmBytes bytes = {std::byte{1}, std::byte{2}};
    const json object = json::parse(MalformedReportAsJson({2, 0}, "too short", bytes));
    EXPECT_EQ(object["malformed"], "too short");
    EXPECT_EQ(object["bytes"], "AQI=");
}

}  // namespace
}  // namespace tarnctl

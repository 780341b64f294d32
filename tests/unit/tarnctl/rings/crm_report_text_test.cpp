#include "tarnctl/rings/crm_report_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "unit/tarnctl/rings/crm_reports.h"

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
    EXPECT_EQ(
        "2025-11-13 08:24:17  ET SCAN: probe:high  10.1.2.3:51234 -> 192.168.1.20:80  TCP"
        "  VLAN 12  SID 2019401  blocked  packet 4 bytes  URL=/index.html"
        "  server=example.org",
        ReportAsLine(SampleReport()));
}

TEST_F(ReportLine, HasColumnsAndColoursOnATerminalWithTheOutcomeEarly) {
    Display display;
    display.isTerminal = true;
    display.color = true;
    display.width = 68;
    EXPECT_EQ(
        "2025-11-13 08:24:17  \x1b[31mblocked\x1b[0m      \x1b[31mET SCAN: probe:high\x1b[0m" +
            std::string(14, ' ') + ">",
        ReportAsLine(SampleReport(), display));
    CrmReport message = SampleReport();
    message.blockedStatus = 0;
    message.userData = "x:medium";
    EXPECT_THAT(ReportAsLine(message, display),
                HasSubstr("  not blocked  \x1b[33mx:medium\x1b[0m  "));
}

TEST_F(ReportLine, LeavesOutWhatAReportDoesNotHave) {
    CrmReport message;
    message.userData = "x:low";
    EXPECT_EQ(
        "1970-01-01 00:00:00  x:low  0.0.0.0 -> 0.0.0.0  protocol 0  SID 0  not blocked"
        "  no packet",
        ReportAsLine(message));
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
    EXPECT_EQ(42U, object["report"].size());
    EXPECT_EQ(2019401, object["report"]["issueId"]);
    EXPECT_EQ("10.1.2.3", object["report"]["intruderIp"]);
    EXPECT_EQ("::", object["report"]["victimIpv6"]);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFF, object["report"]["flow_id"]);
    EXPECT_EQ("ab000000000000000000000000000000", object["report"]["reserved208"]);
    EXPECT_EQ(0xFFFFFFFF, object["report"]["adapterId"]);
}

// The lines as they were when their readers were written.
TEST(ReportJson, IsTheGoldenLine) {
    CrmReport message = SampleReport();
    message.report.startTime = 1763022257;
    message.report.endTime = 1763022258;
    message.report.flow_id = 0xFFFFFFFFFFFFFFFF;
    message.report.reserved208[0] = 0xAB;
    message.report.reserved197[2] = 0x0F;
    message.report.intruderIpv6[0] = 0x20;
    message.report.intruderIpv6[15] = 1;
    message.userString = 7;
    message.packet->info.uSeconds = 1763022257;
    message.packet->info.uMicroseconds = 250001;
    message.userResponse = "a\n\"b\\ \x7F \xC3\xA9";
    message.sensorName = "\xFF";
    message.pairs = {{"URL", "/\t\"x\""}, {"n\xC3\xA9", "\xFE"}};
    EXPECT_EQ(R"({"channel":2,"ring":1,"time":1763022257,"name":"ET SCAN: probe","severity":")"
              R"(high","blocked":true,"blockedStatus":5,"report":{"reportVersion":1,"icmpType)"
              R"(":0,"icmpCode":0,"intruderIpv6":"2000::1","intruderIp":"10.1.2.3","sensorId")"
              R"(:0,"issueId":2019401,"filterId":0,"vlanId":12,"victimIp":"192.168.1.20","vic)"
              R"(timIpv6":"::","victimPort":80,"intruderPort":51234,"lastVictimIp":"0.0.0.0",)"
              R"("sourceIp":"10.1.2.3","destinationIp":"192.168.1.20","destinationPort":80,"s)"
              R"(ourcePort":51234,"sourceIpv6":"::","destinationIpv6":"::","lastVictimIpv6":")"
              R"(::","startTime":1763022257,"endTime":1763022258,"count":1,"result":0,"eventT)"
              R"(ype":6,"reportType":2,"adapterId":4294967295,"eventId":0,"throttleEventCount)"
              R"(":0,"reserved172":0,"validFields":0,"packetFlags":0,"frameNumber":0,"etherTy)"
              R"(pe":2048,"ipProtocol":6,"priority":1,"reserved197":"00000f","flow_id":184467)"
              R"(44073709551615,"reserved208":"ab000000000000000000000000000000","userString")"
              R"(:7,"reserved232":"000000000000000000000000000000000000000000000000"},"nameVa)"
              R"(lues":"","userResponse":"a\n\"b\\ )"
              "\x7F"
              R"( )"
              "\xC3\xA9"
              R"(","userData":"ET SCAN: probe:high","sensorName":{"base64":"/w=="},"pairs":{")"
              R"(URL":"/\t\"x\"","n)"
              "\xC3\xA9"
              R"(":{"base64":"/g=="}},"packet":{"length":4,"capturedSize":4,"time":1763022257)"
              R"(.250001,"frameNumber":0,"reserved":0,"flags":0,"adapterId":0,"bytes":"3q2+7w)"
              R"(=="}})",
              ReportAsJson({2, 1}, message));

    message.packet.reset();
    message.report.startTime = 0;
    message.pairs = {{"\xFF", "a"}, {"b", "c"}};
    EXPECT_EQ(R"({"channel":2,"ring":1,"time":null,"name":"ET SCAN: probe","severity":"high",)"
              R"("blocked":true,"blockedStatus":5,"report":{"reportVersion":1,"icmpType":0,"i)"
              R"(cmpCode":0,"intruderIpv6":"2000::1","intruderIp":"10.1.2.3","sensorId":0,"is)"
              R"(sueId":2019401,"filterId":0,"vlanId":12,"victimIp":"192.168.1.20","victimIpv)"
              R"(6":"::","victimPort":80,"intruderPort":51234,"lastVictimIp":"0.0.0.0","sourc)"
              R"(eIp":"10.1.2.3","destinationIp":"192.168.1.20","destinationPort":80,"sourceP)"
              R"(ort":51234,"sourceIpv6":"::","destinationIpv6":"::","lastVictimIpv6":"::","s)"
              R"(tartTime":0,"endTime":1763022258,"count":1,"result":0,"eventType":6,"reportT)"
              R"(ype":2,"adapterId":4294967295,"eventId":0,"throttleEventCount":0,"reserved17)"
              R"(2":0,"validFields":0,"packetFlags":0,"frameNumber":0,"etherType":2048,"ipPro)"
              R"(tocol":6,"priority":1,"reserved197":"00000f","flow_id":18446744073709551615,)"
              R"("reserved208":"ab000000000000000000000000000000","userString":7,"reserved232)"
              R"(":"000000000000000000000000000000000000000000000000"},"nameValues":"","userR)"
              R"(esponse":"a\n\"b\\ )"
              "\x7F"
              R"( )"
              "\xC3\xA9"
              R"(","userData":"ET SCAN: probe:high","sensorName":{"base64":"/w=="},"pairs":[{)"
              R"("name":{"base64":"/w=="},"value":"a"},{"name":"b","value":"c"}],"packet":nul)"
              R"(l})",
              ReportAsJson({2, 1}, message));

    message.pairs.clear();
    EXPECT_THAT(ReportAsJson({2, 1}, message), EndsWith(R"("pairs":{},"packet":null})"));
}

TEST(ReportJson, HasStringsPairsAndPacket) {
    const json object = json::parse(ReportAsJson({3, 1}, SampleReport()));
    EXPECT_EQ(3, object["channel"]);
    EXPECT_EQ(1, object["ring"]);
    EXPECT_EQ("ET SCAN: probe", object["name"]);
    EXPECT_EQ("high", object["severity"]);
    EXPECT_EQ(true, object["blocked"]);
    EXPECT_EQ(5, object["blockedStatus"]);
    EXPECT_EQ("", object["nameValues"]);
    EXPECT_EQ("DISPLAY:WithRaw", object["userResponse"]);
    EXPECT_EQ("ET SCAN: probe:high", object["userData"]);
    EXPECT_EQ("", object["sensorName"]);
    EXPECT_EQ(object["pairs"], json({{"URL", "/index.html"}, {"server", "example.org"}}));
    EXPECT_EQ(4, object["packet"]["length"]);
    EXPECT_EQ(4, object["packet"]["capturedSize"]);
    EXPECT_EQ("3q2+7w==", object["packet"]["bytes"]);
}

TEST(ReportJson, IsOneLineWhateverTheTextsHold) {
    CrmReport message = SampleReport();
    message.userResponse = "a\nb\"c";
    const std::string line = ReportAsJson({2, 0}, message);
    EXPECT_THAT(line, Not(HasSubstr("\n")));
    EXPECT_EQ("a\nb\"c", json::parse(line)["userResponse"]);
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
    ASSERT_EQ(2U, pairs.size());
    EXPECT_EQ(pairs[0], json({{"name", {{"base64", "/w=="}}}, {"value", "a"}}));
    EXPECT_EQ(pairs[1], json({{"name", "b"}, {"value", "c"}}));
}

TEST(MalformedJson, KeepsTheBytesAndTheReason) {
    const CrmBytes bytes = {std::byte{1}, std::byte{2}};
    const json object = json::parse(MalformedReportAsJson({2, 0}, "too short", bytes));
    EXPECT_EQ("too short", object["malformed"]);
    EXPECT_EQ("AQI=", object["bytes"]);
}

}  // namespace
}  // namespace tarnctl

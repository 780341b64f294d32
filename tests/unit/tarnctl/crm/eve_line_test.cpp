#include "tarnctl/crm/eve_line.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/source_dir.h"
#include "unit/tarnctl/rings/crm_reports.h"

using nlohmann::json;

namespace tarnctl {
namespace {

class EveLineTest : public testing::Test {
  protected:
    std::string Line(bool withPacket = false) const {
        std::string line;
        AppendEveLine({2, 0}, m_message, withPacket, line);
        return line;
    }
    json Parsed(bool withPacket = false) const { return json::parse(Line(withPacket)); }
    static void SetIpv6(uint8_t (&to)[16], const char* text) { inet_pton(AF_INET6, text, to); }

    CrmReport m_message = SampleReport();
};

// The line as it was when its readers were written.
TEST_F(EveLineTest, IsTheGoldenLine) {
    m_message.pairs.emplace_back("Rule",
                                 R"(alert tcp any any -> any 80 (msg:"x"; sid:2019401; rev:4;))");
    std::ifstream golden(SourceDir() + "/tests/golden/eve_alert.json");
    std::stringstream text;
    text << golden.rdbuf();
    EXPECT_EQ(text.str(), Line(true));
}

TEST_F(EveLineTest, AppendsLinesToWhatIsThere) {
    std::string lines = "before\n";
    AppendEveLine({2, 0}, m_message, false, lines);
    EXPECT_EQ("before\n" + Line(), lines);
    EXPECT_EQ('\n', lines.back());
}

TEST_F(EveLineTest, ShowsThePacketWhenAskedOnly) {
    EXPECT_EQ("3q2+7w==", Parsed(true)["packet"]);
    EXPECT_EQ(json({{"linktype", 1}}), Parsed(true)["packet_info"]);
    EXPECT_FALSE(Parsed().contains("packet"));
    EXPECT_FALSE(Parsed().contains("packet_info"));
    EXPECT_EQ(4, Parsed()["tarn"]["packet"]["length"]);
    m_message.packet.reset();
    EXPECT_FALSE(Parsed(true).contains("packet"));
    EXPECT_FALSE(Parsed()["tarn"].contains("packet"));
}

TEST_F(EveLineTest, TakesTheFractionOfTheTimeFromAPacketOfThatSecondOnly) {
    EXPECT_EQ("2025-11-13T08:24:17.250000+0000", Parsed()["timestamp"]);
    ++m_message.packet->info.uSeconds;
    EXPECT_EQ("2025-11-13T08:24:17.000000+0000", Parsed()["timestamp"]);
    m_message.report.startTime = 951782399;
    EXPECT_EQ("2000-02-28T23:59:59.000000+0000", Parsed()["timestamp"]);
    EXPECT_EQ(1763022257, Parsed()["tarn"]["endTime"]);
}

TEST_F(EveLineTest, KeepsATimeThatTheFormHasNoDigitsFor) {
    m_message.report.startTime = m_message.report.endTime = 253402300799;
    EXPECT_EQ("9999-12-31T23:59:59.000000+0000", Parsed()["timestamp"]);
    EXPECT_FALSE(Parsed()["tarn"].contains("startTime"));
    m_message.report.startTime = m_message.report.endTime = UINT64_MAX;
    EXPECT_EQ("9999-12-31T23:59:59.000000+0000", Parsed()["timestamp"]);
    EXPECT_EQ(UINT64_MAX, Parsed()["tarn"]["startTime"]);
}

TEST_F(EveLineTest, HasTypeAndCodeOfIcmpAndNoPorts) {
    m_message.report.ipProtocol = IPPROTO_ICMP;
    m_message.report.icmpType = 8;
    m_message.report.icmpCode = 1;
    const json line = Parsed();
    EXPECT_EQ("ICMP", line["proto"]);
    EXPECT_EQ(8, line["icmp_type"]);
    EXPECT_EQ(1, line["icmp_code"]);
    EXPECT_FALSE(line.contains("src_port") || line.contains("dest_port"));
    EXPECT_EQ(51234, line["tarn"]["sourcePort"]);
    EXPECT_EQ(80, line["tarn"]["destinationPort"]);
    EXPECT_FALSE(line["tarn"].contains("icmpType"));
    m_message.report.ipProtocol = IPPROTO_ICMPV6;
    EXPECT_EQ("IPv6-ICMP", Parsed()["proto"]);
    EXPECT_EQ(8, Parsed()["icmp_type"]);
}

TEST_F(EveLineTest, NamesProtocolsOrGivesTheirNumber) {
    const std::pair<uint16_t, const char*> kNames[] = {
        {2, "IGMP"}, {17, "UDP"},   {47, "GRE"}, {50, "ESP"},  {51, "AH"},
        {0, "000"},  {132, "SCTP"}, {89, "089"}, {255, "255"}, {65535, "65535"}};
    for (const auto& [number, name] : kNames) {
        m_message.report.ipProtocol = number;
        EXPECT_EQ(name, Parsed()["proto"]);
        EXPECT_EQ(number == 17 || number == 132, Parsed().contains("src_port"));
    }
}

TEST_F(EveLineTest, HasAVlanWhereTheReportHasOne) {
    EXPECT_EQ(json::array({12}), Parsed()["vlan"]);
    m_message.report.vlanId = 0;
    EXPECT_EQ(json::array({0}), Parsed()["vlan"]);
    m_message.report.vlanId = kReportNoVlan;
    EXPECT_FALSE(Parsed().contains("vlan"));
}

TEST_F(EveLineTest, ShowsIpv6AddressesByTheEtherType) {
    SetIpv6(m_message.report.sourceIpv6, "2001:db8::1");
    SetIpv6(m_message.report.intruderIpv6, "2001:db8::1");
    SetIpv6(m_message.report.destinationIpv6, "2001:db8::2");
    SetIpv6(m_message.report.victimIpv6, "2001:db8::2");
    EXPECT_EQ("10.1.2.3", Parsed()["src_ip"]);
    EXPECT_EQ("2001:db8::1", Parsed()["tarn"]["sourceIpv6"]);
    EXPECT_EQ("2001:db8::2", Parsed()["tarn"]["destinationIpv6"]);
    m_message.report.etherType = kEtherTypeIpv6;
    EXPECT_EQ("2001:db8::1", Parsed()["src_ip"]);
    EXPECT_EQ("2001:db8::2", Parsed()["dest_ip"]);
    EXPECT_EQ("10.1.2.3", Parsed()["tarn"]["sourceIp"]);
    EXPECT_EQ("192.168.1.20", Parsed()["tarn"]["destinationIp"]);
    EXPECT_FALSE(Parsed()["tarn"].contains("sourceIpv6"));
}

TEST_F(EveLineTest, ShowsIntruderAndVictimWhereTheyAreOthers) {
    for (const char* const name : {"intruderIp", "intruderIpv6", "intruderPort", "victimIp",
                                   "victimIpv6", "victimPort", "lastVictimIp", "lastVictimIpv6"}) {
        EXPECT_FALSE(Parsed()["tarn"].contains(name)) << name;
    }
    m_message.report.intruderIp = 1;
    m_message.report.victimIp = 2;
    m_message.report.lastVictimIp = 3;
    m_message.report.intruderPort = 4;
    m_message.report.victimPort = 5;
    SetIpv6(m_message.report.intruderIpv6, "::6");
    SetIpv6(m_message.report.victimIpv6, "::7");
    SetIpv6(m_message.report.lastVictimIpv6, "::8");
    const json tarn = Parsed()["tarn"];
    EXPECT_EQ("0.0.0.1", tarn["intruderIp"]);
    EXPECT_EQ("0.0.0.2", tarn["victimIp"]);
    EXPECT_EQ("0.0.0.3", tarn["lastVictimIp"]);
    EXPECT_EQ(4, tarn["intruderPort"]);
    EXPECT_EQ(5, tarn["victimPort"]);
    EXPECT_EQ("::6", tarn["intruderIpv6"]);
    EXPECT_EQ("::7", tarn["victimIpv6"]);
    EXPECT_EQ("::8", tarn["lastVictimIpv6"]);
}

// Every field of the report that is not at the top, each with a number of its own.
TEST_F(EveLineTest, LosesNoOtherField) {
    EventReport& report = m_message.report;
    report.sensorId = 101;
    report.filterId = 102;
    report.result = 103;
    report.eventId = 104;
    report.throttleEventCount = 105;
    report.reserved172 = 106;
    report.validFields = 107;
    report.packetFlags = 108;
    report.frameNumber = 109;
    report.flow_id = 110;
    report.icmpType = 111;
    report.icmpCode = 112;
    report.reserved197[2] = 0xAB;
    report.reserved208[0] = 0xCD;
    report.reserved232[23] = 0xEF;
    m_message.userString = 113;
    m_message.nameValues = "n";
    m_message.sensorName = "s";
    const json tarn = Parsed()["tarn"];
    const json expected = {
        {"channel", 2},
        {"ring", 0},
        {"blockedStatus", 5},
        {"reportVersion", 1},
        {"sensorId", 101},
        {"filterId", 102},
        {"icmpType", 111},
        {"icmpCode", 112},
        {"count", 1},
        {"result", 103},
        {"eventType", 6},
        {"reportType", 2},
        {"adapterId", 4294967295U},
        {"eventId", 104},
        {"throttleEventCount", 105},
        {"reserved172", 106},
        {"validFields", 107},
        {"packetFlags", 108},
        {"frameNumber", 109},
        {"etherType", 2048},
        {"priority", 1},
        {"reserved197", "0000ab"},
        {"flow_id", 110},
        {"reserved208", "cd000000000000000000000000000000"},
        {"reserved232", "0000000000000000000000000000000000000000000000ef"},
        {"userString", 113},
        {"nameValues", "n"},
        {"userResponse", "DISPLAY:WithRaw"},
        {"sensorName", "s"},
        {"packet", {{"length", 4}, {"capturedSize", 4}, {"time", 1763022257.25}}}};
    EXPECT_EQ(expected, tarn);
}

TEST_F(EveLineTest, CountsSeverityFromTheWorst) {
    const std::pair<const char*, int> kWords[] = {{"x:high", 1}, {"x:medium", 2}, {"x:low", 3}};
    for (const auto& [text, number] : kWords) {
        m_message.userData = text;
        EXPECT_EQ(number, Parsed()["alert"]["severity"]);
        EXPECT_EQ("x", Parsed()["alert"]["signature"]);
        EXPECT_FALSE(Parsed()["tarn"].contains("userData"));
    }
    m_message.userData = "x:odd";
    EXPECT_EQ(3, Parsed()["alert"]["severity"]);
    EXPECT_EQ("x:odd", Parsed()["tarn"]["userData"]);
}

TEST_F(EveLineTest, SaysWhetherTrafficWasBlocked) {
    EXPECT_EQ("blocked", Parsed()["alert"]["action"]);
    m_message.blockedStatus = 0;
    EXPECT_EQ("allowed", Parsed()["alert"]["action"]);
    EXPECT_FALSE(Parsed()["tarn"].contains("blockedStatus"));
}

TEST_F(EveLineTest, KeepsPairsWithoutAPlaceOfTheirOwn) {
    EXPECT_FALSE(Parsed()["tarn"].contains("pairs"));
    m_message.pairs = {{"Rule", "a \"b\""}, {"URL", "/\xff"}, {"x", "y"}};
    json line = Parsed();
    EXPECT_EQ("/\xef\xbf\xbd", line["http"]["url"]);
    EXPECT_FALSE(line["http"].contains("hostname"));
    EXPECT_EQ(json({{"Rule", "a \"b\""}, {"URL", {{"base64", "L/8="}}}, {"x", "y"}}),
              line["tarn"]["pairs"]);
    m_message.pairs = {{"\xff", "1"}, {"x", "2"}};
    line = Parsed();
    EXPECT_FALSE(line.contains("http"));
    EXPECT_EQ(
        json({{{"name", {{"base64", "/w=="}}}, {"value", "1"}}, {{"name", "x"}, {"value", "2"}}}),
        line["tarn"]["pairs"]);
}

TEST_F(EveLineTest, KeepsTheBytesOfANameThatIsNoUtf8) {
    m_message.userData = "caf\xe9:low";
    EXPECT_EQ("caf\xef\xbf\xbd", Parsed()["alert"]["signature"]);
    EXPECT_EQ("Y2Fm6Tpsb3c=", Parsed()["tarn"]["userData"]["base64"]);
}

TEST_F(EveLineTest, KeepsAMalformedMessage) {
    std::string line;
    const std::byte bytes[] = {std::byte{1}, std::byte{2}};
    AppendMalformedEveLine({2, 1}, "a reason", bytes, 1763022257, line);
    EXPECT_EQ(R"({"timestamp":"2025-11-13T08:24:17.000000+0000","event_type":"malformed",)"
              R"("tarn":{"channel":2,"ring":1,"malformed":"a reason","bytes":"AQI="}})"
              "\n",
              line);
}

}  // namespace
}  // namespace tarnctl

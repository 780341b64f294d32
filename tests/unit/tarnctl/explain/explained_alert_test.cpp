#include "tarnctl/explain/explained_alert.h"

#include <fstream>
#include <string>

#include "support/temp_dir.h"
#include "support/unified2_records.h"

namespace {

using tarnctl::AlertDescription;
using tarnctl::ExplainedAlert;
using testing::HasSubstr;
using u2test::Bytes;

std::string UrlOf(const ExplainedAlert& alert) {
    for (const CrmEventSource::NameValue& pair : alert.Source().GetNameValues()) {
        if (pair.key == "URL") {
            return pair.value.Text();
        }
    }
    return "no URL";
}

std::string Intruder(const ExplainedAlert& alert) {
    std::string text;
    EXPECT_EQ(0, alert.Source().GetIntruderAddressText(text));
    return text;
}

std::string Victim(const ExplainedAlert& alert) {
    std::string text;
    EXPECT_EQ(0, alert.Source().GetVictimAddressText(text));
    return text;
}

TEST(DescribedAlert, IsAnExampleWithoutAnyWord) {
    ExplainedAlert alert;
    const AlertDescription nothing;
    EXPECT_TRUE(nothing.IsExample());
    ASSERT_EQ("", alert.Describe(7, nothing));
    EXPECT_EQ(7u, alert.Source().GetIssueId());
    EXPECT_EQ(6, alert.Source().GetProtocol());
    EXPECT_EQ("192.0.2.1", Intruder(alert));
    EXPECT_EQ("198.51.100.2", Victim(alert));
    EXPECT_EQ(80, alert.Source().GetVictimPort());
    EXPECT_LT(1700000000u, alert.Source().GetStartTime());
}

TEST(DescribedAlert, HasWhatIsGiven) {
    AlertDescription description;
    description.protocol = "udp";
    description.source = "10.0.0.1";
    description.destination = "10.0.0.2";
    description.sourcePort = 53;
    description.destinationPort = 1025;
    description.time = 99;
    EXPECT_FALSE(description.IsExample());
    ExplainedAlert alert;
    ASSERT_EQ("", alert.Describe(7, description));
    EXPECT_EQ(17, alert.Source().GetProtocol());
    EXPECT_EQ("10.0.0.1", Intruder(alert));
    EXPECT_EQ("10.0.0.2", Victim(alert));
    EXPECT_EQ(53, alert.Source().GetIntruderPort());
    EXPECT_EQ(1025, alert.Source().GetVictimPort());
    EXPECT_EQ(99u, alert.Source().GetStartTime());
}

TEST(DescribedAlert, TakesTheIcmpOfItsIpVersion) {
    AlertDescription description;
    description.protocol = "icmp";
    description.source = "2001:db8::7";
    ExplainedAlert alert;
    ASSERT_EQ("", alert.Describe(7, description));
    EXPECT_EQ(6, alert.Source().GetIpVersion());
    EXPECT_EQ(58, alert.Source().GetProtocol());
    EXPECT_EQ(128, alert.Source().GetIcmpType());
    EXPECT_EQ("2001:db8::7", Intruder(alert));
    EXPECT_EQ("2001:db8::2", Victim(alert));

    description.source = "10.0.0.1";
    description.icmpType = 3;
    description.icmpCode = 4;
    ASSERT_EQ("", alert.Describe(7, description));
    EXPECT_EQ(1, alert.Source().GetProtocol());
    EXPECT_EQ(3, alert.Source().GetIcmpType());
    EXPECT_EQ(4, alert.Source().GetIcmpCode());
}

TEST(DescribedAlert, TakesAProtocolByItsNumber) {
    AlertDescription description;
    ExplainedAlert alert;
    description.protocol = "58";
    ASSERT_EQ("", alert.Describe(7, description));
    EXPECT_EQ(4, alert.Source().GetIpVersion());
    EXPECT_EQ(58, alert.Source().GetProtocol());
    EXPECT_EQ(0, alert.Source().GetIcmpType()) << "the other version's ICMP has no fields";
    description.protocol = "icmpv6";
    ASSERT_EQ("", alert.Describe(7, description));
    EXPECT_EQ(6, alert.Source().GetIpVersion());
}

TEST(DescribedAlert, RefusesWhatDoesNotFit) {
    const auto faultOf = [](auto change) {
        AlertDescription description;
        change(description);
        return ExplainedAlert().Describe(7, description);
    };
    EXPECT_THAT(faultOf([](auto& d) { d.protocol = "256"; }), HasSubstr("--proto: 256"));
    EXPECT_THAT(faultOf([](auto& d) { d.protocol = "6x"; }), HasSubstr("--proto: 6x"));
    EXPECT_THAT(faultOf([](auto& d) { d.source = "10.0.0"; }), HasSubstr("--src: 10.0.0"));
    EXPECT_THAT(faultOf([](auto& d) {
                    d.source = "2001:db8::1";
                    d.destination = "10.0.0.1";
                }),
                HasSubstr("--dst: 10.0.0.1 is no IPv6 address"));
    EXPECT_THAT(faultOf([](auto& d) {
                    d.protocol = "icmp";
                    d.destinationPort = 80;
                }),
                HasSubstr("are for tcp and udp"));
    EXPECT_THAT(faultOf([](auto& d) { d.icmpType = 8; }), HasSubstr("are for icmp"));
}

// --- a file of the sensor -----------------------------------------------------------------------

class AlertOfAFile : public testing::Test {
  protected:
    static constexpr uint32_t kWanted = 5;

    void Add(uint32_t type, const Bytes& payload) {
        u2test::Put32(m_bytes, type);
        u2test::Put32(m_bytes, static_cast<uint32_t>(payload.size()));
        u2test::Append(m_bytes, payload);
    }
    void AddAlert(uint32_t signature, uint32_t eventId) {
        u2test::Alert alert;
        alert.signatureId = signature;
        alert.eventId = eventId;
        Add(alert.Type(), alert.Payload());
    }
    void AddPacket(uint32_t eventId) {
        u2test::Packet packet;
        packet.eventId = eventId;
        Add(2, packet.Payload());
    }
    void AddUri(uint32_t eventId, const std::string& uri) {
        Bytes payload;
        for (const uint32_t word :
             {0U, 0U, 0U, eventId, 0U, 9U, 1U, static_cast<uint32_t>(uri.size() + 8)}) {
            u2test::Put32(payload, word);
        }
        payload.insert(payload.end(), uri.begin(), uri.end());
        Add(110, payload);
    }
    std::string Take(ExplainedAlert& alert) {
        std::ofstream file(m_dir.File("alerts.u2"), std::ios::binary);
        file.write(reinterpret_cast<const char*>(m_bytes.data()),
                   static_cast<std::streamsize>(m_bytes.size()));
        file.close();
        return alert.TakeFromFile(kWanted, m_dir.File("alerts.u2"));
    }

    TempDir m_dir;
    Bytes m_bytes;
};

TEST_F(AlertOfAFile, IsTheFirstOfItsSignatureWithItsAttachments) {
    AddAlert(4, 1);
    AddPacket(1);
    AddAlert(kWanted, 2);
    AddPacket(2);
    AddAlert(kWanted, 3);
    AddUri(2, "/index");
    AddAlert(kWanted, 4);
    ExplainedAlert alert;
    ASSERT_EQ("", Take(alert));
    EXPECT_EQ(kWanted, alert.Source().GetIssueId());
    EXPECT_EQ(4u, alert.Source().GetPacket().uPacketLength);
    EXPECT_EQ("/index", UrlOf(alert));
    EXPECT_EQ(2u, alert.Further());
}

TEST_F(AlertOfAFile, TakesNoPacketOfAnotherAlert) {
    AddAlert(kWanted, 2);
    AddPacket(3);
    AddAlert(4, 3);
    AddPacket(2);
    ExplainedAlert alert;
    ASSERT_EQ("", Take(alert));
    EXPECT_EQ(nullptr, alert.Source().GetPacket().pData);
}

TEST_F(AlertOfAFile, TakesExtraDataAtTheDistanceOfTheIdsOnly) {
    AddAlert(kWanted, 2);
    AddAlert(4, 9);
    AddUri(2, "/index");
    ExplainedAlert alert;
    ASSERT_EQ("", Take(alert));
    EXPECT_THAT(alert.Source().GetNameValues(), testing::IsEmpty());
}

TEST_F(AlertOfAFile, IsFoundInFrontOfADamage) {
    AddAlert(kWanted, 2);
    m_bytes.resize(m_bytes.size() + 5);
    ExplainedAlert alert;
    EXPECT_EQ("", Take(alert));
}

TEST_F(AlertOfAFile, IsMissedWhereThereIsNone) {
    AddAlert(4, 1);
    ExplainedAlert alert;
    EXPECT_THAT(Take(alert), HasSubstr("has no alert of signature 5"));
    EXPECT_THAT(alert.TakeFromFile(kWanted, m_dir.File("none")), HasSubstr("No such file"));
}

TEST_F(AlertOfAFile, SaysThatExtraDataShorterThanItsFieldsEndsTheDaemon) {
    AddAlert(kWanted, 1);
    Bytes payload(32, 0);
    payload[15] = 1;
    Add(110, payload);
    ExplainedAlert alert;
    EXPECT_THAT(Take(alert), HasSubstr("which ends the daemon"));
}

// --- a report
// -------------------------------------------------------------------------------------

constexpr const char* kReport =
    R"({"name":"Name","blocked":true,"pairs":{"URL":"/u","Rule":"r"},"packet":{"capturedSize":60,)"
    R"("time":1.000002},"report":{"etherType":34525,"issueId":9,"startTime":77,)"
    R"("ipProtocol":58,"icmpType":128,"icmpCode":1,"intruderPort":0,"victimPort":0,)"
    R"("vlanId":4294967295,"intruderIpv6":"2001:db8::1","victimIpv6":"2001:db8::2"}})";

TEST(AlertOfAReport, HasTheFieldsOfTheReport) {
    ExplainedAlert alert;
    ASSERT_EQ("", alert.TakeFromReport(kReport));
    EXPECT_EQ(9u, alert.Source().GetIssueId());
    EXPECT_EQ(6, alert.Source().GetIpVersion());
    EXPECT_EQ(58, alert.Source().GetProtocol());
    EXPECT_EQ(128, alert.Source().GetIcmpType());
    EXPECT_EQ(1, alert.Source().GetIcmpCode());
    EXPECT_EQ(77u, alert.Source().GetStartTime());
    EXPECT_EQ("2001:db8::1", Intruder(alert));
    EXPECT_EQ("2001:db8::2", Victim(alert));
    EXPECT_EQ(60u, alert.Source().GetPacket().uPacketLength);
    EXPECT_EQ(1u, alert.Source().GetPacket().uSeconds);
    EXPECT_EQ(2u, alert.Source().GetPacket().uMicroseconds);
    EXPECT_EQ("/u", UrlOf(alert));
    EXPECT_EQ(1u, alert.Source().GetNameValues().size()) << "the rule is the entry's";
    EXPECT_TRUE(alert.WasBlocked());
    EXPECT_EQ("Name", alert.ReportedName());
}

TEST(AlertOfAReport, RefusesALineThatIsNone) {
    ExplainedAlert alert;
    EXPECT_THAT(alert.TakeFromReport("{}"), HasSubstr("not a report of tarnctl crm --json"));
    EXPECT_THAT(alert.TakeFromReport("rubbish"), HasSubstr("not a report"));
    std::string spoilt = kReport;
    spoilt.replace(spoilt.find("2001:db8::1"), 11, "10.0.0.1");
    EXPECT_EQ("an address of the report is none", alert.TakeFromReport(spoilt));
}

}  // namespace

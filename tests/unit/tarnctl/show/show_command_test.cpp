#include "tarnctl/show/show_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/temp_dir.h"
#include "tarnctl/common/exit_status.h"
#include "unit/tarnctl/common/lines_of.h"
#include "unit/tarnctl/common/unified2_files.h"

using testing::EndsWith;
using testing::HasSubstr;
using Json = nlohmann::json;

namespace tarnctl {
namespace {

class ShowTest : public testing::Test {
  protected:
    ShowTest() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    static std::string Framed(uint32_t type, const u2test::Bytes& payload) {
        return AsText(u2test::Framed(type, payload));
    }
    static std::string FullAlert(uint32_t event = 1, uint32_t signature = 1000001) {
        u2test::Alert alert;
        alert.eventId = event;
        alert.signatureId = signature;
        alert.vlanId = 12;
        alert.blocked = 1;
        alert.priorityId = 3;
        return Framed(104, alert.Payload());
    }
    static std::string FullPacket(uint32_t event = 1, uint32_t link = 101) {
        u2test::Packet packet;
        packet.eventId = event;
        packet.linktype = link;
        packet.data = {0x45, 0, 0,  28, 0, 1, 0, 0,  64, 17, 0, 0, 10, 0,
                       0,    1, 10, 0,  0, 2, 0, 53, 4,  1,  0, 8, 0,  0};
        return Framed(2, packet.Payload());
    }
    static std::string FullExtra(uint32_t event = 1) {
        u2test::ExtraData extra;
        extra.eventId = event;
        extra.data = "/index\x1b.html";
        return Framed(110, extra.Payload());
    }
    int Run(const std::string& content) {
        m_options.file = m_dir.Write("alerts.u2", content);
        m_out = {};
        m_err = {};
        return RunShow(m_options, m_out, m_err);
    }
    std::vector<std::string> Lines() const { return LinesOf(m_out); }

    TempDir m_dir;
    ShowOptions m_options;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(ShowTest, ShowsEachRecordAsALine) {
    EXPECT_EQ(kExitFine, Run(FullAlert() + FullExtra() + FullPacket() + Record(67, 5)));
    ASSERT_EQ(4U, Lines().size());
    EXPECT_EQ(
        "2023-11-14 22:13:20.000000  event 1  SID 1:1000001:1  10.1.2.3:40000 -> 192.168.0.1:80  "
        "TCP  priority 3  blocked 1  VLAN 12",
        Lines()[0]);
    EXPECT_EQ("2023-11-14 22:13:20  extra data 1  HTTP URI  /index\\x1B.html", Lines()[1]);
    EXPECT_EQ("2023-11-14 22:13:21.000999  packet 1  10.0.0.1:53 -> 10.0.0.2:1025 UDP  28 bytes",
              Lines()[2]);
    EXPECT_EQ("performance record of type 67  5 bytes", Lines()[3]);
    EXPECT_EQ("tarnctl show: 1 event, 1 extra data, 1 packet, 1 performance\n", m_err.str());
}

TEST_F(ShowTest, ShowsTypeAndCodeOfIcmp) {
    u2test::Alert alert;
    alert.protocol = 1;
    alert.sportItype = 8;
    alert.dportIcode = 2;
    EXPECT_EQ(kExitFine, Run(Framed(104, alert.Payload())));
    EXPECT_THAT(Lines()[0], HasSubstr("  10.1.2.3 -> 192.168.0.1  ICMP type 8 code 2  "));
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run(Framed(104, alert.Payload())));
    const Json line = Json::parse(Lines()[0]);
    EXPECT_EQ(8, line.at("icmpType"));
    EXPECT_EQ(2, line.at("icmpCode"));
    EXPECT_TRUE(line.at("sourcePort").is_null());
}

TEST_F(ShowTest, ShowsBytesWhereTheyAreAskedFor) {
    m_options.hex = true;
    EXPECT_EQ(kExitFine, Run(FullAlert() + FullPacket()));
    ASSERT_EQ(4U, Lines().size());
    EXPECT_EQ("  000000  45 00 00 1c 00 01 00 00 40 11 00 00 0a 00 00 01  E.......@.......",
              Lines()[2]);
    EXPECT_EQ("  000010  0a 00 00 02 00 35 04 01 00 08 00 00              .....5......",
              Lines()[3]);
}

TEST_F(ShowTest, ShowsEachFieldAsJson) {
    m_options.json = true;
    EXPECT_EQ(kExitFine, Run(FullAlert() + FullExtra() + FullPacket() + Record(67, 5)));
    ASSERT_EQ(4U, Lines().size());
    EXPECT_EQ(Json::parse(R"({"offset":0,"type":104,"kind":"event","length":60,"sensorId":0,
        "eventId":1,"time":1700000000,"generatorId":1,"signatureId":1000001,"signatureRevision":1,
        "classificationId":0,"priorityId":3,"source":"10.1.2.3","destination":"192.168.0.1",
        "protocol":6,"sourcePort":40000,"destinationPort":80,"icmpType":null,"icmpCode":null,
        "impactFlag":0,"impact":0,"blocked":1,"mplsLabel":0,"vlanId":12,"policies":[0],
        "application":null})"),
              Json::parse(Lines()[0]));
    const Json extra = Json::parse(Lines()[1]);
    EXPECT_EQ(68, extra.at("offset"));
    EXPECT_EQ("HTTP URI", extra.at("extraKind"));
    EXPECT_EQ("/index\x1b.html", extra.at("data"));
    const Json packet = Json::parse(Lines()[2]);
    EXPECT_EQ("10.0.0.1", packet.at("source"));
    EXPECT_EQ(53, packet.at("sourcePort"));
    EXPECT_EQ(1025, packet.at("destinationPort"));
    EXPECT_EQ(17, packet.at("protocol"));
    EXPECT_EQ(1700000001.000999, packet.at("time"));
    EXPECT_EQ("RQAAHAABAABAEQAACgAAAQoAAAIANQQBAAgAAA==", packet.at("bytes"));
    EXPECT_EQ(Json::parse(R"({"offset":192,"type":67,"kind":"performance","length":5})").at("type"),
              Json::parse(Lines()[3]).at("type"));
}

TEST_F(ShowTest, ShowsADamagedFileAsFarAsItGoes) {
    const std::string content = FullAlert() + FullPacket();
    EXPECT_EQ(kExitFailure, Run(content.substr(0, content.size() - 1)));
    EXPECT_EQ(1U, Lines().size());
    EXPECT_THAT(m_err.str(),
                HasSubstr("the file is truncated: the record at offset 68 has 55 of 56 "
                          "bytes of payload"));
    EXPECT_THAT(m_err.str(), EndsWith("tarnctl show: 1 event\n"));
    EXPECT_EQ(kExitFailure, Run("this is no unified2 file"));
    EXPECT_THAT(m_err.str(), HasSubstr("not a unified2 file"));
}

TEST_F(ShowTest, NamesAMalformedRecordAndGoesOn) {
    const std::string content = FullAlert() + Record(2, 27) + FullAlert(2);
    EXPECT_EQ(kExitFailure, Run(content));
    EXPECT_EQ(2U, Lines().size());
    EXPECT_THAT(m_err.str(),
                HasSubstr("malformed record of type 2 at offset 68: 27 bytes of payload, "
                          "where its kind needs at least 28"));
    EXPECT_THAT(m_err.str(), HasSubstr("2 events, 1 malformed"));
    m_options.json = true;
    EXPECT_EQ(kExitFailure, Run(content));
    EXPECT_THAT(Json::parse(Lines()[1]).at("malformed").get<std::string>(), HasSubstr("27 bytes"));
}

TEST_F(ShowTest, ShowsWhatIsAskedForWithWhatBelongsToIt) {
    m_options.query.signatures = {7};
    EXPECT_EQ(kExitFine,
              Run(FullAlert(1) + FullPacket(1) + FullAlert(2, 7) + FullPacket(2) + FullExtra(2)));
    EXPECT_EQ("tarnctl show: 1 event, 1 extra data, 1 packet\n", m_err.str());
    m_options.query.signatures = {8};
    EXPECT_EQ(kExitFine, Run(FullAlert(1)));
    EXPECT_EQ("tarnctl show: no records\n", m_err.str());
}

#ifdef TARNCTL_WITH_PCAP

TEST_F(ShowTest, WritesThePacketsThatItShows) {
    m_options.pcap = m_dir.File("out.pcap");
    m_options.query.signatures = {7};
    EXPECT_EQ(kExitFine,
              Run(FullAlert(1) + FullPacket(1) + FullAlert(2, 7) + FullPacket(2) + FullPacket(2)));
    const std::string file = m_dir.Read("out.pcap");
    ASSERT_EQ(24U + 2 * (16 + 28), file.size());
    EXPECT_EQ(101, file[20]) << "the link type of the first packet";
    EXPECT_EQ(28, file[24 + 8]);
    EXPECT_EQ(0x45, file[24 + 16]);
}

TEST_F(ShowTest, SaysWhichPacketsHaveNoPlaceInTheFile) {
    m_options.pcap = m_dir.File("out.pcap");
    EXPECT_EQ(kExitFailure, Run(FullAlert() + FullPacket(1) + FullPacket(1, 1)));
    EXPECT_THAT(m_err.str(), HasSubstr("1 packet of another link type than the first is not in "));
    EXPECT_EQ(24U + 16 + 28, m_dir.Read("out.pcap").size());
}

TEST_F(ShowTest, SaysThatALinkTypeHasNoPlaceInAFile) {
    m_options.pcap = m_dir.File("out.pcap");
    EXPECT_EQ(kExitFailure, Run(FullAlert() + FullPacket(1, 0x7FFFFFFF)));
    EXPECT_THAT(m_err.str(), HasSubstr("packets of link type 2147483647 cannot be written"));
}

TEST_F(ShowTest, SaysThatItCannotWriteThePackets) {
    m_options.pcap = m_dir.File("none/out.pcap");
    EXPECT_EQ(kExitFailure, Run(FullAlert()));
    EXPECT_THAT(m_err.str(), HasSubstr("name a file that this user may write"));
    EXPECT_EQ("", m_out.str());
    m_options.pcap = "/dev/full";
    EXPECT_EQ(kExitFailure, Run(FullAlert() + FullPacket()));
    EXPECT_THAT(m_err.str(), HasSubstr("/dev/full: No space left on device"));
}

#endif

TEST_F(ShowTest, SaysThatThereIsNoFile) {
    m_options.file = m_dir.File("missing");
    EXPECT_EQ(kExitFailure, RunShow(m_options, m_out, m_err));
    EXPECT_THAT(m_err.str(), HasSubstr("missing: No such file or directory"));
}

}  // namespace
}  // namespace tarnctl

// What each sender puts on the wire, and the text of a message.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "packet_log/connection_hash.h"
#include "packet_log/packet_log_ctrl_if.h"
#include "support/golden_bytes.h"
#include "support/levelled_log.h"
#include "support/packet_log_daemon.h"

namespace {

using PacketLogCtrl::kAllInterfaces;
using PacketLogCtrl::LogControlMessage;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kTime = 0x12345678;
constexpr uint64_t kConnection = 0x1122334455667788;
const uint8_t kData[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};

EventReport Report(const char* userString = "SNORT") {
    EventReport report;
    report.issueId = 12345;
    report.userString = userString;
    return report;
}

PacketInfo Packet() {
    PacketInfo packet;
    packet.uPacketLength = 1514;
    packet.iCapturedSize = sizeof(kData);
    packet.uSeconds = 0x2000;
    packet.uMicroseconds = 0x3001;
    packet.pData = kData;
    packet.uFrameNumber = 0x4002;
    packet.uReserved = 0x5003;
    packet.uFlags = 0x6004;
    packet.uAdapterID = 0x7005;
    return packet;
}

PacketLogDaemon::Datagram Bare(uint8_t type) {
    PacketLogDaemon::Datagram datagram(128, 0);
    datagram[0] = type;
    datagram[4] = 8;
    return datagram;
}

// A message of a type in front of what would be its body.
struct Raw {
    LogControlMessage head;
    uint8_t body[240] = {};
};

class PacketLogMessages : public PacketLogFixture {
  protected:
    void SetUp() override {
        PacketLogFixture::SetUp();
        Open();
    }

    std::string TextOf(const LogControlMessage* message) {
        std::ostringstream stream;
        stream << "what was there before";
        Control::SerializeStruct(message, stream);
        return stream.str();
    }

    PacketLogDaemon m_daemon{Path()};
    bool m_isNew = true;
    uint16_t m_captureId = 99;
    uint64_t m_connection = 0;
};

TEST_F(PacketLogMessages, WithoutABodyAreTheTypeAndEightInAHundredAndTwentyEightBytes) {
    EXPECT_EQ(0, m_control->SendType15());
    EXPECT_EQ(Bare(15), m_daemon.Take());
    EXPECT_EQ(0, m_control->SendType16());
    EXPECT_EQ(Bare(16), m_daemon.Take());
    EXPECT_EQ(0, m_control->SendReloadEventsMessage());
    EXPECT_EQ(Bare(17), m_daemon.Take());
    EXPECT_EQ(0, m_control->Initialize());
    EXPECT_EQ(Bare(1), m_daemon.Take());
    ASSERT_EQ(1, m_control->SetStringParameter("engine.rollpktcap.enabled", "false"));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_EQ(Bare(7), m_daemon.Take());
    ASSERT_EQ(1, m_control->SetStringParameter("engine.droplog.enabled", "false"));
    EXPECT_EQ(0, m_control->ApplyDpcSettings());
    EXPECT_EQ(Bare(10), m_daemon.Take());
    m_control->Shutdown();
    EXPECT_EQ(Bare(12), m_daemon.Take());
}

TEST_F(PacketLogMessages, NewConnectionCaptureHasTheGoldenBytes) {
    EventReport report = Report();
    report.ipProtocol = 6;
    PacketInfo packet = Packet();
    packet.uSeconds = kTime;
    m_connection = kConnection;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(GoldenBytes("packet_log_type2.txt"), m_daemon.Take()) << "and no packet after it";
}

TEST_F(PacketLogMessages, InterfaceCaptureHasTheGoldenBytes) {
    EXPECT_EQ(0, m_control->SendInterfaceCapture(3, 12345, kTime, "SNORT"));
    EXPECT_EQ(GoldenBytes("packet_log_type3.txt"), m_daemon.Take());
}

TEST_F(PacketLogMessages, InterfaceCaptureOfAllHasAMaskOf65535) {
    EXPECT_EQ(0, m_control->SendInterfaceCapture(kAllInterfaces, 1, kTime, nullptr));
    EXPECT_EQ(65535U, WordAt(m_daemon.Take(), 32));
}

TEST_F(PacketLogMessages, InterfaceCaptureSettingsHaveNoTimeEventOrText) {
    ASSERT_EQ(1, m_control->SetStringParameter("engine.logevidence.format", "raw"));
    EXPECT_EQ(0, m_control->SendInterfaceCaptureSettings(77, 0x8005, 42));
    Datagram expected(128, 0);
    const uint32_t words[] = {3, 92, 1, 1000, 500, 0, 0, 42, 0x8005};
    std::memcpy(expected.data(), words, sizeof(words));
    EXPECT_EQ(expected, m_daemon.Take());
}

TEST_F(PacketLogMessages, OffendingPacketCaptureHasTheGoldenBytes) {
    const EventReport report = Report();
    const PacketInfo packet = Packet();
    m_control->SendOffendingPacketCapture(&report, &packet, 0xA1B2C3D4);
    EXPECT_EQ(GoldenBytes("packet_log_type4.txt"), m_daemon.Take());
}

TEST_F(PacketLogMessages, OffendingPacketCaptureWithoutAPacketHasZerosInItsPlace) {
    const EventReport report = Report(nullptr);
    m_control->SendOffendingPacketCapture(&report, nullptr, 0);
    Datagram expected(128, 0);
    const uint32_t words[] = {4, 120, 1, 1000, 500, 0, 0, 12345};
    std::memcpy(expected.data(), words, sizeof(words));
    EXPECT_EQ(expected, m_daemon.Take());
}

TEST_F(PacketLogMessages, OffendingPacketCaptureWithoutAReportHasNoEvent) {
    const PacketInfo packet = Packet();
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
    const Datagram datagram = m_daemon.Take();
    EXPECT_EQ(133U, datagram.size());
    EXPECT_EQ(0U, WordAt(datagram, 28));
    EXPECT_EQ(0U, WordAt(datagram, 32));
}

TEST_F(PacketLogMessages, OffendingPacketCaptureOfNoCapturedBytesIs128BytesLong) {
    for (const int32_t captured : {0, -1}) {
        PacketInfo packet = Packet();
        packet.iCapturedSize = captured;
        m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
        const Datagram datagram = m_daemon.Take();
        EXPECT_EQ(128U, datagram.size());
        EXPECT_EQ(static_cast<uint32_t>(captured), WordAt(datagram, 92));
    }
}

TEST_F(PacketLogMessages, OffendingPacketCaptureOfOneCapturedByteHasIt) {
    PacketInfo packet = Packet();
    packet.iCapturedSize = 1;
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
    const Datagram datagram = m_daemon.Take();
    ASSERT_EQ(129U, datagram.size());
    EXPECT_EQ(0xDE, datagram[128]);
}

TEST_F(PacketLogMessages, OffendingPacketCaptureOfANullPointerIs128BytesLong) {
    PacketInfo packet = Packet();
    packet.pData = nullptr;
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
    const Datagram datagram = m_daemon.Take();
    EXPECT_EQ(128U, datagram.size());
    EXPECT_EQ(5U, WordAt(datagram, 92)) << "the packet's word stays";
}

TEST_F(PacketLogMessages, OfTheRollingCaptureHaveTheGoldenBytes) {
    std::vector<uint8_t> golden = GoldenBytes("packet_log_type8.txt");
    ASSERT_EQ(1, m_control->SetIntParameter("engine.rollpktcap.maxfiles", 10));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.rollpktcap.maxkbytes", 512));
    ASSERT_EQ(1, m_control->SetStringParameter("engine.rollpktcap.interfaces", "A,c"));
    ASSERT_EQ(1, m_control->SetStringParameter("engine.rollpktcap.enabled", "true"));
    EXPECT_EQ(0, m_control->ApplyRpcSettings());
    EXPECT_EQ(golden, m_daemon.Take());
    golden[0] = 6;
    EXPECT_EQ(golden, m_daemon.Take());
    EXPECT_THAT(m_daemon.TakeTypes(), IsEmpty());
}

TEST_F(PacketLogMessages, OfTheDropLogHaveTheSameForm) {
    std::vector<uint8_t> golden = GoldenBytes("packet_log_type8.txt");
    ASSERT_EQ(1, m_control->SetIntParameter("engine.droplog.maxfiles", 10));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.droplog.maxkbytes", 512));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.droplog.flags", 5));
    ASSERT_EQ(1, m_control->SetStringParameter("engine.droplog.format", "pcap"));
    ASSERT_EQ(1, m_control->SetStringParameter("engine.droplog.enabled", "true"));
    EXPECT_EQ(0, m_control->ApplyDpcSettings());
    golden[0] = 11;
    EXPECT_EQ(golden, m_daemon.Take());
    golden[0] = 9;
    EXPECT_EQ(golden, m_daemon.Take());
    EXPECT_THAT(m_daemon.TakeTypes(), IsEmpty());
}

TEST_F(PacketLogMessages, ConnectionCaptureNoticeHasTheGoldenBytes) {
    EXPECT_EQ(0, m_control->SendConnectionCaptureNotice(kConnection, kTime));
    EXPECT_EQ(GoldenBytes("packet_log_type13.txt"), m_daemon.Take());
}

TEST_F(PacketLogMessages, TextHasTheGoldenBytes) {
    EXPECT_EQ(0, m_control->SendText("hello"));
    EXPECT_EQ(GoldenBytes("packet_log_type14.txt"), m_daemon.Take());
}

TEST_F(PacketLogMessages, TextEndsAfterIts118thByteWithTwoZeros) {
    EXPECT_EQ(0, m_control->SendText(std::string(300, 'x').c_str()));
    const Datagram datagram = m_daemon.Take();
    ASSERT_EQ(128U, datagram.size());
    EXPECT_EQ(Datagram(118, 'x'), Datagram(datagram.begin() + 8, datagram.begin() + 126));
    EXPECT_EQ(0, datagram[126]);
    EXPECT_EQ(0, datagram[127]);
    EXPECT_EQ(0, m_control->SendText(nullptr));
    EXPECT_EQ(0U, WordAt(m_daemon.Take(), 8));
}

TEST_F(PacketLogMessages, KeepsAUserStringOf56BytesWithoutANul) {
    const std::string text = std::string(56, 'u') + "after it";
    const EventReport report = Report(text.c_str());
    const PacketInfo packet = Packet();
    m_control->SendOffendingPacketCapture(&report, &packet, 0);
    Datagram datagram = m_daemon.Take();
    ASSERT_EQ(133U, datagram.size());
    EXPECT_EQ(Datagram(56, 'u'), Datagram(datagram.begin() + 32, datagram.begin() + 88));
    EXPECT_EQ(1514U, WordAt(datagram, 88));

    EXPECT_EQ(0, m_control->SendInterfaceCapture(0, 0, 0, text.c_str()));
    datagram = m_daemon.Take();
    EXPECT_EQ(Datagram(56, 'u'), Datagram(datagram.begin() + 36, datagram.begin() + 92));
    EXPECT_EQ(0U, WordAt(datagram, 92));
}

TEST_F(PacketLogMessages, ReloadEventsIsLoggedFirst) {
    Peer::SetDestination(*m_control, m_dir.File("nobody"));
    const std::string failure =
        "5 Error sending control message of type 17 to the packet logging daemon.  Message: No such file or directory";
    EXPECT_THAT(
        LevelledMessages([this] { EXPECT_EQ(ENOENT, m_control->SendReloadEventsMessage()); }),
        ElementsAre("5 SendReloadEventsMessage called", failure, failure));
}

// --- what the settings change --------------------------------------------------------------------

TEST_F(PacketLogMessages, CarryTheEvidenceSettingsOfTheMoment) {
    ASSERT_EQ(1, m_control->SetStringParameter("engine.logevidence.format", "text"));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.maxfiles", 11));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.maxkbytes", 12));
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 13));
    EventReport report = Report();
    report.ipProtocol = 6;
    report.issueId = 4711;
    const PacketInfo packet = Packet();
    const auto expectFiles = [](const Datagram& datagram) {
        EXPECT_EQ(0U, WordAt(datagram, 8)) << "the format";
        EXPECT_EQ(11U, WordAt(datagram, 12));
        EXPECT_EQ(12U, WordAt(datagram, 16));
    };
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    const Datagram connection = m_daemon.Take();
    expectFiles(connection);
    EXPECT_EQ(0x2000U, WordAt(connection, 20));
    EXPECT_EQ(4711U, WordAt(connection, 32));
    EXPECT_EQ(13U, WordAt(connection, 36));

    EXPECT_EQ(0, m_control->SendInterfaceCapture(2, 4712, kTime, "SNORT"));
    const Datagram interface = m_daemon.Take();
    expectFiles(interface);
    EXPECT_EQ(kTime, WordAt(interface, 20));
    EXPECT_EQ(4712U, WordAt(interface, 24));
    EXPECT_EQ(13U, WordAt(interface, 28));
    EXPECT_EQ(4U, WordAt(interface, 32));

    EXPECT_EQ(0, m_control->SendInterfaceCaptureSettings(0, 1, 2));
    const Datagram settings = m_daemon.Take();
    EXPECT_EQ(1U, WordAt(settings, 8)) << "this one is always pcap";
    EXPECT_EQ(11U, WordAt(settings, 12));
    EXPECT_EQ(12U, WordAt(settings, 16));
    EXPECT_EQ(2U, WordAt(settings, 28)) << "the caller's count";

    m_control->SendOffendingPacketCapture(&report, &packet, 0);
    const Datagram offending = m_daemon.Take();
    expectFiles(offending);
    EXPECT_EQ(4711U, WordAt(offending, 28));
}

TEST_F(PacketLogMessages, NewConnectionCaptureSavesTheConfiguredCountWithThePacketAtHand) {
    EventReport report = Report();
    report.flow_id = 4711;
    const PacketInfo packet = Packet();
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 4));
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    for (int left = 3; left > 0; --left) {
        EXPECT_TRUE(m_control->LookupConnection(4711, packet.uSeconds)) << left;
    }
    EXPECT_FALSE(m_control->LookupConnection(4711, packet.uSeconds));
}

TEST_F(PacketLogMessages, ConnectionIsKeptWithThePacketsTime) {
    EventReport report = Report();
    report.flow_id = 4711;
    const PacketInfo packet = Packet();
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_TRUE(m_control->LookupConnection(4711, packet.uSeconds + 300));
    EXPECT_TRUE(m_control->LookupConnection(4711, packet.uSeconds + 301)) << "found, then swept";
    EXPECT_FALSE(m_control->LookupConnection(4711, packet.uSeconds));
}

// --- the quiet period ----------------------------------------------------------------------------

TEST_F(PacketLogMessages, NewConnectionCaptureIsThrottledByThePacketsTime) {
    PacketInfo packet = Packet();
    EventReport report = Report();
    for (const uint16_t protocol : {uint16_t{6}, uint16_t{17}}) {
        report.ipProtocol = protocol;
        report.flow_id = 4711;
        packet.uSeconds += 1000;
        const uint32_t failures = m_control->m_uFailNewConnection;
        const uint32_t throttled = m_control->m_uThrottled;
        Peer::SetDestination(*m_control, m_dir.File("nobody"));
        m_connection = 0;
        EXPECT_EQ(1, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                         m_connection));
        EXPECT_EQ(packet.uSeconds, Peer::LastFailTime(*m_control));
        Peer::SetDestination(*m_control, Path());
        m_connection = 0;
        EXPECT_EQ(1, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                         m_connection))
            << "skipped is not sent";
        EXPECT_EQ(failures + 1, m_control->m_uFailNewConnection);
        EXPECT_EQ(throttled + 1, m_control->m_uThrottled);
        EXPECT_EQ(0U, Control::ConnectionCount());
        EXPECT_THAT(m_daemon.TakeTypes(), IsEmpty());
        PacketInfo later = packet;
        later.uSeconds += 5;
        m_connection = 0;
        EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &later, m_isNew, m_captureId,
                                                         m_connection));
        EXPECT_THAT(m_daemon.TakeTypes(), ElementsAre(2));
        EXPECT_EQ(protocol == 6 ? 0U : 1U, Control::ConnectionCount());
    }
}

TEST_F(PacketLogMessages, ThatFailStartAQuietPeriodAtTheirTime) {
    Peer::SetDestination(*m_control, m_dir.File("nobody"));
    EXPECT_EQ(ENOENT, m_control->SendConnectionCaptureNotice(7, 1000));
    EXPECT_EQ(1000U, Peer::LastFailTime(*m_control));
    EXPECT_EQ(ENOENT, m_control->SendInterfaceCapture(1, 1, 2000, nullptr));
    EXPECT_EQ(2000U, Peer::LastFailTime(*m_control));
    PacketInfo packet = Packet();
    packet.uSeconds = 3000;
    m_control->SendOffendingPacketCapture(nullptr, &packet, 0);
    EXPECT_EQ(3000U, Peer::LastFailTime(*m_control));
    EXPECT_EQ(ENOENT, m_control->SendInterfaceCaptureSettings(0, 1, 1));
    EXPECT_EQ(ENOENT, m_control->SendText("x"));
    EXPECT_EQ(ENOENT, m_control->SendType15());
    EXPECT_EQ(ENOENT, m_control->SendType16());
    EXPECT_EQ(3000U, Peer::LastFailTime(*m_control)) << "these have no time";
}

// --- which connection a capture is for -----------------------------------------------------------

TEST_F(PacketLogMessages, NewConnectionCaptureWithoutAReportGivesOneAndSendsNothing) {
    m_connection = 5;
    EXPECT_EQ(1, m_control->SendNewConnectionCapture(nullptr, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_FALSE(m_isNew);
    EXPECT_EQ(0, m_captureId);
    EXPECT_EQ(1U, Peer::RepeatConnections(*m_control)) << "counted before anything else";
    EXPECT_THAT(m_daemon.TakeTypes(), IsEmpty());
}

TEST_F(PacketLogMessages, NewConnectionCaptureOfTcpTakesAFreshCaptureId) {
    EventReport report = Report();
    report.ipProtocol = 6;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_TRUE(m_isNew);
    EXPECT_EQ(1, m_captureId);
    EXPECT_EQ(CaptureIdHash(1), m_connection);
    const Datagram datagram = m_daemon.Take();
    uint64_t sent = 0;
    ASSERT_EQ(128U, datagram.size());
    std::memcpy(&sent, datagram.data() + 24, sizeof(sent));
    EXPECT_EQ(m_connection, sent);
    EXPECT_EQ(0U, WordAt(datagram, 20)) << "no packet, no time";
    EXPECT_EQ(0U, Control::ConnectionCount()) << "a TCP capture is not kept here";
    EXPECT_EQ(0U, Peer::RepeatConnections(*m_control));
}

TEST_F(PacketLogMessages, CaptureIdWrapsAtSixteenBits) {
    EventReport report = Report();
    report.ipProtocol = 6;
    Peer::NextCaptureId(*m_control) = 0xFFFF;
    for (const int expected : {0xFFFF, 0}) {
        m_connection = 0;
        EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                         m_connection));
        EXPECT_EQ(expected, m_captureId);
    }
}

TEST_F(PacketLogMessages, NewConnectionCaptureOfTcpKeepsTheConnectionInHand) {
    EventReport report = Report();
    report.ipProtocol = 6;
    m_connection = kConnection;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_FALSE(m_isNew);
    EXPECT_EQ(0, m_captureId);
    EXPECT_EQ(kConnection, m_connection);
    EXPECT_EQ(1U, Peer::RepeatConnections(*m_control));
}

TEST_F(PacketLogMessages, NewConnectionCaptureByFlowIdKeepsOnePacketLess) {
    EventReport report = Report();
    report.ipProtocol = 17;
    report.flow_id = 4711;
    const PacketInfo packet = Packet();
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 2));
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(4711U, m_connection);
    EXPECT_FALSE(m_isNew);
    EXPECT_EQ(1U, Control::ConnectionCount());
    EXPECT_TRUE(m_control->LookupConnection(4711, packet.uSeconds)) << "the one that is left";
    EXPECT_EQ(0U, Control::ConnectionCount());
    EXPECT_FALSE(m_control->LookupConnection(4711, packet.uSeconds));
}

TEST_F(PacketLogMessages, NewConnectionCaptureByFlowIdPrefersTheConnectionInHand) {
    EventReport report = Report();
    report.flow_id = 4711;
    const PacketInfo packet = Packet();
    ASSERT_EQ(1, m_control->SetIntParameter("engine.logevidence.count", 2));
    m_connection = 12;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(12U, m_connection);
    EXPECT_TRUE(m_control->LookupConnection(12, packet.uSeconds));
    EXPECT_TRUE(m_control->LookupConnection(12, packet.uSeconds)) << "both packets were to come";
    EXPECT_EQ(0U, Control::ConnectionCount());
}

TEST_F(PacketLogMessages, KeepsTheHashForAReportWithoutAFlowIdWhateverTheCallerHolds) {
    EventReport report = Report();
    report.ipProtocol = 17;
    report.sourcePort = 53;
    report.destinationPort = 4000;
    const PacketInfo packet = Packet();
    m_connection = 12;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, &packet, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(12U, m_connection);
    EXPECT_FALSE(m_control->LookupConnection(12, packet.uSeconds));
    EXPECT_TRUE(m_control->LookupConnection(ConnectionHash(report), packet.uSeconds));
}

TEST_F(PacketLogMessages, NewConnectionCaptureOfEventType4GoesByItsFlowThoughItIsTcp) {
    EventReport report = Report();
    report.ipProtocol = 6;
    report.eventType = 4;
    report.flow_id = 99;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(99U, m_connection);
    EXPECT_FALSE(m_isNew);
    EXPECT_EQ(1U, Control::ConnectionCount());
}

TEST_F(PacketLogMessages, NewConnectionCaptureOfAnotherEtherTypeSendsNothing) {
    EventReport report = Report();
    report.etherType = 0x0806;
    EXPECT_EQ(0, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(0U, m_connection);
    EXPECT_THAT(m_daemon.TakeTypes(), IsEmpty());
    EXPECT_EQ(0U, m_control->m_uAttempted);
}

TEST_F(PacketLogMessages, NewConnectionCaptureThatFailsGivesOneAndKeepsNoConnection) {
    Peer::SetDestination(*m_control, m_dir.File("nobody"));
    EventReport report = Report();
    report.flow_id = 4711;
    EXPECT_EQ(1, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(0U, m_connection);
    EXPECT_EQ(0U, Control::ConnectionCount());
    report.ipProtocol = 6;
    EXPECT_EQ(1, m_control->SendNewConnectionCapture(&report, nullptr, m_isNew, m_captureId,
                                                     m_connection));
    EXPECT_EQ(2U, m_control->m_uFailNewConnection);
}

// --- the text of a message -----------------------------------------------------------------------

TEST_F(PacketLogMessages, SerializeStructReplacesWhatTheStreamHeld) {
    EXPECT_EQ("Null pointer passed in to Serialize Struct", TextOf(nullptr));
}

TEST_F(PacketLogMessages, SerializeStructOfEachTypeHasItsText) {
    Raw raw;
    raw.head = {1, 8};
    EXPECT_EQ(" Message of type/len 1/8 LogControlMessage_EngineStarting.", TextOf(&raw.head));
    raw.head.uType = 7;
    EXPECT_EQ(" Message of type/len 7/8 LogControlMessage_EndRollingPacketCapture",
              TextOf(&raw.head));
    raw.head.uType = 12;
    EXPECT_EQ(" Message of type/len 12/8 LogControlMessage_EngineShuttingDown.", TextOf(&raw.head));
    for (const uint32_t type : {0U, 3U, 5U, 9U, 10U, 11U, 13U, 14U, 15U, 16U, 17U, 18U}) {
        raw.head.uType = type;
        EXPECT_EQ(" Message of type/len " + std::to_string(type) + "/8 Unknown message type.",
                  TextOf(&raw.head));
    }
}

TEST_F(PacketLogMessages, SerializeStructOfACaptureNamesItsFields) {
    PacketLogCtrl::LogControlMessage_NewConnectionCapture connection;
    connection.uConnectionID = kConnection;
    connection.uEventID = 12345;
    connection.uPacketSaveCount = 100;
    std::memset(connection.szUserString, 'u', sizeof(connection.szUserString));
    EXPECT_EQ(
        " Message of type/len 2/96 LogControlMessage_NewConnectionCapture\n"
        "ConnectionID: 1234605616436508552\nEventID: 12345\nPacketSaveCount: 100\nUserString:  " +
            std::string(56, 'u'),
        TextOf(&connection.head));

    PacketLogCtrl::LogControlMessage_OffendingPacketCapture packet;
    packet.uEventID = 1;
    packet.uPacketHash = 2;
    packet.iCapturedSize = -3;
    packet.uFrameNumber = 4;
    packet.uFlags = 5;
    packet.uAdapterID = 6;
    EXPECT_EQ(
        " Message of type/len 4/120 LogControlMessage_OffendingPacketCapture  EventID= 1  "
        "PacketHash= 2\n capturedSize=-3 frameNumber=4 flags=5 adapterID=6",
        TextOf(&packet.head));
}

TEST_F(PacketLogMessages, SerializeStructOfSettingsNamesItsFields) {
    PacketLogCtrl::LogControlMessage_CaptureSettings settings;
    settings.uFileFormat = 1;
    settings.uInterfaces = 5;
    settings.uMaxFiles = 10;
    settings.uMaxFileSize = 512;
    settings.head.uType = 6;
    EXPECT_EQ(
        " Message of type/len 6/28 LogControlMessage_StartRollingPacketCapture  FileFormat= 1  "
        "Interfaces=5 MaxFiles=10 MaxFileSize=512",
        TextOf(&settings.head));
    settings.head.uType = 8;
    EXPECT_EQ(
        " Message of type/len 8/28 LogControlMessage_ConfigureRollingPacketCapture FileFormat= 1  "
        "Interfaces=5 MaxFiles=10 MaxFileSize=512",
        TextOf(&settings.head));
}

TEST_F(PacketLogMessages, SerializeStructOfAShortMessageFindsZeros) {
    const LogControlMessage head{4, 8};  // nothing comes after it
    EXPECT_EQ(
        " Message of type/len 4/8 LogControlMessage_OffendingPacketCapture  EventID= 0  "
        "PacketHash= 0\n capturedSize=0 frameNumber=0 flags=0 adapterID=0",
        TextOf(&head));
}

}  // namespace
